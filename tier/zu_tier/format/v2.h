#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tier/format/bits.h"

/* Layout V2. areas.h draws where its first tables lie. The expansion inode area begins 1 MiB after
 * the data blocks; its numbers continue those of the regular inodes. */

constexpr uint32_t TIER_SB_MAGIC_V2 = 0xCACBCCCD;
constexpr uint32_t TIER_SB_VERSION_V2 = 0x20000;
constexpr uint32_t TIER_OLD_VERSION = 0x10000; /* a super block that can be converted */
constexpr uint32_t TIER_BRICK_MAGIC_V2 = 0x42524B49;
constexpr uint32_t TIER_INODE_MAGIC_V2 = 0x494E4F44;

constexpr uint16_t TIER_EXP_MAGIC_V2 = 0x4558;
constexpr uint8_t TIER_EXP_INUSE_V2 = 0x53;
constexpr uint32_t TIER_EXP_UNIT_V2 = 25600;     /* inodes for each count of sb_inode_exp_area */
constexpr uint32_t TIER_EXP_CNT_MIN_V2 = 153600; /* a smaller area is refused */
constexpr uint32_t TIER_INODE_NO_BOUND_V2 = 500000;

constexpr uint32_t EXTENT_HOT_LEN = 64; /* the most mapped pieces of an extent */
constexpr uint32_t TIER_HOT_SIZE_V2 = 64;

/* Super block, at byte offset 4096 of the device. */
struct tier_super_block_v2_t {
    uint32_t sb_checksum;         /*   0  CRC-32 of bytes 4..167 */
    uint32_t sb_magic;            /*   4  0xCACBCCCD */
    uint64_t sb_brick_table_size; /*   8  bytes: sb_brick_cnt x 4096 */
    uint64_t
        sb_inode_table_size; /*  16  bytes: sb_inode_cnt x 4096 and padding to a 1 MiB boundary */
    uint64_t sb_extent_table_size; /*  24  bytes: sb_block_cnt x 4096 */
    uint64_t sb_data_offset; /*  32  end of the extent table + 2 MiB, up to a 1 MiB boundary */
    uint64_t sb_ctime;       /*  40  creation time */
    uint8_t sb_uuid[16];     /*  48  identity of the cache */
    char sb_ssd_uuid[48];    /*  64  identity of the SSD, 38 characters, NUL-terminated */
    uint32_t sb_version;     /* 112  0x20000 */
    uint32_t sb_size;        /* 116  bytes of the super block area: 1 MiB */
    uint32_t sb_brick_cnt;   /* 120  1..300 */
    uint32_t sb_inode_cnt;   /* 124  1..100000, without the expansion area */
    uint32_t sb_block_size;  /* 128  bytes of a data block: 256 KiB..4 MiB, a multiple of 4096 */
    uint32_t sb_block_cnt;   /* 132  data blocks, and extents */
    uint32_t sb_extent_size; /* 136  bytes of an extent's head and bitmap: 56..4096 */
    uint16_t sb_inode_exp_magic;   /* 140  0x4558: there is an expansion area; else 0 */
    uint8_t sb_inode_exp_area;     /* 142  inodes of the area / 25600 */
    uint8_t sb_inode_exp_inuse;    /* 143  0x53: the area is in use; else 0 */
    uint32_t sb_min_alloc_size;    /* 144  bytes of data for each mapped piece */
    uint32_t sb_total_map_size;    /* 148  bytes of an extent's mapped pieces */
    uint32_t sb_map_cnt;           /* 152  mapped pieces of an extent, at most 64 */
    uint32_t sb_size_mapped_meta;  /* 156  bytes of a mapped piece: 16 */
    uint32_t sb_hot_size;          /* 160  bytes of an extent's hot area */
    uint32_t sb_total_extent_size; /* 164  checksummed bytes of an extent, at most 4096 */
};
static_assert(sizeof(tier_super_block_v2_t) == 168);
static_assert(offsetof(tier_super_block_v2_t, sb_checksum) == 0);
static_assert(offsetof(tier_super_block_v2_t, sb_magic) == 4);
static_assert(offsetof(tier_super_block_v2_t, sb_brick_table_size) == 8);
static_assert(offsetof(tier_super_block_v2_t, sb_inode_table_size) == 16);
static_assert(offsetof(tier_super_block_v2_t, sb_extent_table_size) == 24);
static_assert(offsetof(tier_super_block_v2_t, sb_data_offset) == 32);
static_assert(offsetof(tier_super_block_v2_t, sb_ctime) == 40);
static_assert(offsetof(tier_super_block_v2_t, sb_uuid) == 48);
static_assert(offsetof(tier_super_block_v2_t, sb_ssd_uuid) == 64);
static_assert(offsetof(tier_super_block_v2_t, sb_version) == 112);
static_assert(offsetof(tier_super_block_v2_t, sb_size) == 116);
static_assert(offsetof(tier_super_block_v2_t, sb_brick_cnt) == 120);
static_assert(offsetof(tier_super_block_v2_t, sb_inode_cnt) == 124);
static_assert(offsetof(tier_super_block_v2_t, sb_block_size) == 128);
static_assert(offsetof(tier_super_block_v2_t, sb_block_cnt) == 132);
static_assert(offsetof(tier_super_block_v2_t, sb_extent_size) == 136);
static_assert(offsetof(tier_super_block_v2_t, sb_inode_exp_magic) == 140);
static_assert(offsetof(tier_super_block_v2_t, sb_inode_exp_area) == 142);
static_assert(offsetof(tier_super_block_v2_t, sb_inode_exp_inuse) == 143);
static_assert(offsetof(tier_super_block_v2_t, sb_min_alloc_size) == 144);
static_assert(offsetof(tier_super_block_v2_t, sb_total_map_size) == 148);
static_assert(offsetof(tier_super_block_v2_t, sb_map_cnt) == 152);
static_assert(offsetof(tier_super_block_v2_t, sb_size_mapped_meta) == 156);
static_assert(offsetof(tier_super_block_v2_t, sb_hot_size) == 160);
static_assert(offsetof(tier_super_block_v2_t, sb_total_extent_size) == 164);

using tier_brick_info_v2_t = tier_brick_info_t;

using tier_inode_v2_t = tier_inode_t; /* no byte of it is free */

/* Extent: the head and its bitmap, sb_extent_size bytes; then sb_map_cnt mapped pieces, piece i for
 * map number i; then the hot area. */
using tier_extent_v2_t = tier_extent_t;

/* Mapped piece: where a part of the block's data came from. Empty when its orig_len is 0. */
struct tier_mapped_meta_v2_t {
    uint64_t offset;       /*   0  of the piece at its source */
    uint32_t clean_length; /*   8  two bit fields, see below */
    uint16_t begin;        /*  12  first 4096-byte page within the data block */
    uint16_t cnt;          /*  14  pages */

    constexpr uint32_t clean() const;
    constexpr uint32_t orig_len() const;
};
static_assert(sizeof(tier_mapped_meta_v2_t) == 16);
static_assert(offsetof(tier_mapped_meta_v2_t, offset) == 0);
static_assert(offsetof(tier_mapped_meta_v2_t, clean_length) == 8);
static_assert(offsetof(tier_mapped_meta_v2_t, begin) == 12);
static_assert(offsetof(tier_mapped_meta_v2_t, cnt) == 14);

constexpr tier_bits MAPPED_CLEAN_V2 = {"clean", 0, 1};      /* 1: written back */
constexpr tier_bits MAPPED_LENGTH_V2 = {"orig_len", 1, 31}; /* bytes */

constexpr uint32_t tier_mapped_meta_v2_t::clean() const
{
    return static_cast<uint32_t>(MAPPED_CLEAN_V2.get(clean_length));
}

constexpr uint32_t tier_mapped_meta_v2_t::orig_len() const
{
    return static_cast<uint32_t>(MAPPED_LENGTH_V2.get(clean_length));
}

/* The word of a clean bit and a length of 31 bits. */
constexpr uint32_t tier_clean_length_v2(uint64_t clean, uint64_t orig_len)
{
    return static_cast<uint32_t>(orig_len << 1 | clean);
}

/* Inodes of the expansion area. */
constexpr uint32_t tier_exp_cnt_v2(const tier_super_block_v2_t &sb)
{
    return sb.sb_inode_exp_area * TIER_EXP_UNIT_V2;
}

/* Regular and expansion inodes together; a 32-bit sum. */
constexpr uint32_t tier_inode_sum_v2(const tier_super_block_v2_t &sb)
{
    return sb.sb_inode_cnt + tier_exp_cnt_v2(sb);
}

constexpr tier_region tier_exp_inodes_v2(const tier_super_block_v2_t &sb)
{
    const uint64_t start =
        sb.sb_data_offset + uint64_t{sb.sb_block_size} * sb.sb_block_cnt + SIZE_1M;
    return {static_cast<int64_t>(start), tier_exp_cnt_v2(sb)};
}

/* Byte offset of the slot of an inode, regular or in the expansion area. */
constexpr int64_t tier_inode_slot_v2(const tier_super_block_v2_t &sb, uint32_t no)
{
    return no < sb.sb_inode_cnt ? tier_inodes(sb).slot(no)
                                : tier_exp_inodes_v2(sb).slot(no - sb.sb_inode_cnt);
}
