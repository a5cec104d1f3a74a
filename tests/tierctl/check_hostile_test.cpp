// Devices that end too early, and super blocks with right checksums that lie, checked by
// zu_tierctl.

#include "check_run.h"

#include <gtest/gtest.h>
#include <limits>

using namespace tier_test;

namespace {

TEST(CheckHostile, BlocksPastTheEnd)
{
    const WorldV1 v1;
    Device device = v1.device();
    device.truncate(static_cast<std::uint64_t>(inode_offset(v1.sb, 2)) + 100);
    const std::vector<std::string> tables{"--table", "inode", "--table", "extent"};
    expect_findings(device,
                    {error("past_end", "inode", 2, inode_offset(v1.sb, 2)),
                     error("past_end", "extent", 0, extent_offset(v1.sb, 0))},
                    tables);
    const Report report = run_check(device.path(), tables);
    EXPECT_EQ(report.findings[0].text, "it cannot be read: past the end of the device");
    EXPECT_EQ(report.findings[0].last, 4U);
    EXPECT_EQ(report.findings[0].count, 3U);
    EXPECT_EQ(report.tables.at("inode"), (Counts{5, 2, 0, 0, 3}));
    EXPECT_EQ(report.tables.at("extent"), (Counts{6, 0, 0, 0, 6}));
}

TEST(CheckHostile, OwnersPastTheEnd)
{
    WorldV3 world; // inodes after everything else
    world.sb.inode_table_offset = world.sb.data_offset + world.sb.data_size;
    Device device = world.device();
    device.truncate(world.sb.inode_table_offset + 2 * BLOCK_SIZE);
    world.shards[0].shards.push_back({.slot = 9, .ino = 2});
    put_block(device, shard_offset(world.sb, 0), encode(world.shards[0]));
    expect_findings(
        device,
        {warning("shard_of_unknown_inode", "shard", 9, word_offset(shard_offset(world.sb, 0), 9))},
        {"--table", "shard"});
}

TEST(CheckHostile, HugeCounts)
{
    WorldV1 world;
    Device device = world.device();
    world.sb.inode_cnt = std::numeric_limits<std::uint32_t>::max();
    world.sb.block_cnt = std::numeric_limits<std::uint32_t>::max();
    put_block(device, SUPER_OFFSET, encode(world.sb));
    const Report report = run_check(device.path(), {"--table", "inode", "--table", "extent"});
    for (const Finding &finding : report.findings) {
        if (finding.kind == "past_end") {
            EXPECT_EQ(finding.last, 4294967294U);
            EXPECT_EQ(finding.count, finding.last - finding.no + 1);
        }
    }
    EXPECT_EQ(report.tables.at("inode").entries, 4294967295U);
    EXPECT_EQ(report.tables.at("extent").entries, 4294967295U);
}

TEST(CheckHostile, MisalignedTable)
{
    WorldV3 world;
    Device device = world.device();
    world.sb.hot_table_offset += 512;
    put_block(device, SUPER_OFFSET, encode(world.sb));
    expect_findings(
        device,
        {error("misaligned", "hot", 0, static_cast<std::int64_t>(world.sb.hot_table_offset))},
        {"--table", "hot"});
}

TEST(CheckHostile, RecordsThatDoNotFit)
{
    for (const std::uint32_t size : {0U, 3U, 55U, 4097U, 0xFFFF'FFFFU}) {
        SCOPED_TRACE(size);
        WorldV1 world;
        Device device = world.device();
        world.sb.extent_size = size;
        put_block(device, SUPER_OFFSET, encode(world.sb));
        expect_findings(device,
                        {error("records_do_not_fit", "extent", 0, extent_offset(world.sb, 0))},
                        {"--table", "extent"});
        EXPECT_EQ(run_check(device.path()).tables.at("extent"), (Counts{6, 0, 0, 6, 0}));
    }
}

} // namespace
