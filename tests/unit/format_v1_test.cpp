// The records of V1 byte by byte, and the geometry that a V1 super block implies.

#include "v1_device.h"
#include "zu_tier/format/v1.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

struct Place {
    std::string field;
    std::size_t offset;
    std::size_t width;

    bool operator==(const Place &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Place &place)
{
    return out << place.field << " at " << place.offset << ", " << place.width << " bytes";
}

#define PLACE(field)                                                                               \
    Place                                                                                          \
    {                                                                                              \
#field, offsetof(Record, field), sizeof(Record::field)                                     \
    }

TEST(FormatV1, SuperBlock)
{
    using Record = tier_super_block_v1_t;
    EXPECT_EQ(sizeof(Record), 144U);
    const std::vector<Place> places{PLACE(sb_checksum),
                                    PLACE(sb_magic),
                                    PLACE(sb_brick_table_size),
                                    PLACE(sb_inode_table_size),
                                    PLACE(sb_extent_table_size),
                                    PLACE(sb_data_offset),
                                    PLACE(sb_ctime),
                                    PLACE(sb_uuid),
                                    PLACE(sb_ssd_uuid),
                                    PLACE(sb_version),
                                    PLACE(sb_size),
                                    PLACE(sb_brick_cnt),
                                    PLACE(sb_inode_cnt),
                                    PLACE(sb_block_size),
                                    PLACE(sb_block_cnt),
                                    PLACE(sb_extent_size),
                                    PLACE(sb_reserved)};
    EXPECT_EQ(places, (std::vector<Place>{{"sb_checksum", 0, 4},
                                          {"sb_magic", 4, 4},
                                          {"sb_brick_table_size", 8, 8},
                                          {"sb_inode_table_size", 16, 8},
                                          {"sb_extent_table_size", 24, 8},
                                          {"sb_data_offset", 32, 8},
                                          {"sb_ctime", 40, 8},
                                          {"sb_uuid", 48, 16},
                                          {"sb_ssd_uuid", 64, 48},
                                          {"sb_version", 112, 4},
                                          {"sb_size", 116, 4},
                                          {"sb_brick_cnt", 120, 4},
                                          {"sb_inode_cnt", 124, 4},
                                          {"sb_block_size", 128, 4},
                                          {"sb_block_cnt", 132, 4},
                                          {"sb_extent_size", 136, 4},
                                          {"sb_reserved", 140, 4}}));
}

TEST(FormatV1, Brick)
{
    using Record = tier_brick_info_v1_t;
    EXPECT_EQ(sizeof(Record), 168U);
    const std::vector<Place> places{PLACE(bi_checksum), PLACE(bi_magic),   PLACE(bi_use),
                                    PLACE(bi_no),       PLACE(bi_uuid),    PLACE(bi_brickid),
                                    PLACE(bi_unlink),   PLACE(bi_reserved)};
    EXPECT_EQ(places, (std::vector<Place>{{"bi_checksum", 0, 4},
                                          {"bi_magic", 4, 4},
                                          {"bi_use", 8, 4},
                                          {"bi_no", 12, 4},
                                          {"bi_uuid", 16, 16},
                                          {"bi_brickid", 32, 128},
                                          {"bi_unlink", 160, 4},
                                          {"bi_reserved", 164, 4}}));
}

TEST(FormatV1, Inode)
{
    using Record = tier_inode_v1_t;
    EXPECT_EQ(sizeof(Record), 96U);
    const std::vector<Place> places{
        PLACE(i_checksum), PLACE(i_magic),  PLACE(i_atime), PLACE(i_ctime),     PLACE(i_mtime),
        PLACE(i_dtime),    PLACE(i_uuid),   PLACE(i_size),  PLACE(i_priority),  PLACE(i_no),
        PLACE(i_brick_no), PLACE(i_unlink), PLACE(i_use),   PLACE(i_reserved1), PLACE(i_reserved2)};
    EXPECT_EQ(places, (std::vector<Place>{{"i_checksum", 0, 4},
                                          {"i_magic", 4, 4},
                                          {"i_atime", 8, 8},
                                          {"i_ctime", 16, 8},
                                          {"i_mtime", 24, 8},
                                          {"i_dtime", 32, 8},
                                          {"i_uuid", 40, 16},
                                          {"i_size", 56, 8},
                                          {"i_priority", 64, 4},
                                          {"i_no", 68, 4},
                                          {"i_brick_no", 72, 4},
                                          {"i_unlink", 76, 2},
                                          {"i_use", 78, 2},
                                          {"i_reserved1", 80, 8},
                                          {"i_reserved2", 88, 8}}));
}

TEST(FormatV1, Extent)
{
    using Record = tier_extent_v1_t;
    EXPECT_EQ(sizeof(Record), 56U); // the bitmap follows
    const std::vector<Place> places{
        PLACE(te_checksum),      PLACE(te_block),        PLACE(te_size),
        PLACE(te_inode_no),      PLACE(te_sampling_low), PLACE(te_sampling_mid),
        PLACE(te_sampling_high), PLACE(te_use),          PLACE(te_clean),
        PLACE(te_ntime),         PLACE(te_hot),          PLACE(te_reserved1)};
    EXPECT_EQ(places, (std::vector<Place>{{"te_checksum", 0, 4},
                                          {"te_block", 4, 4},
                                          {"te_size", 8, 8},
                                          {"te_inode_no", 16, 4},
                                          {"te_sampling_low", 20, 4},
                                          {"te_sampling_mid", 24, 4},
                                          {"te_sampling_high", 28, 4},
                                          {"te_use", 32, 2},
                                          {"te_clean", 34, 2},
                                          {"te_ntime", 36, 4},
                                          {"te_hot", 40, 8},
                                          {"te_reserved1", 48, 8}}));
}

// The super block as it lies on a device.
tier_super_block_v1_t record_of(const SuperV1 &sb)
{
    tier_super_block_v1_t record;
    std::memcpy(&record, encode(sb).data(), sizeof(record));
    return record;
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

TEST(GeometryV1, SmallestTables)
{
    const tier_super_block_v1_t record = record_of(super_v1(1, 1, 0));
    EXPECT_EQ(tier_inodes(record).start, 0x102000);
    EXPECT_EQ(tier_inode_table_size(record), 1040384U);
    EXPECT_EQ(tier_extents(record).start, 0x200000);
    EXPECT_EQ(tier_data_offset(record), 0x400000U);
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

TEST(GeometryV1, BitmapHoldsWholeWords)
{
    const std::vector<std::pair<std::uint32_t, std::uint32_t>> words{
        {56, 0}, {60, 0}, {63, 0}, {64, 1}, {71, 1}, {72, 2}, {4095, 504}, {4096, 505}};
    for (const auto &[extent_size, expected] : words)
        EXPECT_EQ(tier_bitmap_words_v1(extent_size), expected) << extent_size;
}

} // namespace
