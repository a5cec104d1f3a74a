// Which layout accepts a device, which handler runs, and how its result ends the run.

#include "expect.h"
#include "probe_log.h"
#include "v1_device.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <ostream>
#include <regex>

using namespace tier_test;

namespace {

const std::vector<std::string> COMMANDS{
    "dump_super",   "dump_brick",   "dump_inode",    "dump_extent",  "dump_shard",
    "dump_hot",     "repair_super", "repair_brick",  "repair_inode", "repair_extent",
    "repair_shard", "repair_hot",   "convert_super",
};

struct LayoutCommands {
    int version;
    std::vector<std::string> missing;
};

std::ostream &operator<<(std::ostream &out, const LayoutCommands &layout)
{
    return out << 'V' << layout.version;
}

const std::vector<LayoutCommands> LAYOUTS{
    {1, {"dump_shard", "dump_hot", "repair_shard", "repair_hot", "convert_super"}},
    {2, {"dump_shard", "dump_hot", "repair_shard", "repair_hot"}},
    {3, {"convert_super"}},
};

// A super block with nothing but what a layout's check looks at.
Block bare_super(std::uint32_t magic, std::uint32_t version, std::size_t length)
{
    Block block{};
    put_u32(block, 4, magic);
    put_u32(block, 112, version);
    seal(block, length);
    return block;
}

Block bare_super(int version)
{
    if (version == 3)
        return bare_super(0xCACBDCBD, 0x30000, 264);
    return version == 2 ? bare_super(0xCACBCCCD, 0x20000, 168)
                        : bare_super(0xCACBCCCD, 0x10000, 144);
}

LogLine not_supported(int version, const std::string &command)
{
    return error_line("main",
                      "version V" + std::to_string(version) + " not support cmd:" + command);
}

class Dispatch : public testing::Test {
protected:
    Device device{MIB};

    void set_super(const Block &block) { device.write(SUPER_OFFSET, block); }

    void expect_corrupt(const Block &block)
    {
        set_super(block);
        const LogLine corrupt =
            error_line("main", "super block may corrupt. path:" + device.path());
        expect_run(
            run_logged(device, "dump_super"),
            {.status = 14,
             .out = "",
             .log = probe_log(device, "dump_super", LAYOUTS.back().version + 1, {}, {corrupt})});
    }
};

// Every layout with each command that it has or lacks.
class LayoutDispatch : public Dispatch, public testing::WithParamInterface<LayoutCommands> {
protected:
    const int version = GetParam().version;
    const std::vector<std::string> missing = GetParam().missing;
    const Block super = bare_super(version);

    void SetUp() override { set_super(super); }

    // Those that the layout has.
    std::vector<std::string> commands(const std::string &prefix) const
    {
        std::vector<std::string> result;
        std::ranges::copy_if(COMMANDS, std::back_inserter(result), [&](const auto &command) {
            return command.starts_with(prefix) && std::ranges::count(missing, command) == 0;
        });
        return result;
    }
};

TEST_P(LayoutDispatch, AcceptingVersionWithoutTheCommandIsNamed)
{
    for (const std::string &command : missing) {
        SCOPED_TRACE(command);
        expect_run(
            run_logged(device, command),
            {.status = 22,
             .out = "",
             .log = probe_log(device, command, version, {}, {not_supported(version, command)})});
    }
}

TEST_P(LayoutDispatch, ForcedVersionWithoutTheCommandIsNamed)
{
    for (const std::string &command : missing) {
        SCOPED_TRACE(command);
        expect_run(run_logged(device, command, {"-v", std::to_string(version)}),
                   {.status = 22,
                    .out = "",
                    .log = {settings_line(device, command, {.spec_ver = version}),
                            not_supported(version, command)}});
    }
}

TEST_P(LayoutDispatch, EveryOtherCommandReachesItsHandler)
{
    for (const std::string &command : COMMANDS) {
        SCOPED_TRACE(command);
        const auto refusals = std::ranges::count(missing, command);
        const LoggedRun run = run_logged(device, command);
        EXPECT_EQ(std::ranges::count(run.errors, "main", &LogLine::func), refusals) << run;
    }
}

TEST_P(LayoutDispatch, RepairsWithoutAFileReachTheRepairDriver)
{
    const LogLine failure =
        error_line("zutr_repair_common", "failed to get repair_conf or open repair_conf fd");
    for (const std::string &command : commands("repair_")) {
        SCOPED_TRACE(command);
        expect_run(
            run_logged(device, command),
            {.status = 22, .out = "", .log = probe_log(device, command, version, {}, {failure})});
    }
}

// The table handlers need the super block that a forced version does not read.
TEST_P(LayoutDispatch, ForcedVersionAbortsTheTableDumps)
{
    for (const std::string &command : commands("dump_"))
        if (command != "dump_super")
            expect_abort(run_logged(device, command, {"-v", std::to_string(version)}),
                         "params && params->sb && params->fd >= 0");
}

INSTANTIATE_TEST_SUITE_P(Version, LayoutDispatch, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return std::to_string(layout.param.version); });

TEST_F(Dispatch, SuperBlockThatNoVersionAcceptsIsCorrupt)
{
    expect_corrupt(Block{});
    Block noise;
    noise.fill(0xCC);
    expect_corrupt(noise);
    // Right magic and version, each with one bit of the checksum off.
    for (int version = 1; version <= 3; ++version) {
        SCOPED_TRACE(version);
        Block block = bare_super(version);
        block[0] ^= 1;
        expect_corrupt(block);
    }
    expect_corrupt(bare_super(0xCACBCCCD, 0x30000, 264)); // V3 with the other magic
    expect_corrupt(bare_super(0xCACBDCBD, 0x10000, 144));
    expect_corrupt(bare_super(0xCACBDCBD, 0x20000, 168));
    expect_corrupt(bare_super(0xCACBCCCD, 0x10001, 144));
    expect_corrupt(bare_super(0xCACBCCCD, 0, 144));
}

TEST_F(Dispatch, ForcedVersionIsNotCheckedAgainstTheDevice)
{
    set_super(bare_super(3));
    // Without a super block a dump ends quietly.
    for (const LayoutCommands &layout : LAYOUTS) {
        SCOPED_TRACE(layout.version);
        expect_run(run_logged(device, "dump_super", {"-v", std::to_string(layout.version)}),
                   {.status = 22,
                    .out = "",
                    .log = {settings_line(device, "dump_super", {.spec_ver = layout.version})}});
    }
}

TEST_F(Dispatch, ForcedVersionOutOfRangeIsNotSupported)
{
    const std::vector<std::pair<std::string, int>> versions{
        {"4", 4},
        {"010", 8},
        {"-1", -1},
        {"0x7fffffff", 2147483647},
        {"0x80000000", -2147483647 - 1},
        {"1000000", 1000000},
    };
    for (const auto &[argument, version] : versions) {
        SCOPED_TRACE(argument);
        expect_run(run_logged(device, "dump_super", {"-v", argument}),
                   {.status = 22,
                    .out = "",
                    .log = {settings_line(device, "dump_super", {.spec_ver = version}),
                            error_line("main", text("version V%d is not supported", version))}});
    }
}

TEST_F(Dispatch, ConversionWithoutAFileEndsQuietly)
{
    for (const int version : {1, 2, 3}) {
        SCOPED_TRACE(version);
        set_super(bare_super(version));
        for (const std::vector<std::string> &more :
             {std::vector<std::string>{}, std::vector<std::string>{"-y"}}) {
            std::vector<std::string> args{"-v", "2"};
            args.insert(args.end(), more.begin(), more.end());
            expect_run(run_logged(device, "convert_super", args),
                       {.status = 22,
                        .out = "",
                        .log = {settings_line(device, "convert_super", {.spec_ver = 2})}});
        }
    }
}

class DispatchLog : public testing::Test {
protected:
    Device device = make_v1_device(super_v1(1, 1, 1));
};

TEST_F(DispatchLog, WithoutALogFileErrorsStillReachStandardError)
{
    if (!default_log_is_missing())
        return;
    const std::vector<std::string> args{"-p", device.path(), "-c", "dump_shard"};
    const RunResult quiet = run_tool(args);
    EXPECT_EQ(quiet.status, 22);
    EXPECT_EQ(parse_log(quiet.err), Log{not_supported(1, "dump_shard")});

    std::vector<std::string> debug = args;
    debug.insert(debug.begin(), "-D");
    const RunResult loud = run_tool(debug);
    EXPECT_EQ(loud.status, 22);
    EXPECT_EQ(parse_log(loud.err),
              (Log{settings_line(device, "dump_shard"), not_supported(1, "dump_shard")}));
}

TEST_F(DispatchLog, EachLineNamesFunctionAndSourceLine)
{
    const RunResult run = run_tool({"-p", device.path(), "-c", "dump_shard"});
    const std::regex line(R"(\[ERROR\] \[main:[0-9]+\] version V1 not support cmd:dump_shard\n)");
    EXPECT_TRUE(std::regex_match(run.err, line)) << run.err;
}

TEST_F(DispatchLog, OutputThatCannotBeWrittenIsAnError)
{
    const std::string full = "/dev/full";
    const LogLine failure = error_line("main", "write output failed:No space left on device");
    expect_run(run_logged(device, "dump_super", {}, {.stdout_path = full}),
               {.status = 5, .out = "", .log = {settings_line(device, "dump_super"), failure}});
    expect_run(run_logged(device, "dump_brick", {"-o", full}),
               {.status = 5,
                .out = "",
                .log = {settings_line(device, "dump_brick", {.out_path = full}), failure}});
}

} // namespace
