#include "conformance.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <random>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tier_test {

namespace fs = std::filesystem;

namespace {

std::string random_bytes(std::size_t size)
{
    std::mt19937 random(1);
    std::string bytes;
    while (bytes.size() < size)
        bytes += static_cast<char>(random());
    return bytes;
}

// The path of the writing end of a pipe that nobody reads from, for as long as the object lives.
class BrokenPipe {
public:
    BrokenPipe()
    {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
        close(ends_[0]);
    }
    ~BrokenPipe() { close(ends_[1]); }
    BrokenPipe(const BrokenPipe &) = delete;
    BrokenPipe &operator=(const BrokenPipe &) = delete;

    std::string path() const { return text("/proc/self/fd/%d", ends_[1]); }

private:
    int ends_[2] = {-1, -1};
};

RunResult run_with_output(const std::string &path, const std::vector<std::string> &args,
                          const std::string &output)
{
    const BrokenPipe broken;
    RunOptions options;
    options.timeout = std::chrono::seconds(10);
    if (output == "full")
        options.stdout_path = "/dev/full";
    if (output == "broken")
        options.stdout_path = broken.path();
    if (output != "closed")
        return run_program(path, args, options);
    std::vector<std::string> all{"-c", "exec \"$0\" \"$@\" >&-", path};
    all.insert(all.end(), args.begin(), args.end());
    return run_program("/bin/sh", all, options);
}

} // namespace

void lay(const std::string &kind, const std::string &good, const std::string &path)
{
    fs::remove_all(path);
    if (kind == "missing")
        return;
    if (kind.starts_with("/dev/"))
        return fs::create_symlink(kind, path);
    if (kind == "directory")
        return static_cast<void>(fs::create_directory(path));
    if (kind == "fifo")
        return static_cast<void>(mkfifo(path.c_str(), 0600));
    if (kind == "socket")
        return static_cast<void>(mknod(path.c_str(), S_IFSOCK | 0600, 0));
    const std::map<std::string, std::size_t> sizes{{"tiny", 10}, {"empty", 0}, {"random", 65536}};
    if (sizes.contains(kind))
        return static_cast<void>(std::ofstream(path, std::ios::binary)
                                 << random_bytes(sizes.at(kind)));
    ASSERT_TRUE(kind == "unreadable" || kind == "read-only") << kind;
    fs::copy_file(good, path);
    fs::permissions(path, kind == "unreadable" ? fs::perms::none : fs::perms::owner_read);
}

// A thread has capabilities of its own, which what it starts inherits. Without the right to drop
// them there are none to drop.
RunResult run_as_user(const std::string &path, const std::vector<std::string> &args,
                      const std::string &output)
{
    RunResult run;
    std::thread([&] {
        for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
            prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
        run = run_with_output(path, args, output);
    }).join();
    return run;
}

std::map<std::string, std::size_t> files_in(const TempDir &directory)
{
    std::map<std::string, std::size_t> files;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory.path(""))) {
        std::size_t &bytes = files[entry.path().filename()];
        std::ifstream file;
        if (fs::is_regular_file(entry.symlink_status()))
            file.open(entry.path(), std::ios::binary);
        std::array<char, 65536> buffer;
        while (file.read(buffer.data(), buffer.size()) || file.gcount() > 0) {
            const std::string_view read(buffer.data(), static_cast<std::size_t>(file.gcount()));
            bytes = bytes * 31 + std::hash<std::string_view>()(read);
        }
    }
    return files;
}

} // namespace tier_test
