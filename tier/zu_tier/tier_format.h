#pragma once

#include "common/zutr_utils.h"

#include <cstddef>
#include <cstdint>

/* What the layouts share on the device. Everything is stored in the byte order of the machine that
 * runs the tool, and every entry of a table has a 4096-byte slot of its own. */

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

/* An identity of the SSD has the length of this sample; its characters are never looked at. */
constexpr const char TIER_SSD_UUID_SAMPLE[] = "Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1-51F2P2";
constexpr size_t TIER_SSD_UUID_LEN = sizeof(TIER_SSD_UUID_SAMPLE) - 1;
static_assert(TIER_SSD_UUID_LEN == 38);

/* Brick: a backing store that the cache serves. The same record in every layout.
 *
 *   at  width
 *    0    4   bi_checksum  CRC-32 of bytes 4..167
 *    4    4   bi_magic     the layout's brick magic
 *    8    4   bi_use       nonzero: the slot holds a brick
 *   12    4   bi_no        the entry's own slot number
 *   16   16   bi_uuid      identity of the brick
 *   32  128   bi_brickid   path of the brick, NUL-terminated
 *  160    4   bi_unlink    nonzero: the brick has been unlinked
 *  164    4   bi_reserved
 */
struct tier_brick_info_t {
    uint32_t bi_checksum;
    uint32_t bi_magic;
    uint32_t bi_use;
    uint32_t bi_no;
    uint8_t bi_uuid[16];
    char bi_brickid[128];
    uint32_t bi_unlink;
    uint32_t bi_reserved;
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
