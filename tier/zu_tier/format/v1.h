#pragma once

#include "zu_tier/format/areas.h"

/* Layout V1. areas.h draws where its tables lie. */

constexpr uint32_t TIER_SB_MAGIC_V1 = 0xCACBCCCD;
constexpr uint32_t TIER_SB_VERSION_V1 = 0x10000;
constexpr uint32_t TIER_BRICK_MAGIC_V1 = 0x42524B49;
constexpr uint32_t TIER_INODE_MAGIC_V1 = 0x494E4F44;

/* Super block, at byte offset 4096 of the device. */
struct tier_super_block_v1_t {
    uint32_t sb_checksum;         /*   0  CRC-32 of bytes 4..143 */
    uint32_t sb_magic;            /*   4  0xCACBCCCD */
    uint64_t sb_brick_table_size; /*   8  bytes: sb_brick_cnt x 4096 */
    uint64_t
        sb_inode_table_size; /*  16  bytes: sb_inode_cnt x 4096 and padding to a 1 MiB boundary */
    uint64_t sb_extent_table_size; /*  24  bytes: sb_block_cnt x 4096 */
    uint64_t sb_data_offset; /*  32  end of the extent table + 2 MiB, up to a 1 MiB boundary */
    uint64_t sb_ctime;       /*  40  nanoseconds since the epoch */
    uint8_t sb_uuid[16];     /*  48  identity of the cache */
    char sb_ssd_uuid[48];    /*  64  identity of the SSD, 38 characters, NUL-terminated */
    uint32_t sb_version;     /* 112  0x10000 */
    uint32_t sb_size;        /* 116  bytes of the super block area: 1 MiB */
    uint32_t sb_brick_cnt;   /* 120  1..300 */
    uint32_t sb_inode_cnt;   /* 124  1..100000 */
    uint32_t sb_block_size;  /* 128  bytes of a data block: 256 KiB..4 MiB, a multiple of 4096 */
    uint32_t sb_block_cnt;   /* 132  data blocks, and extents */
    uint32_t sb_extent_size; /* 136  bytes of an extent record with its bitmap: 56..4096 */
    uint32_t sb_reserved;    /* 140 */
};
static_assert(sizeof(tier_super_block_v1_t) == 144);
static_assert(offsetof(tier_super_block_v1_t, sb_checksum) == 0);
static_assert(offsetof(tier_super_block_v1_t, sb_magic) == 4);
static_assert(offsetof(tier_super_block_v1_t, sb_brick_table_size) == 8);
static_assert(offsetof(tier_super_block_v1_t, sb_inode_table_size) == 16);
static_assert(offsetof(tier_super_block_v1_t, sb_extent_table_size) == 24);
static_assert(offsetof(tier_super_block_v1_t, sb_data_offset) == 32);
static_assert(offsetof(tier_super_block_v1_t, sb_ctime) == 40);
static_assert(offsetof(tier_super_block_v1_t, sb_uuid) == 48);
static_assert(offsetof(tier_super_block_v1_t, sb_ssd_uuid) == 64);
static_assert(offsetof(tier_super_block_v1_t, sb_version) == 112);
static_assert(offsetof(tier_super_block_v1_t, sb_size) == 116);
static_assert(offsetof(tier_super_block_v1_t, sb_brick_cnt) == 120);
static_assert(offsetof(tier_super_block_v1_t, sb_inode_cnt) == 124);
static_assert(offsetof(tier_super_block_v1_t, sb_block_size) == 128);
static_assert(offsetof(tier_super_block_v1_t, sb_block_cnt) == 132);
static_assert(offsetof(tier_super_block_v1_t, sb_extent_size) == 136);
static_assert(offsetof(tier_super_block_v1_t, sb_reserved) == 140);

using tier_brick_info_v1_t = tier_brick_info_t;

using tier_inode_v1_t = tier_inode_t;

/* Extent: the head and a bitmap of 64-bit words, together sb_extent_size bytes; bytes that do not
 * fill a last word are checksummed and otherwise unused. */
using tier_extent_v1_t = tier_extent_t;

/* Whole 64-bit words in the bitmap of an extent of `extent_size` bytes; negative for one without a
 * size. */
constexpr int32_t tier_bitmap_words_v1(uint32_t extent_size)
{
    return (static_cast<int32_t>(extent_size) - static_cast<int32_t>(TIER_EXTENT_SIZE_MIN)) / 8;
}
