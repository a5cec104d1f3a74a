#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/record/log.h"

#include <cerrno>
#include <cstdint>

/* The rules that tie the sizes of a V1 or V2 super block together. Each gives 0, or -EINVAL after
 * a message on behalf of `func`. */

/* Super block area, bricks, inodes and block size. */
template <class Super>
int32_t tier_check_areas(const char *func, const Super &sb)
{
    if (sb.sb_size != TIER_SB_AREA_SIZE) {
        zutr_error(func, "sb size is invalid. expect:%u, real:%u", TIER_SB_AREA_SIZE, sb.sb_size);
        return -EINVAL;
    }
    if (sb.sb_brick_cnt < 1 || sb.sb_brick_cnt > TIER_BRICK_CNT_MAX ||
        sb.sb_brick_table_size != uint64_t{sb.sb_brick_cnt} * SIZE_4K) {
        zutr_error(func,
                   "brick params is invalid. brick_cnt:%u, brick_table_size:%lu, "
                   "expect brick_cnt:[%u-%u]",
                   sb.sb_brick_cnt, sb.sb_brick_table_size, 1U, TIER_BRICK_CNT_MAX);
        return -EINVAL;
    }
    if (sb.sb_inode_cnt < 1 || sb.sb_inode_cnt > TIER_INODE_CNT_MAX ||
        sb.sb_inode_table_size != tier_inode_table_size(sb)) {
        zutr_error(func,
                   "inode params is invalid. inode_cnt:%u, itable_size:%lu, "
                   "expect inode_cnt:[%u-%u]",
                   sb.sb_inode_cnt, sb.sb_inode_table_size, 1U, TIER_INODE_CNT_MAX);
        return -EINVAL;
    }
    if (sb.sb_block_size < TIER_BLOCK_SIZE_MIN || sb.sb_block_size > TIER_BLOCK_SIZE_MAX ||
        sb.sb_block_size % SIZE_4K != 0) {
        zutr_error(func, "block size(%u) is invalid. expect block_size:[%u-%u] and must 4k aligned",
                   sb.sb_block_size, TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX);
        return -EINVAL;
    }
    return 0;
}

template <class Super>
int32_t tier_check_extent_table(const char *func, const Super &sb)
{
    if (sb.sb_extent_table_size != uint64_t{sb.sb_block_cnt} * SIZE_4K) {
        zutr_error(func, "extent table size(%lu) is invalid. block_cnt:%u", sb.sb_extent_table_size,
                   sb.sb_block_cnt);
        return -EINVAL;
    }
    return 0;
}

template <class Super>
int32_t tier_check_data_offset(const char *func, const Super &sb)
{
    if (sb.sb_data_offset != tier_data_offset(sb)) {
        zutr_error(func, "data offset(%lu) is invalid. expect:%lu", sb.sb_data_offset,
                   tier_data_offset(sb));
        return -EINVAL;
    }
    return 0;
}
