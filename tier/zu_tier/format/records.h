#pragma once

#include "common/zutr_utils.h"

#include <cstddef>
#include <cstdint>

/* What the layouts share on the device. Everything is stored in the byte order of the machine that
 * runs the tool, in tables of 4096-byte slots. */

/* Byte offset of the super block. */
constexpr int64_t TIER_SUPER_OFFSET = SIZE_4K;

/* A table as a super block describes it: byte offset of slot 0, number of slots. */
struct tier_region {
    int64_t start;
    uint64_t count;

    /* Byte offset of the slot of entry `no`. */
    constexpr int64_t slot(uint64_t no) const
    {
        return zutr_advance(start, static_cast<int64_t>(no * SIZE_4K));
    }
};

constexpr uint64_t tier_round_up(uint64_t value, uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

/* An identity of the SSD has the length of this sample; its characters do not matter. */
constexpr const char TIER_SSD_UUID_SAMPLE[] = "Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1-51F2P2";
constexpr size_t TIER_SSD_UUID_LEN = sizeof(TIER_SSD_UUID_SAMPLE) - 1;
static_assert(TIER_SSD_UUID_LEN == 38);

/* Brick: a backing store that the cache serves. The same record in every layout. */
struct tier_brick_info_t {
    uint32_t bi_checksum; /*   0  CRC-32 of bytes 4..167 */
    uint32_t bi_magic;    /*   4  the layout's brick magic */
    uint32_t bi_use;      /*   8  nonzero: the slot holds a brick */
    uint32_t bi_no;       /*  12  the entry's own slot number */
    uint8_t bi_uuid[16];  /*  16  identity of the brick */
    char bi_brickid[128]; /*  32  path of the brick, NUL-terminated */
    uint32_t bi_unlink;   /* 160  nonzero: the brick has been unlinked */
    uint32_t bi_reserved; /* 164 */
};
static_assert(sizeof(tier_brick_info_t) == 168);
static_assert(offsetof(tier_brick_info_t, bi_checksum) == 0);
static_assert(offsetof(tier_brick_info_t, bi_magic) == 4);
static_assert(offsetof(tier_brick_info_t, bi_use) == 8);
static_assert(offsetof(tier_brick_info_t, bi_no) == 12);
static_assert(offsetof(tier_brick_info_t, bi_uuid) == 16);
static_assert(offsetof(tier_brick_info_t, bi_brickid) == 32);
static_assert(offsetof(tier_brick_info_t, bi_unlink) == 160);
static_assert(offsetof(tier_brick_info_t, bi_reserved) == 164);

/* The path of a brick has the length of this sample: a prefix, a volume identity, a UUID. */
constexpr const char TIER_BRICKID_SAMPLE[] =
    "/kd/data/zu/local/Jt7KIS-CZP1-Z8is-omAt-TmZ2-SH2v-5IemsH/5ef9c224-2659-4f73-9f49-7909b047ede0";
constexpr size_t TIER_BRICKID_LEN = sizeof(TIER_BRICKID_SAMPLE) - 1;
static_assert(TIER_BRICKID_LEN == 93);

/* Inode: a file that the cache holds. The same record in every layout but for the last two words.
 */
struct tier_inode_t {
    uint32_t i_checksum; /*   0  CRC-32 of bytes 4..95 */
    uint32_t i_magic;    /*   4  the layout's inode magic */
    uint64_t i_atime;    /*   8  nanoseconds since the epoch, as the three that follow */
    uint64_t i_ctime;    /*  16 */
    uint64_t i_mtime;    /*  24 */
    uint64_t i_dtime;    /*  32 */
    uint8_t i_uuid[16];  /*  40  identity of the file */
    uint64_t i_size;     /*  56  bytes */
    uint32_t i_priority; /*  64  cache priority */
    union {
        uint32_t i_no; /*  68  the entry's own number; signed in V3 */
        int32_t i_signed_no;
    };
    uint32_t i_brick_no; /*  72  slot number of the owning brick */
    uint16_t i_unlink;   /*  76  nonzero: the file has been unlinked */
    uint16_t i_use;      /*  78  nonzero: the slot holds a file */
    union {
        uint64_t i_reserved1; /*  80  V2, V3: new_data, kept by the cache for the file */
        uint64_t new_data;
    };
    union {
        uint64_t i_reserved2; /*  88  V2, V3: i_blocks, block count of the file */
        uint64_t i_blocks;
    };
};
static_assert(sizeof(tier_inode_t) == 96);
static_assert(offsetof(tier_inode_t, i_checksum) == 0);
static_assert(offsetof(tier_inode_t, i_magic) == 4);
static_assert(offsetof(tier_inode_t, i_atime) == 8);
static_assert(offsetof(tier_inode_t, i_ctime) == 16);
static_assert(offsetof(tier_inode_t, i_mtime) == 24);
static_assert(offsetof(tier_inode_t, i_dtime) == 32);
static_assert(offsetof(tier_inode_t, i_uuid) == 40);
static_assert(offsetof(tier_inode_t, i_size) == 56);
static_assert(offsetof(tier_inode_t, i_priority) == 64);
static_assert(offsetof(tier_inode_t, i_no) == 68);
static_assert(offsetof(tier_inode_t, i_signed_no) == 68);
static_assert(offsetof(tier_inode_t, i_brick_no) == 72);
static_assert(offsetof(tier_inode_t, i_unlink) == 76);
static_assert(offsetof(tier_inode_t, i_use) == 78);
static_assert(offsetof(tier_inode_t, i_reserved1) == 80);
static_assert(offsetof(tier_inode_t, new_data) == 80);
static_assert(offsetof(tier_inode_t, i_reserved2) == 88);
static_assert(offsetof(tier_inode_t, i_blocks) == 88);

/* Extent: what a data block caches. V1 and V2 begin an extent with this head, at the start of its
 * slot, and each goes on in its own way. */
struct tier_extent_t {
    uint32_t te_checksum;      /*   0  CRC-32 from byte 4 to the end of the record */
    uint32_t te_block;         /*   4  block number within the file */
    uint64_t te_size;          /*   8  valid bytes held */
    uint32_t te_inode_no;      /*  16  slot number of the owning inode */
    uint32_t te_sampling_low;  /*  20  access counter and identity of the file, bytes reversed
                                  against its JSON value */
    uint32_t te_sampling_mid;  /*  24  access counter */
    uint32_t te_sampling_high; /*  28  access counter */
    uint16_t te_use;           /*  32  nonzero: in use */
    uint16_t te_clean;         /*  34  nonzero: written back */
    uint32_t te_ntime;         /*  36  time of the last sampling */
    uint64_t te_hot;           /*  40  hotness */
    uint64_t te_reserved1;     /*  48  the entry's own number ("te_no") */
};
static_assert(sizeof(tier_extent_t) == 56);
static_assert(offsetof(tier_extent_t, te_checksum) == 0);
static_assert(offsetof(tier_extent_t, te_block) == 4);
static_assert(offsetof(tier_extent_t, te_size) == 8);
static_assert(offsetof(tier_extent_t, te_inode_no) == 16);
static_assert(offsetof(tier_extent_t, te_sampling_low) == 20);
static_assert(offsetof(tier_extent_t, te_sampling_mid) == 24);
static_assert(offsetof(tier_extent_t, te_sampling_high) == 28);
static_assert(offsetof(tier_extent_t, te_use) == 32);
static_assert(offsetof(tier_extent_t, te_clean) == 34);
static_assert(offsetof(tier_extent_t, te_ntime) == 36);
static_assert(offsetof(tier_extent_t, te_hot) == 40);
static_assert(offsetof(tier_extent_t, te_reserved1) == 48);

/* What a checksum does not cover: itself. */
constexpr uint32_t TIER_CHECKSUM_SIZE = sizeof(tier_extent_t::te_checksum);

/* Bounds of sb_extent_size, the bytes of the head and its bitmap. */
constexpr uint32_t TIER_EXTENT_SIZE_MIN = sizeof(tier_extent_t);
constexpr uint32_t TIER_EXTENT_SIZE_MAX = SIZE_4K;
