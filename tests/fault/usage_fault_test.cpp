// Sums of what a device holds where it cannot be read everywhere, or without memory.

#include "faulty_run.h"
#include "v1_device.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using namespace tier_test;
using Json = nlohmann::ordered_json;

namespace {

class UsageFaults : public testing::Test {
protected:
    const SuperV1 sb = super_v1(2, 3, 4);
    const Device device = make_v1_device(sb, {brick_used(0)}, {inode_used(0, 0), inode_used(1, 0)},
                                         {extent(0, 0), extent(1, 1), extent(2, 1)});

    static ExtentV1 extent(std::uint64_t no, std::uint32_t inode)
    {
        ExtentV1 extent = extent_used(no, inode);
        extent.size = 4096;
        extent.clean = 0;
        return extent;
    }

    RunResult usage(const std::string &faults) const
    {
        const std::string trace = device.directory().write("trace", "");
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                               {"ZUTR_FAULTS", "trace:" + trace + ";" + faults}};
        return run_program(ZU_TIERCTL, {"usage", "--json", device.path()}, options);
    }
};

TEST_F(UsageFaults, UnreadableBlocksAreUnknown)
{
    const RunResult run = usage(
        text("pread@%ld+4096=EIO;pread@%ld+4096=EIO", inode_offset(sb, 1), extent_offset(sb, 2)));
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, "");
    const Json usage = Json::parse(run.out);
    const auto lost = [](const char *table, std::uint64_t no) {
        return Json{
            {"table", table}, {"why", "unreadable"}, {"no", no}, {"last", no}, {"count", 1}};
    };
    EXPECT_EQ(usage.at("unknown"), (Json{lost("inode", 1), lost("extent", 2)}));
    EXPECT_EQ(usage.at("total").at("dirty"), 2 * 4096);
    EXPECT_EQ(usage.at("total").at("unknown_bytes_max"), sb.block_size);
    EXPECT_EQ(usage.at("bricks").at(1).at("largest").at(0).at("state"), "unreadable");
}

// Every read fails in turn: the run says so, or what it cannot know.
TEST_F(UsageFaults, EachReadInTurn)
{
    const Json sound = Json::parse(usage("pread#1=pass").out);
    int failed = 0;
    for (int k = 1;; ++k) {
        SCOPED_TRACE(k);
        const RunResult run = usage(text("pread#%d=EIO", k));
        const Json found = Json::parse(run.out);
        if (run.status == 0) {
            // Either there are not so many reads, or the block was read again by itself.
            EXPECT_EQ(found, sound);
            if (k > 8)
                break;
            continue;
        }
        failed++;
        EXPECT_TRUE(run.status == 1 ? !found.at("unknown").empty() : found.contains("error"))
            << run;
    }
    EXPECT_GE(failed, 1);
}

TEST_F(UsageFaults, NoMemory)
{
    const RunResult run = usage("posix_memalign=ENOMEM");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "zu_tierctl: std::bad_alloc\n");
    EXPECT_EQ(Json::parse(run.out).at("error"), "std::bad_alloc");
}

TEST_F(UsageFaults, LostOutput)
{
    const RunResult run = usage("write=ENOSPC");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "zu_tierctl: cannot write to standard output: No space left on device\n");
}

} // namespace
