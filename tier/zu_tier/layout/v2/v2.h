#pragma once

#include "zu_tier/format/v2.h"
#include "zu_tier/layout/layout.h"

/* What the files of layout V2 share: its own tables, and their commands. */

extern const tier_table TIER_SUPER_TABLE_V2;
extern const tier_table TIER_INODE_TABLE_V2;
extern const tier_table TIER_EXTENT_TABLE_V2;

/* 0, or -EFAULT when `sb` is not a V2 super block. */
int32_t __check_super_v2(const void *sb);

/* What every command on a table relies on. */
void tier_assert_super_v2(const zutr_params_t *params);

int32_t zutr_dump_super_v2(zutr_params_t *params);
int32_t zutr_repair_super_v2(zutr_params_t *params);
int32_t zutr_convert_super_v2(zutr_params_t *params);
int32_t zutr_dump_inode_v2(zutr_params_t *params);
int32_t zutr_repair_inode_v2(zutr_params_t *params);
int32_t zutr_dump_extent_v2(zutr_params_t *params);
int32_t zutr_repair_extent_v2(zutr_params_t *params);

inline const tier_super_block_v2_t &tier_super_v2(const void *sb)
{
    return tier_super<tier_super_block_v2_t>(sb);
}

/* Whether `ino` names a regular inode or one of an expansion area in use; if not, says so. */
int32_t inode_is_valid(const tier_super_block_v2_t *sb, int32_t ino);

/* How inode `params->meta_no` is restored: 0, or a negative errno, logged. */
int32_t tier_plan_restore_v2(zutr_params_t *params, tier_restore *plan);

/* Whether an area of `exp_inode_cnt` expansion inodes has been formatted after the data blocks of
 * `sb`: looks at its first and its last slot. 0 or -EINVAL. */
int32_t __check_exp_inode_formated(const tier_super_block_v2_t *sb, int32_t fd,
                                   uint32_t exp_inode_cnt);
