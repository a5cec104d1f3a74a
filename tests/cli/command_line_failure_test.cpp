// Command lines that are refused: the first failing option ends the run.

#include "expect.h"
#include "v1_device.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace tier_test;

namespace {

const std::string PROGRAM = ZU_TIER;
const std::string FOR_HELP = ". <" + PROGRAM + " -h> for help";

LogLine refusal(const std::string &message) { return error_line("zutr_prepare_param", message); }

std::string open_error(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), flags);
    if (fd < 0)
        return std::strerror(errno);
    close(fd);
    return "";
}

class RefusedCommandLine : public testing::Test {
protected:
    Device device = make_v1_device(super_v1(1, 1, 1));

    std::string file(std::string_view name) const { return device.directory().path(name); }

    void expect_refused(const std::vector<std::string> &args, int status, const LogLine &line)
    {
        SCOPED_TRACE(testing::PrintToString(args));
        expect_run(run_with_log(device.directory(), args),
                   {.status = status, .out = "", .log = {line}});
    }
};

TEST_F(RefusedCommandLine, UnknownCommandNames)
{
    for (const std::string name :
         {"dump_hot_table", "repair_hot_table", "restore_brick", "restore_inode", "restore_extent",
          "DUMP_SUPER", "dump", "dump_super ", "dump_supe", "", "0"})
        expect_refused({"-p", device.path(), "-c", name}, 22,
                       refusal("unkown cmd <" + name + ">" + FOR_HELP));
}

TEST_F(RefusedCommandLine, UnknownCommandEndsTheReadingOfOptions)
{
    expect_refused({"-c", "bogus", "-h"}, 22, refusal("unkown cmd <bogus>" + FOR_HELP));
    expect_refused({"-c", "bogus", "-l", file("later")}, 22,
                   refusal("unkown cmd <bogus>" + FOR_HELP));
    EXPECT_FALSE(std::filesystem::exists(file("later")));
}

struct BadOption {
    std::vector<std::string> args;
    std::string complaint; // the option reader's own
};

TEST_F(RefusedCommandLine, UnknownOptionsAndMissingArguments)
{
    const std::vector<BadOption> cases{
        {{"-z"}, "invalid option -- 'z'"},
        {{"-?"}, "invalid option -- '?'"},
        {{"--bogus"}, "unrecognized option '--bogus'"},
        {{"--help=me"}, "option '--help' doesn't allow an argument"},
        {{"--force=1"}, "option '--force' doesn't allow an argument"},
        {{"-c"}, "option requires an argument -- 'c'"},
        {{"-p"}, "option requires an argument -- 'p'"},
        {{"-n"}, "option requires an argument -- 'n'"},
        {{"-f"}, "option requires an argument -- 'f'"},
        {{"-v"}, "option requires an argument -- 'v'"},
        {{"-o"}, "option requires an argument -- 'o'"},
        {{"-g"}, "option requires an argument -- 'g'"},
        {{"-l"}, "option requires an argument -- 'l'"},
        {{"--cmd"}, "option '--cmd' requires an argument"},
        {{"--path"}, "option '--path' requires an argument"},
        {{"--no"}, "option '--no' requires an argument"},
        {{"--repair_conf"}, "option '--repair_conf' requires an argument"},
        {{"--version"}, "option '--version' requires an argument"},
        {{"--output"}, "option '--output' requires an argument"},
        {{"--filter"}, "option '--filter' requires an argument"},
        {{"--log-file"}, "option '--log-file' requires an argument"},
        {{"--commit"}, "option '--commit' requires an argument"},
    };
    const LogLine line = refusal("unrecognize option '-?'" + FOR_HELP);
    for (const BadOption &bad : cases) {
        SCOPED_TRACE(testing::PrintToString(bad.args));
        std::vector<std::string> args{"-p", device.path(), "-c", "dump_super"};
        args.insert(args.end(), bad.args.begin(), bad.args.end());
        const LoggedRun run = run_with_log(device.directory(), args);
        EXPECT_EQ(run.status, 22);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.log, Log{line});
        EXPECT_EQ(run.errors, (Log{raw_text(PROGRAM + ": " + bad.complaint + "\n"), line}));
    }
}

TEST_F(RefusedCommandLine, CommandAndPathAreBothNeeded)
{
    const LogLine line = refusal("cmd and dev path must be specified" + FOR_HELP);
    expect_refused({"-c", "dump_super"}, 22, line);
    expect_refused({"-p", device.path()}, 22, line);
    expect_refused({"stray"}, 22, line);
    expect_refused({"-y", "-F", "-n", "1"}, 22, line);
}

TEST_F(RefusedCommandLine, DeviceThatCannotBeOpened)
{
    const std::string no_direct_io = "/proc/version";
    for (const std::string &path : {file("missing"), no_direct_io, std::string()}) {
        const std::string reason = open_error(path, O_RDONLY | O_DIRECT);
        ASSERT_NE(reason, "") << path;
        expect_refused({"-p", path, "-c", "dump_super", "-o", file("out")}, 5,
                       refusal("open " + path + " failed. errno: " + reason));
        EXPECT_FALSE(std::filesystem::exists(file("out")));
    }
    const std::string reason = open_error(file(""), O_RDWR | O_DIRECT);
    ASSERT_NE(reason, "");
    expect_refused({"-p", file(""), "-c", "dump_super", "-y"}, 5,
                   refusal("open " + file("") + " failed. errno: " + reason));
}

TEST_F(RefusedCommandLine, DeviceWithoutAWholeSuperBlock)
{
    for (const std::uint64_t size : {0U, 4096U, 4608U, 8191U}) {
        SCOPED_TRACE(size);
        device.truncate(size);
        const LoggedRun run = run_logged(device, "dump_super", {"-o", file("out")});
        EXPECT_EQ(run.status, 5);
        EXPECT_EQ(run.out, "");
        ASSERT_EQ(run.log.size(), 1U);
        EXPECT_EQ(run.log[0].level, "ERROR");
        EXPECT_EQ(run.log[0].func, "zutr_prepare_param");
        // What the end of a file leaves in errno is not fixed.
        EXPECT_TRUE(run.log[0].text.starts_with("read super failed. path:" + device.path() +
                                                ", ret: -1, errno: "))
            << run.log[0];
        EXPECT_EQ(run.errors, run.log);
        EXPECT_FALSE(std::filesystem::exists(file("out")));
    }
}

TEST_F(RefusedCommandLine, OutputFileThatCannotBeOpened)
{
    const std::string out = file("no/such/out");
    expect_refused({"-p", device.path(), "-c", "dump_super", "-o", out}, 22,
                   refusal("open path " + out + " failed:No such file or directory"));
    expect_refused({"-p", device.path(), "-c", "dump_super", "-v", "1", "-o", file("")}, 22,
                   refusal("open path " + file("") + " failed:Is a directory"));
}

TEST_F(RefusedCommandLine, OutputFileThatIsTheDevice)
{
    const std::vector<std::uint8_t> before = device.bytes();
    std::filesystem::create_hard_link(device.path(), file("link"));
    std::filesystem::create_symlink(device.path(), file("symlink"));
    for (const std::string &out : {device.path(), file("link"), file("symlink")})
        expect_refused({"-p", device.path(), "-c", "dump_super", "-o", out}, 22,
                       refusal("open path " + out + " failed:Device or resource busy"));
    EXPECT_EQ(device.bytes(), before);
}

TEST_F(RefusedCommandLine, LogFileThatCannotBeOpened)
{
    if (!default_log_is_missing())
        return;
    const std::string log = file("no/such/log");
    const Log expected{
        refusal("cannot open log file " + log + ", error:No such file or directory")};
    const RunResult run = run_tool({"-l", log, "-p", device.path(), "-c", "dump_super"});
    EXPECT_EQ(run.status, 22);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(parse_log(run.err), expected);

    // The earlier log file is closed by then.
    const RunResult second = run_tool({"-l", file("log"), "-l", log});
    EXPECT_EQ(second.status, 22);
    EXPECT_EQ(parse_log(second.err), expected);
    EXPECT_EQ(read_file(file("log")), "");
}

TEST_F(RefusedCommandLine, MessagesBeforeTheLogOptionGoToTheDefaultLog)
{
    if (!default_log_is_missing())
        return;
    const RunResult run = run_tool({"-c", "bogus", "-l", file("log")});
    EXPECT_EQ(run.status, 22);
    EXPECT_EQ(parse_log(run.err), Log{refusal("unkown cmd <bogus>" + FOR_HELP)});
    EXPECT_FALSE(std::filesystem::exists(file("log")));
}

} // namespace
