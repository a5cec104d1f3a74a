// How the text of -g is taken apart.

#include "expect.h"
#include "v1_device.h"

#include <csignal>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class FilterOption : public testing::Test {
protected:
    SuperV1 super = super_v1(2, 1, 1);
    Device device = make_v1_device(super, {brick_used(1)});

    void expect_filter(const std::vector<std::string> &args, const Settings &settings)
    {
        SCOPED_TRACE(testing::PrintToString(args));
        expect_run(run_logged(device, "dump_super", args),
                   {.status = 0,
                    .out = json(super),
                    .log = {settings_line(device, "dump_super", settings)}});
    }
};

struct FilterCase {
    std::string argument;
    Settings settings;
};

TEST_F(FilterOption, PairsAndKeys)
{
    const std::vector<FilterCase> cases{
        {"use=1", {.use = 1}},
        {"use=0", {.use = 0}},
        {"owner=3", {.owner = 3}},
        {"error=1", {.error = 1}},
        {"id=abc", {.id = "abc"}},
        {"use=1,owner=3,id=abc", {.use = 1, .owner = 3, .id = "abc"}},
        {"error=0,use=1,owner=5,id=x y", {.use = 1, .error = 0, .owner = 5, .id = "x y"}},
        {"use=1;owner=3", {.use = 1}}, // only a comma separates pairs
        {"color=red", {}},
        {"color=red,use=1", {.use = 1}},
        {"USE=1", {}},
        {" use=1", {}},
        {"use =1", {}},
        {"use", {.use = 0}},
        {"use=", {.use = 0}},
        {"owner,error", {.error = 0, .owner = 0}},
        {"", {}},
        {",,,", {}},
        {",use=1", {.use = 1}},
        {"use=1,", {.use = 1}},
        {"use=1,,,owner=2", {.use = 1, .owner = 2}},
        {"=use=1", {.use = 1}},
        {"use==1", {.use = 1}},
        {"use=1=2", {.use = 1}},
        {"id=a=b", {.id = "a=b"}}, // the first sign ends the key
        {"id==a==b=", {.id = "a==b="}},
        {"id=/=,use=1", {.use = 1, .id = "/="}},
        {"use=1,use=0", {.use = 0}},
    };
    for (const FilterCase &filter : cases) {
        expect_filter({"-g", filter.argument}, filter.settings);
        expect_filter({"--filter=" + filter.argument}, filter.settings);
    }
}

TEST_F(FilterOption, NumbersHaveAnyBaseAndKeepTheirLow32Bits)
{
    const std::vector<std::pair<std::string, int>> numbers{
        {"0x10", 16},      {"010", 8},         {"-1", -1}, {"text", 0},
        {"4294967298", 2}, {"4294967295", -1}, {"2x", 2},
    };
    for (const auto &[value, number] : numbers) {
        expect_filter({"-g", "use=" + value}, {.use = number});
        expect_filter({"-g", "owner=" + value}, {.owner = number});
        expect_filter({"-g", "error=" + value}, {.error = number});
    }
}

TEST_F(FilterOption, RepeatedOptionsAddUp)
{
    expect_filter({"-g", "use=1,owner=4", "-g", "owner=5,id=x"}, {.use = 1, .owner = 5, .id = "x"});
}

TEST_F(FilterOption, IdWithoutAValueIsTheEmptyText)
{
    const std::string free_brick = json(BrickV1{.no = 0}, brick_offset(super, 0));
    for (const std::string argument : {"id", "id="}) {
        const LoggedRun run = run_logged(device, "dump_brick", {"-g", argument});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, "[" + free_brick + "]") << argument;
    }
}

TEST_F(FilterOption, PairMadeOfEqualSignsNeverEnds)
{
    for (const std::string argument : {"use=1,=", "=", "==,use=1"}) {
        SCOPED_TRACE(argument);
        const RunResult run = run_tool({"-p", device.path(), "-c", "dump_super", "-g", argument},
                                       {.timeout = std::chrono::milliseconds(400)});
        EXPECT_TRUE(run.timed_out);
        EXPECT_EQ(run.signal, SIGKILL);
        EXPECT_EQ(run.out, "");
    }
}

// Where no log can be opened nothing is said of what the filter keeps back.
TEST_F(FilterOption, IgnoredEntriesWithoutALog)
{
    if (!default_log_is_missing())
        return;
    for (const std::string command : {"dump_brick", "dump_inode", "dump_extent"}) {
        const RunResult run =
            run_tool({"-p", device.path(), "-c", command, "-g", "use=1,owner=7,id=none"});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, "[]");
        EXPECT_EQ(run.err, "");
    }
}

} // namespace
