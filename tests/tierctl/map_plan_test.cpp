// zu_tierctl map --plan: what a plan would change.

#include "cache.h"
#include "map_page.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class MapPlan : public testing::Test {
protected:
    // Inode 5 is mended, nothing helps inode 0 and 9.
    Device device = make_sample({"--damage", "inode:5:bit", "--damage", "inode:0:zero", "--damage",
                                 "inode:9:checksum", "--inodes", "48", "--blocks", "64"});
    const TempDir directory;
    const std::string plan = directory.path("plan");

    void SetUp() override
    {
        SuperV1 sb = decode_super(device.block(SUPER_OFFSET));
        Block garbage;
        garbage.fill(0xA5);
        put_block(device, inode_offset(sb, 9), garbage);
        make_plan();
    }

    void make_plan() const
    {
        const RunResult run = run_ctl({"plan", device.path()});
        EXPECT_EQ(run.status, 0) << run;
        directory.write("plan", run.out);
    }

    RunResult map(const std::vector<std::string> &options = {}) const
    {
        std::vector<std::string> args{"map", device.path()};
        args.insert(args.end(), options.begin(), options.end());
        return run_ctl(args, {.environment = {{"COLUMNS", "80"}}});
    }

    // The marks of the first ten inodes.
    static std::vector<std::string> marks(const RunResult &run)
    {
        const std::vector<std::string> lines = lines_of(run.out);
        const auto head = std::ranges::find_if(
            lines, [](const std::string &line) { return line.starts_with("inode "); });
        EXPECT_NE(head, lines.end()) << run;
        std::vector<std::string> marks;
        const std::string &row = head[1];
        for (std::size_t at = row.find(' ', row.find_first_of("0123456789")) + 1;
             at < row.size() && marks.size() < 10;) {
            std::size_t end = at + 1;
            while (end < row.size() && (row[end] & '\xC0') == '\x80')
                ++end;
            marks.push_back(row.substr(at, end - at));
            at = end;
        }
        return marks;
    }
};

TEST_F(MapPlan, WhatIsRepairedIsMarked)
{
    const RunResult before = map();
    EXPECT_EQ(before.out.find("plan"), std::string::npos);
    const RunResult run = map({"--plan", plan});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_NE(run.out.find("\nplan: 1 step\n"), std::string::npos) << run;
    EXPECT_NE(run.out.find("+ repaired by the plan; "), std::string::npos) << run;
    EXPECT_NE(run.out.find(", 1 step\n"), std::string::npos) << run;
    std::vector<std::string> expected = marks(before);
    for (const std::size_t damaged : {0, 5, 9})
        EXPECT_EQ(expected.at(damaged), "X");
    expected[5] = "+";
    EXPECT_EQ(marks(run), expected);
}

TEST_F(MapPlan, OnThePage)
{
    const std::string file = directory.path("map.html");
    EXPECT_EQ(map({"--plan", plan, "--html", file}).status, 0);
    const std::string page = read_file(file);
    EXPECT_NE(page.find("<dt>Plan</dt><dd>1 step</dd>"), std::string::npos);
    EXPECT_NE(page.find("</span>repaired by the plan</li>"), std::string::npos);
    EXPECT_NE(page.find(R"(<i class="p" title="5: 1 damaged, )"), std::string::npos);
    EXPECT_NE(page.find(R"(<i class="x" title="0: 1 damaged, )"), std::string::npos);
    std::filesystem::remove(file);
    EXPECT_EQ(map({"--html", file}).status, 0);
    EXPECT_EQ(read_file(file).find("by the plan"), std::string::npos);
}

// What has been repaired, or has changed, is not to be done.
TEST_F(MapPlan, BlocksThatAreNotAsThePlanSays)
{
    const SuperV1 sb = decode_super(device.block(SUPER_OFFSET));
    flip(device, inode_offset(sb, 5) + 90, 0x01);
    const RunResult run = map({"--plan", plan});
    EXPECT_NE(run.out.find("\nplan: 0 steps, and 1 for blocks that are not as it says\n"),
              std::string::npos)
        << run;
    EXPECT_EQ(marks(run).at(5), "X");
}

TEST_F(MapPlan, APlanForAnotherDevice)
{
    const Device other = make_sample({"--seed", "2", "--inodes", "48", "--blocks", "64"});
    expect_complaint(run_ctl({"map", other.path(), "--plan", plan}), 1,
                     plan + " is a plan for another device than " + other.path());
    expect_complaint(map({"--plan", directory.path("none")}), 1,
                     "cannot read " + directory.path("none") + ": No such file or directory");
}

// A block of packed entries lies in several cells, or beside others in one.
TEST(MapPlanOfBlocks, AreMarkedWhole)
{
    const Device device = make_sample({"--extents", "2048", "--shards", "1024", "--damage",
                                       "extent:1:bit", "--damage", "extent:2:zero"},
                                      "v3");
    const TempDir directory;
    const std::string plan = directory.write("plan", run_ctl({"plan", device.path()}).out);
    for (const char *width : {"20", "80", "300"}) {
        const auto count = [&](const std::vector<std::string> &options) {
            std::vector<std::string> args{"map", device.path()};
            args.insert(args.end(), options.begin(), options.end());
            const std::string out = run_ctl(args, {.environment = {{"COLUMNS", width}}}).out;
            const std::size_t start = out.find("\nextent ");
            const std::string grids = out.substr(start, out.find("\n\n", start) - start);
            return std::pair{std::ranges::count(grids, '+'), std::ranges::count(grids, 'X')};
        };
        const auto [none, damaged] = count({});
        const auto [repaired, left] = count({"--plan", plan});
        EXPECT_EQ(none, 0);
        EXPECT_GT(repaired, 0);
        EXPECT_GT(left, 0);
        EXPECT_EQ(repaired + left, damaged);
        EXPECT_LE(std::abs(repaired - left), 2);
    }
}

} // namespace
