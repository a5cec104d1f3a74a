#pragma once

#include "zu_tier/format/records.h"

/* Layouts V1 and V2 arrange their areas alike.
 *
 *   0        4096                  B          I          E                       sb_data_offset
 *   | unused | super block area    | bricks   | inodes   | extents   | >= 2 MiB  | data blocks
 *
 *   B = sb_size + 4096             one slot per brick
 *   I = B + sb_brick_table_size    one slot per inode; padded to end on a 1 MiB boundary
 *   E = I + sb_inode_table_size    one slot per data block: extent n describes block n
 */

constexpr uint32_t TIER_SB_AREA_SIZE = SIZE_1M;
constexpr uint32_t TIER_BRICK_CNT_MAX = 300;
constexpr uint32_t TIER_INODE_CNT_MAX = 100000;
constexpr uint32_t TIER_BLOCK_SIZE_MIN = 262144;
constexpr uint32_t TIER_BLOCK_SIZE_MAX = 4194304;
constexpr uint64_t TIER_DATA_GAP = uint64_t{2} * SIZE_1M;

/* sb_size + 4096 is a 32-bit sum, everything else 64-bit. */

template <class Super>
constexpr tier_region tier_bricks(const Super &sb)
{
    const uint32_t start = sb.sb_size + SIZE_4K;
    return {start, sb.sb_brick_cnt};
}

template <class Super>
constexpr tier_region tier_inodes(const Super &sb)
{
    const int64_t bricks = tier_bricks(sb).start;
    return {zutr_advance(bricks, static_cast<int64_t>(sb.sb_brick_table_size)), sb.sb_inode_cnt};
}

template <class Super>
constexpr tier_region tier_extents(const Super &sb)
{
    const int64_t inodes = tier_inodes(sb).start;
    return {zutr_advance(inodes, static_cast<int64_t>(sb.sb_inode_table_size)), sb.sb_block_cnt};
}

/* The inode table size that makes the table end on a 1 MiB boundary. */
template <class Super>
constexpr uint64_t tier_inode_table_size(const Super &sb)
{
    const auto start = static_cast<uint64_t>(tier_inodes(sb).start);
    return tier_round_up(start + uint64_t{sb.sb_inode_cnt} * SIZE_4K, SIZE_1M) - start;
}

/* The data offset that leaves at least the gap after the extent table. */
template <class Super>
constexpr uint64_t tier_data_offset(const Super &sb)
{
    const auto extents = static_cast<uint64_t>(tier_extents(sb).start);
    return tier_round_up(extents + sb.sb_extent_table_size + TIER_DATA_GAP, SIZE_1M);
}
