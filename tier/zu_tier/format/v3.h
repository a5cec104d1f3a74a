#pragma once

#include "zu_tier/format/bits.h"
#include "zu_tier/format/records.h"

/* Layout V3. The super block says where each table lies. Bricks and inodes have a slot of 4096
 * bytes each; shards and extents are words of 64 bits, packed 512 to a block.
 *
 *   0        4096
 *   | unused | super block area | bricks | inodes | shards | hot table | extents | data blocks
 */

constexpr uint32_t TIER_SB_MAGIC_V3 = 0xCACBDCBD;
constexpr uint32_t TIER_SB_VERSION_V3 = 0x30000;
constexpr uint32_t TIER_BRICK_MAGIC_V3 = 0x42584B69;
constexpr uint32_t TIER_INODE_MAGIC_V3 = 0x498E4F54;
constexpr uint32_t TIER_SHARD_MAGIC_V3 = 0x2183BA9D;

constexpr uint32_t TIER_SB_AREA_SIZE_V3 = SIZE_1M;
constexpr uint32_t TIER_BRICK_CNT_MAX_V3 = 300;
constexpr uint32_t TIER_INODE_CNT_MAX_V3 = 0x40000;
constexpr uint32_t TIER_SHARD_CNT_MAX_V3 = 0x80000;
constexpr uint32_t TIER_EXTENT_CNT_MAX_V3 = 0x40000000;
constexpr uint32_t TIER_BLOCK_SIZE_MIN_V3 = 8192;
constexpr uint32_t TIER_BLOCK_SIZE_MAX_V3 = 65536;

constexpr uint32_t TIER_PACKED_SIZE_V3 = sizeof(uint64_t);               /* a shard or extent */
constexpr uint32_t TIER_PACKED_SLOTS_V3 = SIZE_4K / TIER_PACKED_SIZE_V3; /* words of a block */

/* Super block, at byte offset 4096 of the device. */
struct tier_super_block_v3_t {
    uint32_t sb_checksum;            /*   0  CRC-32 of bytes 4..263 */
    uint32_t sb_magic;               /*   4  0xCACBDCBD */
    uint64_t sb_sb_offset;           /*   8  super block area: byte offset */
    uint64_t sb_sb_size;             /*  16  bytes: 1 MiB */
    uint64_t sb_reserved_offset;     /*  24  reserved area: byte offset */
    uint64_t sb_reserved_size;       /*  32  bytes */
    uint64_t sb_ctime;               /*  40  creation time */
    uint8_t sb_uuid[16];             /*  48  identity of the cache */
    char sb_cdev_uuid[48];           /*  64  identity of the SSD, 38 characters, NUL-terminated */
    uint32_t sb_version;             /* 112  0x30000 */
    uint32_t sb_reserved;            /* 116 */
    uint64_t sb_brick_table_offset;  /* 120  bricks: byte offset */
    uint64_t sb_brick_table_size;    /* 128  bytes: at least sb_brick_table_cnt x 4096 */
    uint64_t sb_brick_table_cnt;     /* 136  1..300 */
    uint64_t sb_inode_table_offset;  /* 144  inodes: byte offset */
    uint64_t sb_inode_table_size;    /* 152  bytes: sb_inode_table_cnt x 4096 */
    uint64_t sb_inode_table_cnt;     /* 160  1..262144 */
    uint64_t sb_shard_table_offset;  /* 168  shards: byte offset */
    uint64_t sb_shard_table_size;    /* 176  bytes: sb_shard_table_cnt x 8 */
    uint64_t sb_shard_table_cnt;     /* 184  1..524288 */
    uint64_t sb_extent_table_offset; /* 192  extents: byte offset */
    uint64_t sb_extent_table_size;   /* 200  bytes: sb_extent_table_cnt x 8 */
    uint64_t sb_extent_table_cnt;    /* 208  1..1073741824 */
    uint64_t sb_hot_table_offset;    /* 216  hot table: byte offset */
    uint64_t sb_hot_table_size;      /* 224  bytes */
    uint64_t sb_block_area_offset;   /* 232  data blocks: byte offset */
    uint64_t sb_block_area_size;     /* 240  bytes: sb_block_size x sb_block_cnt */
    uint64_t sb_block_size; /* 248  bytes of a data block: 8192..65536, a multiple of 4096 */
    uint64_t sb_block_cnt;  /* 256  data blocks */
};
static_assert(sizeof(tier_super_block_v3_t) == 264);
static_assert(offsetof(tier_super_block_v3_t, sb_checksum) == 0);
static_assert(offsetof(tier_super_block_v3_t, sb_magic) == 4);
static_assert(offsetof(tier_super_block_v3_t, sb_sb_offset) == 8);
static_assert(offsetof(tier_super_block_v3_t, sb_sb_size) == 16);
static_assert(offsetof(tier_super_block_v3_t, sb_reserved_offset) == 24);
static_assert(offsetof(tier_super_block_v3_t, sb_reserved_size) == 32);
static_assert(offsetof(tier_super_block_v3_t, sb_ctime) == 40);
static_assert(offsetof(tier_super_block_v3_t, sb_uuid) == 48);
static_assert(offsetof(tier_super_block_v3_t, sb_cdev_uuid) == 64);
static_assert(offsetof(tier_super_block_v3_t, sb_version) == 112);
static_assert(offsetof(tier_super_block_v3_t, sb_reserved) == 116);
static_assert(offsetof(tier_super_block_v3_t, sb_brick_table_offset) == 120);
static_assert(offsetof(tier_super_block_v3_t, sb_brick_table_size) == 128);
static_assert(offsetof(tier_super_block_v3_t, sb_brick_table_cnt) == 136);
static_assert(offsetof(tier_super_block_v3_t, sb_inode_table_offset) == 144);
static_assert(offsetof(tier_super_block_v3_t, sb_inode_table_size) == 152);
static_assert(offsetof(tier_super_block_v3_t, sb_inode_table_cnt) == 160);
static_assert(offsetof(tier_super_block_v3_t, sb_shard_table_offset) == 168);
static_assert(offsetof(tier_super_block_v3_t, sb_shard_table_size) == 176);
static_assert(offsetof(tier_super_block_v3_t, sb_shard_table_cnt) == 184);
static_assert(offsetof(tier_super_block_v3_t, sb_extent_table_offset) == 192);
static_assert(offsetof(tier_super_block_v3_t, sb_extent_table_size) == 200);
static_assert(offsetof(tier_super_block_v3_t, sb_extent_table_cnt) == 208);
static_assert(offsetof(tier_super_block_v3_t, sb_hot_table_offset) == 216);
static_assert(offsetof(tier_super_block_v3_t, sb_hot_table_size) == 224);
static_assert(offsetof(tier_super_block_v3_t, sb_block_area_offset) == 232);
static_assert(offsetof(tier_super_block_v3_t, sb_block_area_size) == 240);
static_assert(offsetof(tier_super_block_v3_t, sb_block_size) == 248);
static_assert(offsetof(tier_super_block_v3_t, sb_block_cnt) == 256);

using tier_brick_info_v3_t = tier_brick_info_t;

/* Its i_no is signed (i_signed_no). */
using tier_inode_v3_t = tier_inode_t;

/* A block of shards or extents. Word k of block b is number b x 512 + k. */
struct tier_packed_block_v3_t {
    uint64_t word[TIER_PACKED_SLOTS_V3];
};
static_assert(sizeof(tier_packed_block_v3_t) == SIZE_4K);

/* Shard: a stretch of an inode that the cache has room for. Word 0 of a block is no shard but the
 * checksum of bytes 4..4095 and the magic. */
constexpr tier_bits SHARD_CHECKSUM_V3 = {"checksum", 0, 32};
constexpr tier_bits SHARD_MAGIC_V3 = {"magic", 32, 32};

constexpr tier_bits SHARD_INO_V3 = {"ino", 0, 18}; /* number of the owning inode */
constexpr tier_bits SHARD_IN_USE_V3 = {"in_use", 18, 1};
constexpr tier_bits SHARD_RESERVED_V3 = {"reserved", 19, 13};
constexpr tier_bits SHARD_INDEX_V3 = {"index", 32, 32}; /* position within the inode */
static_assert((SHARD_INO_V3.mask() ^ SHARD_IN_USE_V3.mask() ^ SHARD_RESERVED_V3.mask() ^
               SHARD_INDEX_V3.mask()) == ~uint64_t{0});

/* Extent: cache space. The checksum of a block is the CRC-32 of its 4096 bytes, taken while the
 * lowest bits of its words 0..31 are zero. Bit i of it is stored as the lowest bit of word i. The
 * lowest bits of the other words are part of what it covers; a repair leaves them zero. */
constexpr uint32_t TIER_EXTENT_CRC_BITS_V3 = 32;

constexpr tier_bits EXTENT_CHECKSUM_V3 = {"checksum", 0, 1}; /* a bit of the block's checksum */
constexpr tier_bits EXTENT_LBA_V3 = {"lba", 1, 19};          /* logical block address */
constexpr tier_bits EXTENT_SHARD_V3 = {"shard", 20, 19};     /* number of the owning shard */
constexpr tier_bits EXTENT_DIRTY_V3 = {"dirty", 39, 1};      /* not yet written back */
constexpr tier_bits EXTENT_BITMAP_V3 = {"bitmap", 40, 16};
constexpr tier_bits EXTENT_IN_USE_V3 = {"in_use", 56, 1};
constexpr tier_bits EXTENT_SENSE_V3 = {"sense", 57, 4};
constexpr tier_bits EXTENT_DEMOTE_V3 = {"demote", 61, 1};
constexpr tier_bits EXTENT_DM_ERR_V3 = {"dm_err", 62, 1};
constexpr tier_bits EXTENT_RESERVED_V3 = {"reserved", 63, 1};
static_assert((EXTENT_CHECKSUM_V3.mask() ^ EXTENT_LBA_V3.mask() ^ EXTENT_SHARD_V3.mask() ^
               EXTENT_DIRTY_V3.mask() ^ EXTENT_BITMAP_V3.mask() ^ EXTENT_IN_USE_V3.mask() ^
               EXTENT_SENSE_V3.mask() ^ EXTENT_DEMOTE_V3.mask() ^ EXTENT_DM_ERR_V3.mask() ^
               EXTENT_RESERVED_V3.mask()) == ~uint64_t{0});

/* The tables as the driver walks them, in blocks of 4096 bytes; a last block that the count or size
 * does not fill is left out. */

constexpr tier_region tier_bricks_v3(const tier_super_block_v3_t &sb)
{
    return {static_cast<int64_t>(sb.sb_brick_table_offset), sb.sb_brick_table_cnt};
}

constexpr tier_region tier_inodes_v3(const tier_super_block_v3_t &sb)
{
    return {static_cast<int64_t>(sb.sb_inode_table_offset), sb.sb_inode_table_cnt};
}

constexpr tier_region tier_shards_v3(const tier_super_block_v3_t &sb)
{
    return {static_cast<int64_t>(sb.sb_shard_table_offset),
            sb.sb_shard_table_cnt / TIER_PACKED_SLOTS_V3};
}

constexpr tier_region tier_hot_v3(const tier_super_block_v3_t &sb)
{
    return {static_cast<int64_t>(sb.sb_hot_table_offset), sb.sb_hot_table_size / SIZE_4K};
}

constexpr tier_region tier_extents_v3(const tier_super_block_v3_t &sb)
{
    return {static_cast<int64_t>(sb.sb_extent_table_offset),
            sb.sb_extent_table_cnt / TIER_PACKED_SLOTS_V3};
}
