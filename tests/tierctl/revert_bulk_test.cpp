// zu_tierctl revert of several entries, and of packed entries by their own numbers.

#include "revert_run.h"

using namespace tier_test;

namespace {

class RevertBulk : public Revert {
protected:
    RunResult revert_all(const std::string &table, const std::vector<std::string> &more) const
    {
        std::vector<std::string> args{"revert", saved, cache.device.path(), table};
        args.insert(args.end(), more.begin(), more.end());
        return run_ctl(args, {.timeout = std::chrono::seconds(20)});
    }

    void refuse(const std::string &table, const std::vector<std::string> &more, int status,
                const std::string &complaint) const
    {
        const auto before = cache.device.bytes();
        for (const bool commit : {false, true}) {
            std::vector<std::string> all = more;
            if (commit)
                all.emplace_back("--commit");
            expect_complaint(revert_all(table, all), status, complaint);
        }
        EXPECT_TRUE(cache.device.bytes() == before);
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, RevertBulk, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(RevertBulk, RangesAndLists)
{
    const auto good = cache.device.bytes();
    for (const std::uint64_t no : {0, 2, 4})
        flip(cache.device, cache.offset("inode", no) + 60);
    const auto bad = cache.device.bytes();
    std::string expected;
    for (std::uint64_t no = 0; no < 5; ++no)
        expected += revert("inode", no).out;
    for (const std::string numbers : {"0..4", "4,0..3", "0,1,2,3,4", "0x0..0x4", "2..3,0..4,4"}) {
        const RunResult shown = revert_all("inode", {numbers});
        EXPECT_EQ(shown.status, 0) << shown;
        EXPECT_EQ(shown.out, expected) << numbers;
        EXPECT_EQ(shown.err, NOTHING_WRITTEN);
    }
    EXPECT_TRUE(cache.device.bytes() == bad);
    const RunResult done = revert_all("inode", {"0..4", "--commit"});
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_EQ(done.out, expected + "written\n");
    EXPECT_EQ(done.err, "");
    EXPECT_TRUE(cache.device.bytes() == good);
}

TEST_P(RevertBulk, NothingIsWrittenUnlessAllCanBe)
{
    const Block sound = block_of("inode", 3);
    flip(cache.device, cache.offset("inode", 3) + 60);
    std::filesystem::remove(saved);
    save();
    put_block(cache.device, cache.offset("inode", 3), sound);
    flip(cache.device, cache.offset("inode", 0) + 60);
    const auto before = cache.device.bytes();
    const RunResult run = revert_all("inode", {"0..3", "--commit"});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, "zu_tierctl: inode 3 is damaged in " + saved +
                           " (checksum); to put it back as it was: --damaged\n");
    EXPECT_TRUE(cache.device.bytes() == before);
    EXPECT_EQ(revert_all("inode", {"0..3", "--commit", "--damaged"}).status, 0);
    EXPECT_EQ(run_ctl({"diff", saved, cache.device.path()}).status, 0);
}

TEST_P(RevertBulk, WhatIsNoList)
{
    for (const std::string part : {"", "..", "1..", "..1", "1...3", "1..2..3", "-1", "1-3", "x",
                                   "1..08", "18446744073709551616", "0..18446744073709551616"})
        refuse("inode", {"0," + part}, 2,
               "NO " + part + ": expected a number of up to 64 bits, or several as in 3,7,9..12");
    refuse("inode", {"0,3..2"}, 2, "NO 3..2: the first number is larger than the last");
    refuse("inode", {"0..5"}, 2, "inode 0..5: the table has 5 entries");
    refuse("inode", {"0..18446744073709551615"}, 2,
           "inode 0..18446744073709551615: the table has 5 entries");
    refuse("inode", {}, 2, "NO is required");
    refuse("inode:2", {"2"}, 2, "inode:2 has its number: NO is not expected");
    refuse("inode:", {}, 2, "NO : expected a number of up to 64 bits, or several as in 3,7,9..12");
    refuse("none:2", {}, 2,
           GetParam() == "v3"
               ? "there is no table none, but super, brick, inode, shard, hot, extent"
               : "there is no table none, but super, brick, inode, extent");
}

TEST_P(RevertBulk, EntriesWithASlotOfTheirOwn)
{
    flip(cache.device, cache.offset("inode", 2) + 60);
    EXPECT_EQ(revert_all("inode:1..2", {}).out, revert_all("inode", {"1..2"}).out);
    EXPECT_EQ(revert_all("inode:1..2", {}).err, NOTHING_WRITTEN);
}

class RevertPacked : public RevertBulk {};

INSTANTIATE_TEST_SUITE_P(Layout, RevertPacked, testing::Values("v3"));

TEST_P(RevertPacked, EntriesNameTheirBlocks)
{
    const auto good = cache.device.bytes();
    const std::uint64_t blocks = cache.table("extent").count;
    ASSERT_GE(blocks, 3U);
    for (std::uint64_t no = 0; no < blocks; ++no)
        flip(cache.device, cache.offset("extent", no) + 100);
    const RunResult one = revert_all("extent:1542", {});
    if (blocks > 3) {
        EXPECT_EQ(one.out, revert("extent", 3).out);
    }
    const std::vector<std::tuple<std::string, std::string, std::string>> names{
        {"512", "1", "extent 512 is in block 1"},
        {"1535", "2", "extent 1535 is in block 2"},
        {"0..511", "0", "extent 0..511 are in block 0"},
        {"511..1024", "0..2", "extent 511..1024 are in blocks 0..2"},
    };
    for (const auto &[entries, numbers, note] : names) {
        const RunResult run = revert_all("extent:" + entries, {});
        EXPECT_EQ(run.out, revert_all("extent", {numbers}).out);
        EXPECT_EQ(run.err, "zu_tierctl: " + note + "\n" + NOTHING_WRITTEN);
    }
    const std::string all = text("extent:0..%lu", blocks * 512 - 1);
    EXPECT_EQ(revert_all(all, {"--commit"}).status, 0);
    EXPECT_TRUE(cache.device.bytes() == good);
}

TEST_P(RevertPacked, NoSuchEntries)
{
    const std::uint64_t blocks = cache.table("shard").count;
    const std::uint64_t past = blocks * 512;
    refuse(text("shard:%lu", past), {}, 2,
           text("shard %lu: the table has %lu blocks", past, blocks));
    refuse("shard:512", {}, 2, "shard 512 is the head of block 1 and no entry");
    refuse("shard:1..512", {}, 2, "shard 512 is the head of block 1 and no entry");
    refuse("shard:0..1", {}, 2, "shard 0 is the head of block 0 and no entry");
}

// A sealed super block may count what no device holds.
TEST_P(RevertPacked, HostileRanges)
{
    SuperV3 sb = super_v3(1, 1);
    Device device = make_v3_device(sb);
    sb.inode_cnt = sb.extent_cnt = UINT64_MAX;
    device.write(4096, encode(sb));
    for (const std::string numbers :
         {"0..18446744073709551614", "0..1048576", "7,9..1048584", "0..524288,0..524288"})
        expect_complaint(run_ctl({"revert", device.path(), device.path(), "inode", numbers}), 2,
                         "inode " + numbers + ": more than 1048576 at a time");
    const RunResult run =
        run_ctl({"revert", device.path(), device.path(), "inode", "0..1048575", "--damaged"});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_NE(run.err.find(NO_DEVICE), std::string::npos) << run.err;
}

} // namespace
