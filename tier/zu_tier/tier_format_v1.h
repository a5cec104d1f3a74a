#pragma once

#include "zu_tier/tier_format.h"

/* Layout V1.
 *
 *   0        4096                  B          I          E                       sb_data_offset
 *   | unused | super block area    | bricks   | inodes   | extents   | >= 2 MiB  | data blocks
 *
 *   B = sb_size + 4096             one slot per brick
 *   I = B + sb_brick_table_size    one slot per inode; padded to end on a 1 MiB boundary
 *   E = I + sb_inode_table_size    one slot per data block: extent n describes block n
 */

constexpr uint32_t TIER_SB_MAGIC_V1 = 0xCACBCCCD;
constexpr uint32_t TIER_SB_VERSION_V1 = 0x10000;
constexpr uint32_t TIER_BRICK_MAGIC_V1 = 0x42524B49;
constexpr uint32_t TIER_INODE_MAGIC_V1 = 0x494E4F44;

constexpr uint32_t TIER_SB_SIZE_V1 = SIZE_1M;
constexpr uint32_t TIER_BRICK_CNT_MAX_V1 = 300;
constexpr uint32_t TIER_INODE_CNT_MAX_V1 = 100000;
constexpr uint32_t TIER_BLOCK_SIZE_MIN_V1 = 262144;
constexpr uint32_t TIER_BLOCK_SIZE_MAX_V1 = 4194304;
constexpr uint64_t TIER_DATA_GAP_V1 = uint64_t{2} * SIZE_1M;

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

/* Inode: a file that the cache holds.
 *
 *   at  width
 *    0    4   i_checksum   CRC-32 of bytes 4..95
 *    4    4   i_magic      0x494E4F44
 *    8    8   i_atime      nanoseconds since the epoch, as the three that follow
 *   16    8   i_ctime
 *   24    8   i_mtime
 *   32    8   i_dtime
 *   40   16   i_uuid       identity of the file
 *   56    8   i_size       bytes
 *   64    4   i_priority   cache priority
 *   68    4   i_no         the entry's own slot number
 *   72    4   i_brick_no   slot number of the owning brick
 *   76    2   i_unlink     nonzero: the file has been unlinked
 *   78    2   i_use        nonzero: the slot holds a file
 *   80    8   i_reserved1
 *   88    8   i_reserved2
 */
struct tier_inode_v1_t {
    uint32_t i_checksum;
    uint32_t i_magic;
    uint64_t i_atime;
    uint64_t i_ctime;
    uint64_t i_mtime;
    uint64_t i_dtime;
    uint8_t i_uuid[16];
    uint64_t i_size;
    uint32_t i_priority;
    uint32_t i_no;
    uint32_t i_brick_no;
    uint16_t i_unlink;
    uint16_t i_use;
    uint64_t i_reserved1;
    uint64_t i_reserved2;
};
static_assert(sizeof(tier_inode_v1_t) == 96);
static_assert(offsetof(tier_inode_v1_t, i_checksum) == 0);
static_assert(offsetof(tier_inode_v1_t, i_magic) == 4);
static_assert(offsetof(tier_inode_v1_t, i_atime) == 8);
static_assert(offsetof(tier_inode_v1_t, i_ctime) == 16);
static_assert(offsetof(tier_inode_v1_t, i_mtime) == 24);
static_assert(offsetof(tier_inode_v1_t, i_dtime) == 32);
static_assert(offsetof(tier_inode_v1_t, i_uuid) == 40);
static_assert(offsetof(tier_inode_v1_t, i_size) == 56);
static_assert(offsetof(tier_inode_v1_t, i_priority) == 64);
static_assert(offsetof(tier_inode_v1_t, i_no) == 68);
static_assert(offsetof(tier_inode_v1_t, i_brick_no) == 72);
static_assert(offsetof(tier_inode_v1_t, i_unlink) == 76);
static_assert(offsetof(tier_inode_v1_t, i_use) == 78);
static_assert(offsetof(tier_inode_v1_t, i_reserved1) == 80);
static_assert(offsetof(tier_inode_v1_t, i_reserved2) == 88);

/* Extent: what a data block caches. The record is this head and a bitmap of 64-bit words, together
 * sb_extent_size bytes; bytes that do not fill a last word are checksummed and otherwise unused.
 *
 *   at  width
 *    0    4   te_checksum       CRC-32 of bytes 4..sb_extent_size - 1
 *    4    4   te_block          block number within the file
 *    8    8   te_size           valid bytes held
 *   16    4   te_inode_no       slot number of the owning inode
 *   20    4   te_sampling_low   access counter, bytes reversed against its JSON value
 *   24    4   te_sampling_mid   access counter
 *   28    4   te_sampling_high  access counter
 *   32    2   te_use            nonzero: in use
 *   34    2   te_clean          nonzero: written back
 *   36    4   te_ntime          time of the last sampling
 *   40    8   te_hot            hotness
 *   48    8   te_reserved1      the entry's own number ("te_no")
 *   56        bitmap words
 */
struct tier_extent_v1_t {
    uint32_t te_checksum;
    uint32_t te_block;
    uint64_t te_size;
    uint32_t te_inode_no;
    uint32_t te_sampling_low;
    uint32_t te_sampling_mid;
    uint32_t te_sampling_high;
    uint16_t te_use;
    uint16_t te_clean;
    uint32_t te_ntime;
    uint64_t te_hot;
    uint64_t te_reserved1;
};
static_assert(sizeof(tier_extent_v1_t) == 56);
static_assert(offsetof(tier_extent_v1_t, te_checksum) == 0);
static_assert(offsetof(tier_extent_v1_t, te_block) == 4);
static_assert(offsetof(tier_extent_v1_t, te_size) == 8);
static_assert(offsetof(tier_extent_v1_t, te_inode_no) == 16);
static_assert(offsetof(tier_extent_v1_t, te_sampling_low) == 20);
static_assert(offsetof(tier_extent_v1_t, te_sampling_mid) == 24);
static_assert(offsetof(tier_extent_v1_t, te_sampling_high) == 28);
static_assert(offsetof(tier_extent_v1_t, te_use) == 32);
static_assert(offsetof(tier_extent_v1_t, te_clean) == 34);
static_assert(offsetof(tier_extent_v1_t, te_ntime) == 36);
static_assert(offsetof(tier_extent_v1_t, te_hot) == 40);
static_assert(offsetof(tier_extent_v1_t, te_reserved1) == 48);

constexpr uint32_t TIER_EXTENT_SIZE_MIN_V1 = sizeof(tier_extent_v1_t);
constexpr uint32_t TIER_EXTENT_SIZE_MAX_V1 = SIZE_4K;

/* Geometry. sb_size + 4096 is a 32-bit sum, everything else 64-bit. */

constexpr tier_region tier_bricks_v1(const tier_super_block_v1_t &sb)
{
    const uint32_t start = sb.sb_size + SIZE_4K;
    return {start, sb.sb_brick_cnt};
}

constexpr tier_region tier_inodes_v1(const tier_super_block_v1_t &sb)
{
    const int64_t bricks = tier_bricks_v1(sb).start;
    return {zutr_advance(bricks, static_cast<int64_t>(sb.sb_brick_table_size)), sb.sb_inode_cnt};
}

constexpr tier_region tier_extents_v1(const tier_super_block_v1_t &sb)
{
    const int64_t inodes = tier_inodes_v1(sb).start;
    return {zutr_advance(inodes, static_cast<int64_t>(sb.sb_inode_table_size)), sb.sb_block_cnt};
}

/* The inode table size that makes the table end on a 1 MiB boundary. */
constexpr uint64_t tier_inode_table_size_v1(const tier_super_block_v1_t &sb)
{
    const auto start = static_cast<uint64_t>(tier_inodes_v1(sb).start);
    return tier_round_up(start + uint64_t{sb.sb_inode_cnt} * SIZE_4K, SIZE_1M) - start;
}

constexpr uint64_t tier_data_offset_v1(const tier_super_block_v1_t &sb)
{
    const auto extents = static_cast<uint64_t>(tier_extents_v1(sb).start);
    return tier_round_up(extents + sb.sb_extent_table_size + TIER_DATA_GAP_V1, SIZE_1M);
}

/* Whole 64-bit words of the bitmap of an extent of `extent_size` bytes, at least the head's. */
constexpr uint32_t tier_bitmap_words_v1(uint32_t extent_size)
{
    return (extent_size - TIER_EXTENT_SIZE_MIN_V1) / 8;
}
