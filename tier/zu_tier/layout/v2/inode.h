#pragma once

#include "zu_tier/format/v2.h"
#include "zu_tier/layout/inode.h"

#include <cstdint>
#include <cstdio>
#include <tuple>

/* The V2 inode, which the inode table and the expansion inode area share. */

constexpr auto TIER_INODE_IN_USE_KEYS_V2 = std::tuple_cat(
    TIER_INODE_IN_USE_KEYS, std::tuple{TIER_INODE_NEW_DATA_KEY, TIER_INODE_BLOCKS_KEY});

/* Prints the inode as a JSON object; `offset` is shown as "meta_offset". */
void __print_inode_v2(const tier_inode_v2_t *inode, int64_t offset, FILE *fp);

/* Whether the number is that of a regular inode or of one of an expansion area in use. */
constexpr bool tier_inode_is_usable_v2(const tier_super_block_v2_t &sb, uint32_t no)
{
    const bool formatted = sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2;
    return no < TIER_INODE_NO_BOUND_V2 &&
           no < (formatted ? tier_inode_sum_v2(sb) : sb.sb_inode_cnt) &&
           (no < sb.sb_inode_cnt || sb.sb_inode_exp_inuse == TIER_EXP_INUSE_V2);
}

/* Whether `ino` names a regular inode or one of an expansion area in use; if not, says so. */
int32_t inode_is_valid(const tier_super_block_v2_t *sb, int32_t ino);

/* Whether an area of `exp_inode_cnt` expansion inodes has been formatted behind the data blocks of
 * `sb`: looks at its first and its last slot. 0 or -EINVAL. */
int32_t __check_exp_inode_formated(const tier_super_block_v2_t *sb, int32_t fd,
                                   uint32_t exp_inode_cnt);
