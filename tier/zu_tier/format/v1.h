#pragma once

#include "zu_tier/format/areas.h"

/* Layout V1. tier_areas.h draws where its tables lie. */

constexpr uint32_t TIER_SB_MAGIC_V1 = 0xCACBCCCD;
constexpr uint32_t TIER_SB_VERSION_V1 = 0x10000;
constexpr uint32_t TIER_BRICK_MAGIC_V1 = 0x42524B49;
constexpr uint32_t TIER_INODE_MAGIC_V1 = 0x494E4F44;

/* Super block, at byte offset 4096 of the device.
 *
 *   at  width
 *    0    4   sb_checksum           CRC-32 of bytes 4..143
 *    4    4   sb_magic              0xCACBCCCD
 *    8    8   sb_brick_table_size   bytes: sb_brick_cnt x 4096
 *   16    8   sb_inode_table_size   bytes: sb_inode_cnt x 4096 and padding to a 1 MiB boundary
 *   24    8   sb_extent_table_size  bytes: sb_block_cnt x 4096
 *   32    8   sb_data_offset        end of the extent table + 2 MiB, up to a 1 MiB boundary
 *   40    8   sb_ctime              nanoseconds since the epoch
 *   48   16   sb_uuid               identity of the cache
 *   64   48   sb_ssd_uuid           identity of the SSD, 38 characters, NUL-terminated
 *  112    4   sb_version            0x10000
 *  116    4   sb_size               bytes of the super block area: 1 MiB
 *  120    4   sb_brick_cnt          1..300
 *  124    4   sb_inode_cnt          1..100000
 *  128    4   sb_block_size         bytes of a data block: 256 KiB..4 MiB, a multiple of 4096
 *  132    4   sb_block_cnt          data blocks, and extents
 *  136    4   sb_extent_size        bytes of an extent record with its bitmap: 56..4096
 *  140    4   sb_reserved
 */
struct tier_super_block_v1_t {
    uint32_t sb_checksum;
    uint32_t sb_magic;
    uint64_t sb_brick_table_size;
    uint64_t sb_inode_table_size;
    uint64_t sb_extent_table_size;
    uint64_t sb_data_offset;
    uint64_t sb_ctime;
    uint8_t sb_uuid[16];
    char sb_ssd_uuid[48];
    uint32_t sb_version;
    uint32_t sb_size;
    uint32_t sb_brick_cnt;
    uint32_t sb_inode_cnt;
    uint32_t sb_block_size;
    uint32_t sb_block_cnt;
    uint32_t sb_extent_size;
    uint32_t sb_reserved;
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

/* Whole 64-bit words in the bitmap of an extent of `extent_size` bytes; fewer than none of one
 * without a size. */
constexpr int32_t tier_bitmap_words_v1(uint32_t extent_size)
{
    return (static_cast<int32_t>(extent_size) - static_cast<int32_t>(TIER_EXTENT_SIZE_MIN)) / 8;
}
