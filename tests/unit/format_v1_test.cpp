// The geometry that a V1 super block implies.

#include "v1_device.h"
#include "zu_tier/format/v1.h"
#include "zu_tier/layout/super.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// The super block as it lies on a device.
tier_super_block_v1_t record_of(const SuperV1 &sb)
{
    tier_super_block_v1_t record;
    std::memcpy(&record, encode(sb).data(), sizeof(record));
    return record;
}

// Sums that wrap are told from those that just do not.
TEST(GeometryV1, InodeTablesPastAnyOffset)
{
    SuperV1 sb = super_v1(1, 0x100000, 1);
    tier_super_block_v1_t record = record_of(sb);
    const std::uint64_t bytes = std::uint64_t{sb.inode_cnt} * 4096 + MIB;
    const std::uint64_t bricks_start = 0x101000;
    record.sb_brick_table_size = ~std::uint64_t{0} - bytes - bricks_start;
    EXPECT_EQ(tier_inode_bytes(record), TIER_PAST_ANY);
    record.sb_brick_table_size -= 4096;
    EXPECT_NE(tier_inode_bytes(record), TIER_PAST_ANY);
    record.sb_brick_table_size += bytes;
    EXPECT_EQ(tier_inode_bytes(record), TIER_PAST_ANY);
}

TEST(GeometryV1, TablesOfEveryShape)
{
    for (const std::uint32_t bricks : {1U, 2U, 255U, 256U, 300U}) {
        for (const std::uint32_t inodes : {1U, 254U, 255U, 256U, 100000U}) {
            for (const std::uint32_t blocks : {0U, 1U, 255U, 256U, 0xFFFFFFFFU}) {
                SCOPED_TRACE(text("%u bricks, %u inodes, %u blocks", bricks, inodes, blocks));
                const SuperV1 sb = super_v1(bricks, inodes, blocks);
                const tier_super_block_v1_t record = record_of(sb);
                const std::int64_t brick_start = 0x101000;
                const std::int64_t inode_start = brick_start + std::int64_t{bricks} * 4096;
                const std::int64_t inode_end = static_cast<std::int64_t>(
                    round_up(static_cast<std::uint64_t>(inode_start) + inodes * 4096ULL, MIB));
                const std::int64_t extent_end = inode_end + std::int64_t{blocks} * 4096;

                EXPECT_EQ(tier_bricks(record).start, brick_start);
                EXPECT_EQ(tier_bricks(record).count, bricks);
                EXPECT_EQ(tier_inodes(record).start, inode_start);
                EXPECT_EQ(tier_inodes(record).count, inodes);
                EXPECT_EQ(tier_extents(record).start, inode_end);
                EXPECT_EQ(tier_extents(record).count, blocks);
                EXPECT_EQ(tier_inode_table_size(record),
                          static_cast<std::uint64_t>(inode_end - inode_start));
                EXPECT_EQ(tier_data_offset(record),
                          round_up(static_cast<std::uint64_t>(extent_end) + 2 * MIB, MIB));
            }
        }
    }
}

TEST(GeometryV1, SuperBlockAreaIsA32BitSum)
{
    const std::vector<std::pair<std::uint32_t, std::int64_t>> starts{
        {0, 4096},       {0x100000, 0x101000}, {0xFFFFEFFF, 0xFFFFFFFF},
        {0xFFFFF000, 0}, {0xFFFFF001, 1},      {0xFFFFFFFF, 4095},
    };
    for (const auto &[size, start] : starts) {
        SCOPED_TRACE(size);
        SuperV1 sb;
        sb.size = size;
        sb.brick_table_size = 0x1'0000'0000;
        sb.inode_table_size = 0x20'0000'0000;
        const tier_super_block_v1_t record = record_of(sb);
        EXPECT_EQ(tier_bricks(record).start, start);
        EXPECT_EQ(tier_inodes(record).start, start + 0x1'0000'0000);
        EXPECT_EQ(tier_extents(record).start, start + 0x21'0000'0000);
    }
}

TEST(GeometryV1, SlotsAre64BitProducts)
{
    const tier_region region{0x101000, 0xFFFFFFFF};
    EXPECT_EQ(region.slot(0), 0x101000);
    EXPECT_EQ(region.slot(1), 0x102000);
    EXPECT_EQ(region.slot(0xFFFFFFFE), 0x101000 + 0xFFFFFFFELL * 4096);
}

TEST(GeometryV1, RoundUpToAUnit)
{
    EXPECT_EQ(tier_round_up(0, MIB), 0U);
    EXPECT_EQ(tier_round_up(1, MIB), MIB);
    EXPECT_EQ(tier_round_up(MIB, MIB), MIB);
    EXPECT_EQ(tier_round_up(MIB + 1, MIB), 2 * MIB);
}

} // namespace
