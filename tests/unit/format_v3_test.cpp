// The packed words of V3 bit by bit, and the places of its tables.

#include "v3_device.h"
#include "zu_tier/format/v3.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Every bit of a word is either in the field or not; both getting and putting must know.
void expect_bits(const tier_bits &field, const std::string &name, unsigned first, unsigned last)
{
    SCOPED_TRACE(name);
    EXPECT_EQ(field.key, name);
    std::uint64_t all = 0;
    for (unsigned bit = 0; bit < 64; ++bit) {
        const std::uint64_t word = std::uint64_t{1} << bit;
        const bool inside = bit >= first && bit <= last;
        EXPECT_EQ(field.get(word), inside ? std::uint64_t{1} << (bit - first) : 0U);
        EXPECT_EQ(field.put(0, word), bit <= last - first ? word << first : 0U);
        EXPECT_EQ(field.put(word, 0), inside ? 0U : word);
        all |= inside ? word : 0;
    }
    EXPECT_EQ(field.mask(), all);
    EXPECT_EQ(field.put(0, ~std::uint64_t{0}), all);
    EXPECT_EQ(field.put(~std::uint64_t{0}, 0), ~all);
}

TEST(FormatV3, Shard)
{
    expect_bits(SHARD_INO_V3, "ino", 0, 17);
    expect_bits(SHARD_IN_USE_V3, "in_use", 18, 18);
    expect_bits(SHARD_RESERVED_V3, "reserved", 19, 31);
    expect_bits(SHARD_INDEX_V3, "index", 32, 63);
    expect_bits(SHARD_CHECKSUM_V3, "checksum", 0, 31);
    expect_bits(SHARD_MAGIC_V3, "magic", 32, 63);
    EXPECT_EQ(TIER_SHARD_MAGIC_V3, 0x2183BA9DU);
}

TEST(FormatV3, Extent)
{
    expect_bits(EXTENT_CHECKSUM_V3, "checksum", 0, 0);
    expect_bits(EXTENT_LBA_V3, "lba", 1, 19);
    expect_bits(EXTENT_SHARD_V3, "shard", 20, 38);
    expect_bits(EXTENT_DIRTY_V3, "dirty", 39, 39);
    expect_bits(EXTENT_BITMAP_V3, "bitmap", 40, 55);
    expect_bits(EXTENT_IN_USE_V3, "in_use", 56, 56);
    expect_bits(EXTENT_SENSE_V3, "sense", 57, 60);
    expect_bits(EXTENT_DEMOTE_V3, "demote", 61, 61);
    expect_bits(EXTENT_DM_ERR_V3, "dm_err", 62, 62);
    expect_bits(EXTENT_RESERVED_V3, "reserved", 63, 63);
}

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
