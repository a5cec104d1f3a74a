#include "in_process.h"

#include "run.h"
#include "zu_tier/record/log.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <getopt.h>
#include <ostream>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace tier_test {

namespace {

int checked(int fd, const char *what)
{
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return fd;
}

// Turns a standard descriptor into a file in memory until text() is asked for.
class Redirection {
public:
    Redirection(int fd, FILE *stream)
        : fd_(fd), stream_(stream), saved_(checked(dup(fd), "dup")),
          memory_(checked(memfd_create("redirection", MFD_CLOEXEC), "memfd_create"))
    {
        fflush(stream_);
        checked(dup2(memory_, fd_), "dup2");
    }
    Redirection(const Redirection &) = delete;
    Redirection &operator=(const Redirection &) = delete;
    ~Redirection()
    {
        restore();
        close(saved_);
        close(memory_);
    }

    std::string text()
    {
        restore();
        return read_file("/proc/self/fd/" + std::to_string(memory_));
    }

private:
    void restore()
    {
        fflush(stream_);
        dup2(saved_, fd_);
    }

    int fd_;
    FILE *stream_;
    int saved_;
    int memory_;
};

} // namespace

OpenDevice::OpenDevice(const Device &device, int flags)
    : fd_(checked(open(device.path().c_str(), flags | O_CLOEXEC), "open"))
{
}

OpenDevice::~OpenDevice() { close(fd_); }

MemoryStream::MemoryStream() : stream_(open_memstream(&data_, &size_))
{
    if (stream_ == nullptr)
        throw std::system_error(errno, std::generic_category(), "open_memstream");
}

MemoryStream::~MemoryStream()
{
    fclose(stream_);
    std::free(data_);
}

std::string MemoryStream::text() const
{
    fflush(stream_);
    return {data_, size_};
}

Call captured(const std::function<std::int64_t()> &function)
{
    const TempDir directory;
    const std::string log_path = directory.write("log", "");
    if (!zutr_set_log_file(log_path.c_str()))
        throw std::system_error(errno, std::generic_category(), log_path);
    Call call;
    std::string err;
    {
        Redirection out(STDOUT_FILENO, stdout);
        Redirection errors(STDERR_FILENO, stderr);
        call.result = function();
        err = errors.text();
        call.out = out.text();
    }
    fflush(zutr_get_logger());
    call.log = parse_log(read_file(log_path));
    EXPECT_EQ(parse_log(err), errors_of(call.log));
    return call;
}

LoggedRun run_in_process(const Device &device, const std::string &command,
                         const std::vector<std::string> &args)
{
    const std::string log_path = device.directory().write("log", "");
    std::vector<std::string> all{"zu_tier", "-l", log_path, "-p", device.path(), "-c", command};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &each : all)
        argv.push_back(each.data());
    argv.push_back(nullptr);

    LoggedRun run;
    {
        Redirection out(STDOUT_FILENO, stdout);
        Redirection errors(STDERR_FILENO, stderr);
        optind = 0; // so that the C library begins anew
        run.status = zutr_run(static_cast<int>(all.size()), argv.data());
        run.err = errors.text();
        run.out = out.text();
    }
    fflush(zutr_get_logger());
    run.log = parse_log(read_file(log_path));
    run.errors = parse_log(run.err);
    return run;
}

std::ostream &operator<<(std::ostream &out, const Call &call)
{
    out << "result " << call.result << "\nstandard output: " << call.out;
    for (const LogLine &line : call.log)
        out << '\n' << line;
    return out;
}

zutr_params_t params_on(const Device &device, const OpenDevice &open)
{
    // The path only names the device in messages, so it may outlive the Device.
    static std::string path;
    path = device.path();
    zutr_params_t params;
    zutr_params_init(&params);
    params.dev_path = path.c_str();
    params.fd = open.fd();
    params.out_fp = stdout;
    return params;
}

std::string literally(std::string_view text)
{
    std::string result;
    for (const char character : text) {
        if (std::isalnum(static_cast<unsigned char>(character)) != 0)
            result += character;
        else
            result += std::string("[") + character + "]";
    }
    return result;
}

} // namespace tier_test
