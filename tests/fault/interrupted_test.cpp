// zu_tierctl killed or interrupted where it enters and leaves every system call, on file systems
// that have files without a name and on others: what is there afterwards is complete.

#include "kill_run.h"
#include "reading_ways.h"
#include "v1_device.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

// Faults of a file system that lacks something, and what remains.
constexpr char EVERYTHING[] = "tmpfile#99=pass";
constexpr char NO_UNNAMED_FILES[] = "tmpfile=EOPNOTSUPP";
constexpr char NO_LINKS[] = "tmpfile=EOPNOTSUPP;link=EPERM;linkat=EPERM";
constexpr char NO_RENAME_FLAGS[] = "tmpfile=EOPNOTSUPP;renameat2=EINVAL";
constexpr char NO_SAFE_NAMING[] = "linkat=EPERM;renameat2=EINVAL;link=EPERM";
constexpr char NO_NAMES_FOR_UNNAMED[] = "linkat=EPERM";

class Interrupted : public testing::Test {
protected:
    const Device device = make_v1_device(super_v1(2, 3, 2), {brick_used(1)}, {inode_used(2, 1)});
    const TempDir directory;
    const std::string file = directory.path("saved");
    const std::string list = file + ".unreadable.json";

    // The programs inherit what the test run ignores, as one under nohup does.
    void SetUp() override
    {
        for (const int number : {SIGHUP, SIGINT, SIGTERM})
            signal(number, SIG_DFL);
    }

    RunResult run(const std::vector<std::string> &args, const std::string &faults) const
    {
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB}, {"ZUTR_FAULTS", faults}};
        return run_program(ZU_TIERCTL, args, options);
    }

    // The arguments with which env runs the program under the faults.
    static std::vector<std::string> with_faults(const std::vector<std::string> &args,
                                                const std::string &faults)
    {
        std::vector<std::string> all{std::string("LD_PRELOAD=") + ZUTR_FAULTS_LIB,
                                     "ZUTR_FAULTS=" + faults, ZU_TIERCTL};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    // The arguments of a sample that is small enough to be read often.
    std::vector<std::string> sample() const
    {
        return {"sample", "--layout", "v1", "--inodes",     "2",      "--bricks",
                "1",      "--blocks", "1",  "--block-size", "262144", file};
    }

    // The content of all that lies in the directory, by name.
    std::map<std::string, std::string> content() const
    {
        std::map<std::string, std::string> content;
        for (const auto &entry : fs::directory_iterator(directory.path("")))
            content[entry.path().filename()] = read_file(entry.path());
        return content;
    }

    void clear() const
    {
        for (const auto &entry : fs::directory_iterator(directory.path("")))
            fs::remove(entry.path());
    }

    // Before this stop of the run only env and the loader are at work.
    static std::size_t first_stop(const std::vector<std::string> &args, int status,
                                  const std::string &faults)
    {
        const std::size_t stops =
            run_killed_at(100'000, with_faults(args, faults), "/usr/bin/env", status);
        return std::max<std::size_t>(stops, 200) - STOPS;
    }

    // Stops of a run from there on.
    static constexpr std::size_t STOPS = 180;

    // From the end of a system call to the start of the next nothing changes on the disk.
    static constexpr std::size_t STEP = 2;

    // Whether it is the empty file that shows if a file without a name can get one. It has a name
    // from one system call to the next.
    static bool is_trial(const std::pair<const std::string, std::string> &file)
    {
        return file.first.starts_with(".zu_tierctl.") && file.second.empty();
    }

    // Sends the signal at every system call of the run, or at one of several. What remains must be
    // nothing, or all that a run leaves.
    void expect_all_or_nothing(const std::vector<std::string> &args, int status, int signal,
                               const std::string &faults, std::size_t step = STEP)
    {
        SCOPED_TRACE(faults);
        ASSERT_EQ(run(args, faults).status, status);
        const auto complete = content();
        ASSERT_FALSE(complete.empty());
        clear();
        std::size_t stop = first_stop(args, status, faults);
        std::size_t finished = 0;
        std::size_t runs = 0;
        std::size_t trials = 0;
        for (; !HasFailure(); stop += step, ++runs) {
            SCOPED_TRACE(stop);
            clear();
            if (run_killed_at(stop, with_faults(args, faults), "/usr/bin/env", status, signal) <
                stop)
                break;
            auto left = content();
            if (signal == SIGKILL)
                trials += std::erase_if(left, is_trial);
            EXPECT_TRUE(left.empty() || left == complete);
            finished += left.empty() ? 0 : 1;
        }
        EXPECT_GT(runs, 20U);
        EXPECT_GT(finished, 0U);
        EXPECT_LT(finished, runs - 20);
        EXPECT_LE(trials, 3U);
        clear();
    }
};

TEST_F(Interrupted, FilesWithoutANameVanish)
{
    const int unnamed = open(directory.path("").c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (unnamed < 0)
        GTEST_SKIP() << "no files without a name here";
    close(unnamed);
    expect_all_or_nothing({"save", device.path(), file}, 0, SIGKILL, EVERYTHING);
}

TEST_F(Interrupted, ScratchNamesAreRemoved)
{
    expect_all_or_nothing({"save", device.path(), file}, 0, SIGINT, NO_UNNAMED_FILES);
    expect_all_or_nothing({"save", device.path(), file}, 0, SIGTERM, NO_RENAME_FLAGS);
    expect_all_or_nothing({"save", device.path(), file}, 0, SIGHUP, NO_LINKS);
}

TEST_F(Interrupted, AListIsNeverLeftAlone)
{
    fs::resize_file(device.path(), device.size() - 4096);
    expect_all_or_nothing({"save", device.path(), file}, 1, SIGTERM, EVERYTHING);
    expect_all_or_nothing({"save", device.path(), file}, 1, SIGINT, NO_UNNAMED_FILES);
}

// The kernel ends these before it ends the program.
TEST_F(Interrupted, WhileReadsAreQueued)
{
    const std::string queued = way_faults(ReadingWay::queued, "save", 0);
    for (const int signal : {SIGINT, SIGKILL})
        expect_all_or_nothing({"save", device.path(), file}, 0, signal, queued + EVERYTHING, 6);
}

TEST_F(Interrupted, SamplesToo) { expect_all_or_nothing(sample(), 0, SIGTERM, NO_UNNAMED_FILES); }

TEST_F(Interrupted, ASampleThatReplacesAFileIsTheOldOrTheNew)
{
    directory.write("saved", "old");
    std::vector<std::string> args = sample();
    args.emplace_back("--force");
    const std::size_t first = first_stop_of_tierctl();
    std::size_t stop = first;
    std::size_t replaced = 0;
    for (; run_killed_at(stop, args, ZU_TIERCTL, 0, SIGTERM) == stop; stop += STEP) {
        const auto left = content();
        EXPECT_EQ(left.size(), 1U);
        const bool is_old = left.at("saved") == "old";
        EXPECT_TRUE(is_old || left.at("saved").size() > 4096);
        replaced += is_old ? 0 : 1;
        directory.write("saved", "old");
    }
    EXPECT_GT(stop, first + 20);
    EXPECT_GT(replaced, 0U);
}

TEST_F(Interrupted, ASignalThatIsIgnoredStaysIgnored)
{
    const std::vector<std::string> args{"save", device.path(), file};
    const auto before = signal(SIGHUP, SIG_IGN); // the programs inherit it
    const std::size_t first = first_stop(args, 0, NO_UNNAMED_FILES);
    for (std::size_t stop = first; stop < first + 170; stop += 5 * STEP) {
        SCOPED_TRACE(stop);
        ASSERT_TRUE(fs::remove(file));
        EXPECT_EQ(
            run_killed_at(stop, with_faults(args, NO_UNNAMED_FILES), "/usr/bin/env", 0, SIGHUP),
            stop);
        ASSERT_EQ(content().size(), 1U);
    }
    signal(SIGHUP, before);
}

// How the file gets its name

using NewFileWays = Interrupted;

TEST_F(NewFileWays, EachGivesTheSameFile)
{
    for (const char *faults :
         {EVERYTHING, NO_UNNAMED_FILES, NO_LINKS, NO_RENAME_FLAGS, NO_NAMES_FOR_UNNAMED}) {
        SCOPED_TRACE(faults);
        EXPECT_EQ(run({"save", device.path(), file}, faults).status, 0);
        const auto left = content();
        EXPECT_EQ(left.size(), 1U);
        EXPECT_TRUE(left.at("saved") == read_file(device.path()));
        EXPECT_EQ(fs::status(file).permissions(),
                  fs::status(directory.write("other", "")).permissions());
        fs::remove(directory.path("other"));
        fs::remove(file);
    }
}

// Nothing is read of the tables, and nothing is left.
TEST_F(NewFileWays, ADirectoryThatGivesNoNamesIsRefusedBeforeTheCopy)
{
    const TempDir traces;
    const std::string trace = traces.write("trace", "");
    for (const std::string &faults :
         {std::string(NO_SAFE_NAMING), std::string("tmpfile=EOPNOTSUPP;") + NO_SAFE_NAMING}) {
        SCOPED_TRACE(faults);
        const RunResult refused =
            run({"save", device.path(), file}, "trace:" + trace + ";pwrite=pass;" + faults);
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, "zu_tierctl: cannot create " + file + ": Operation not permitted\n");
        EXPECT_EQ(read_file(trace).find("pwrite"), std::string::npos);
        EXPECT_TRUE(content().empty());
    }
}

// Another program makes a file of that name while the copy runs.
TEST_F(Interrupted, AFileThatAppearsMeanwhileIsKept)
{
    for (const std::string faults :
         {EVERYTHING, NO_UNNAMED_FILES, NO_LINKS, NO_RENAME_FLAGS, NO_NAMES_FOR_UNNAMED}) {
        SCOPED_TRACE(faults);
        std::size_t refused = 0;
        const std::vector<std::string> args{"save", device.path(), file};
        const std::size_t first = first_stop(args, 0, faults);
        const std::size_t last = first + STOPS - 40; // after it the file gets its name
        std::size_t stop = first;
        fs::remove(file);
        for (bool has_ended = false; !has_ended; stop += stop < last ? 4 * STEP : STEP) {
            SCOPED_TRACE(stop);
            bool appears = false;
            const auto [reached, state] =
                run_stopped_at(stop, with_faults(args, faults), "/usr/bin/env", [&](pid_t) {
                    appears = !fs::exists(file);
                    if (appears)
                        directory.write("saved", "precious");
                });
            has_ended = reached < stop;
            const auto left = content();
            ASSERT_EQ(left.size(), 1U);
            ASSERT_TRUE(WIFEXITED(state));
            EXPECT_EQ(WEXITSTATUS(state), appears ? 1 : 0);
            EXPECT_EQ(left.at("saved") == "precious", appears);
            refused += appears ? 1 : 0;
            fs::remove(file);
        }
        EXPECT_GT(refused, 20U);
    }
}

// Its name leads to something else from a system call on: that is not read as a device.
TEST_F(Interrupted, AnExchangedDeviceIsRefused)
{
    const std::string image = directory.write("image", std::string(8192, '\0'));
    const std::string name = directory.path("name");
    const std::string errors = directory.path("errors");
    const std::vector<std::string> args{"-c", "exec \"$@\" 2>\"$0\"", errors, ZU_TIERCTL, "check",
                                        name};
    std::map<std::string, std::size_t> seen;
    std::size_t stop = 1;
    for (bool has_ended = false; !has_ended; stop += STEP) {
        fs::remove(name);
        fs::create_symlink(image, name);
        if (stop == 1) // before the program looks at the name only the loader is at work
            stop = std::max<std::size_t>(
                       run_stopped_at(100'000, args, "/bin/sh", [](pid_t) {}).reached, 120) -
                   119;
        has_ended = run_stopped_at(stop, args, "/bin/sh", [&](pid_t) {
                        fs::remove(name);
                        fs::create_symlink("/dev/null", name);
                    }).reached < stop;
        ++seen[read_file(errors)];
    }
    EXPECT_EQ(seen.size(), 2U) << testing::PrintToString(seen);
    EXPECT_GT(seen["zu_tierctl: " + name + " is neither a regular file nor a block device\n"], 1U);
    EXPECT_GT(seen["zu_tierctl: " + no_super_block(name) + "\n"], 1U);
}

} // namespace
