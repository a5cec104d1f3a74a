// Each option, long and short, seen through the settings that the tool logs and what it does.

#include "expect.h"
#include "v1_device.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class CommandLine : public testing::Test {
protected:
    SuperV1 super = super_v1(3, 3, 1);
    Device device = make_v1_device(super, {brick_used(1)});

    std::string file(std::string_view name) const { return device.directory().path(name); }

    // Runs "-l <log>" and `args`, which must end in a dumped super block with these settings.
    void expect_dump(const std::vector<std::string> &args, const Settings &settings)
    {
        SCOPED_TRACE(testing::PrintToString(args));
        expect_run(run_with_log(device.directory(), args),
                   {.status = 0,
                    .out = json(super),
                    .log = {settings_line(device, "dump_super", settings)}});
    }

    void expect_dump_with(std::vector<std::string> args, const Settings &settings)
    {
        args.insert(args.end(), {"-p", device.path(), "-c", "dump_super"});
        expect_dump(args, settings);
    }
};

TEST_F(CommandLine, PathAndCommandInBothForms)
{
    const std::string path = device.path();
    expect_dump({"-p", path, "-c", "dump_super"}, {});
    expect_dump({"--path", path, "--cmd", "dump_super"}, {});
    expect_dump({"--path=" + path, "--cmd=dump_super"}, {});
    expect_dump({"-p" + path, "-cdump_super"}, {});
    expect_dump({"-c", "dump_super", "-p", path}, {});
}

TEST_F(CommandLine, LongOptionsMayBeShortenedAndOtherArgumentsAreIgnored)
{
    expect_dump({"--pa", device.path(), "--cm", "dump_super"}, {});
    expect_dump({"stray", "-p", device.path(), "-c", "dump_super", "more"}, {});
}

TEST_F(CommandLine, RepeatedOptionsOverwriteEarlierOnes)
{
    expect_dump({"-p", "/nonexistent", "-c", "dump_brick", "-n", "1", "-f", "a", "-p",
                 device.path(), "-c", "dump_super", "-n", "2", "-f", "b"},
                {.meta_no = 2, .repair_conf = "b"});
    expect_dump_with({"-v", "9", "-v", "0"}, {});
}

TEST_F(CommandLine, NumbersOfOptionNo)
{
    const std::vector<std::pair<std::string, int>> numbers{
        {"0", 0},
        {"7", 7},
        {"0x10", 16},
        {"0X1f", 31},
        {"010", 8},
        {"-1", -1},
        {"-2", -2},
        {"12abc", 12},
        {"abc", 0},
        {"", 0},
        {" 5", 5},
        {"2147483647", 2147483647},
        {"2147483648", -2147483647 - 1},
        {"4294967295", -1},
        {"4294967299", 3}, // the low 32 bits
        {"99999999999999999999", -1},
    };
    for (const auto &[argument, value] : numbers) {
        expect_dump_with({"-n", argument}, {.meta_no = value});
        expect_dump_with({"--no=" + argument}, {.meta_no = value});
    }
}

TEST_F(CommandLine, NegativeNumberDumpsAllEntries)
{
    const LoggedRun all = run_logged(device, "dump_brick");
    const LoggedRun negative = run_logged(device, "dump_brick", {"-n", "-1"});
    EXPECT_EQ(negative.status, 0);
    EXPECT_EQ(negative.out, all.out);
    EXPECT_EQ(all.out.front(), '[');
}

TEST_F(CommandLine, VersionZeroProbesAsIfAbsent)
{
    expect_dump_with({"-v", "0"}, {});
    expect_dump_with({"--version", "0x0"}, {});
    expect_dump_with({"-v", "4294967296"}, {});
    expect_dump_with({"-v", "text"}, {});
}

TEST_F(CommandLine, ForcedVersionIsLoggedAndReadsNoSuperBlock)
{
    device.truncate(0); // a super block cannot be read
    for (const std::vector<std::string> &option :
         {std::vector<std::string>{"-v", "1"}, {"--version=0x1"}, {"-v", "4294967297"}}) {
        SCOPED_TRACE(testing::PrintToString(option));
        expect_run(run_logged(device, "dump_super", option),
                   {.status = 22,
                    .out = "",
                    .log = {settings_line(device, "dump_super", {.spec_ver = 1})}});
    }
}

TEST_F(CommandLine, RepairConfIsTakenAsGiven)
{
    expect_dump_with({"-f", "/no/such.json"}, {.repair_conf = "/no/such.json"});
    expect_dump_with({"--repair_conf=x y"}, {.repair_conf = "x y"});
}

TEST_F(CommandLine, ForceAndDebugAndCommitLeaveTheSettingsLineAlone)
{
    expect_dump_with({"-F"}, {});
    expect_dump_with({"--force"}, {});
    expect_dump_with({"-y"}, {});
    expect_dump_with({"--commit=yes"}, {});
}

TEST_F(CommandLine, OutputFileTakesTheDumpAndIsTruncatedFirst)
{
    for (const std::string form : {"-o", "--output"}) {
        const std::string out = device.directory().write("out", std::string(100'000, 'x'));
        SCOPED_TRACE(form);
        expect_run(run_logged(device, "dump_super", {form, out}),
                   {.status = 0,
                    .out = "",
                    .log = {settings_line(device, "dump_super", {.out_path = out})}});
        EXPECT_EQ(read_file(out), json(super));
    }
}

TEST_F(CommandLine, OnlyTheLastOutputFileIsCreated)
{
    const LoggedRun run = run_logged(device, "dump_super", {"-o", file("a"), "-o", file("b")});
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(std::filesystem::exists(file("a")));
    EXPECT_EQ(read_file(file("b")), json(super));
}

TEST_F(CommandLine, OutputFileIsTruncatedEvenIfTheCommandFails)
{
    const std::string out = device.directory().write("out", "old content");
    const LoggedRun run = run_logged(device, "dump_brick", {"-n", "99", "-o", out});
    EXPECT_EQ(run.status, 22);
    EXPECT_EQ(read_file(out), "");
}

TEST_F(CommandLine, DebugModeRepeatsDebugLinesOnStandardError)
{
    for (const std::string form : {"-D", "--debug"}) {
        SCOPED_TRACE(form);
        const LoggedRun run = run_logged(device, "dump_brick", {form, "-n", "0", "-g", "use=1"});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.log.size(), 2U);
        EXPECT_EQ(run.errors, run.log);
    }
}

// A running program cannot be opened for writing: used as the device, it shows how it was opened.
TEST_F(CommandLine, CommitOpensTheDeviceReadWriteEvenForDumps)
{
    const std::string self = ZU_TIER;
    const LogLine busy =
        error_line("zutr_prepare_param", "open " + self + " failed. errno: Text file busy");
    const std::vector<std::string> dump{"-p", self, "-c", "dump_super"};
    const std::vector<std::vector<std::string>> commits{
        {"-y"}, {"--commit=yes"}, {"--commit", "no"}, {"--commit="}};
    for (const auto &commit : commits) {
        SCOPED_TRACE(testing::PrintToString(commit));
        std::vector<std::string> args = dump;
        args.insert(args.end(), commit.begin(), commit.end());
        expect_run(run_with_log(device.directory(), args), {.status = 5, .out = "", .log = {busy}});
    }
    EXPECT_EQ(run_with_log(device.directory(), dump).status, 14);
}

TEST_F(CommandLine, CommitDecidesWhetherARepairIsWritten)
{
    const std::string conf = device.directory().write("conf", R"({"bi_use":0,"bi_no":1})");
    const auto offset = static_cast<std::uint64_t>(brick_offset(super, 1));
    const Block before = device.block(offset);
    EXPECT_EQ(run_logged(device, "repair_brick", {"-f", conf}).status, 0);
    EXPECT_EQ(device.block(offset), before);
    for (const std::string commit : {"-y", "--commit=no"}) {
        device.write(offset, before);
        EXPECT_EQ(run_logged(device, "repair_brick", {"-f", conf, commit}).status, 0);
        EXPECT_NE(device.block(offset), before) << commit;
    }
}

TEST_F(CommandLine, LogFileIsAppendedTo)
{
    const std::string log = device.directory().write("kept", "first\n");
    const std::vector<std::string> args{"--log-file", log, "-p", device.path(), "-c", "dump_super"};
    EXPECT_EQ(run_tool(args).status, 0);
    EXPECT_EQ(run_tool(args).status, 0);
    const LogLine settings = settings_line(device, "dump_super");
    EXPECT_EQ(parse_log(read_file(log)), (Log{raw_text("first\n"), settings, settings}));
}

TEST_F(CommandLine, LaterLogFileReplacesAnEarlierOne)
{
    const RunResult run =
        run_tool({"-l", file("a"), "-l", file("b"), "-p", device.path(), "-c", "dump_super"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(read_file(file("a")), "");
    EXPECT_EQ(parse_log(read_file(file("b"))), (Log{settings_line(device, "dump_super")}));
}

} // namespace
