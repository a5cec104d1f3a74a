// The places of the tables of V3.

#include "v3_device.h"
#include "zu_tier/format/v3.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

TEST(GeometryV3, TablesLieWhereTheSuperBlockSays)
{
    SuperV3 sb = super_v3(7, 11);
    sb.shard_cnt = 524288;
    sb.extent_cnt = 0x40000000;
    sb.hot_table_size = 1'000'000;
    set_geometry(sb);
    tier_super_block_v3_t record;
    std::memcpy(&record, encode(sb).data(), sizeof(record));

    EXPECT_EQ(tier_bricks_v3(record).start, brick_offset(sb, 0));
    EXPECT_EQ(tier_bricks_v3(record).count, 7U);
    EXPECT_EQ(tier_inodes_v3(record).start, inode_offset(sb, 0));
    EXPECT_EQ(tier_inodes_v3(record).count, 11U);
    EXPECT_EQ(tier_shards_v3(record).start, shard_offset(sb, 0));
    EXPECT_EQ(tier_shards_v3(record).count, 1024U);
    EXPECT_EQ(tier_shards_v3(record).slot(1023), shard_offset(sb, 1023));
    EXPECT_EQ(tier_hot_v3(record).start, hot_offset(sb, 0));
    EXPECT_EQ(tier_hot_v3(record).count, 244U); // and 576 bytes
    EXPECT_EQ(tier_extents_v3(record).start, extent_offset(sb, 0));
    EXPECT_EQ(tier_extents_v3(record).count, 2097152U);
    EXPECT_EQ(tier_extents_v3(record).slot(2097151), extent_offset(sb, 2097151));
}

} // namespace
