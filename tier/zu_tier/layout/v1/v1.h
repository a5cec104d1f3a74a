#pragma once

#include "zu_tier/format/v1.h"
#include "zu_tier/layout/layout.h"

/* What the files of layout V1 share: its own tables, and their commands. */

extern const tier_table TIER_SUPER_TABLE_V1;
extern const tier_table TIER_EXTENT_TABLE_V1;

/* 0, or -EFAULT when `sb` is not a V1 super block. */
int32_t __check_super_v1(const void *sb);

/* What every command on a table relies on. */
void tier_assert_super_v1(const zutr_params_t *params);

int32_t zutr_dump_super_v1(zutr_params_t *params);
int32_t zutr_repair_super_v1(zutr_params_t *params);
int32_t zutr_dump_extent_v1(zutr_params_t *params);
int32_t zutr_repair_extent_v1(zutr_params_t *params);

inline const tier_super_block_v1_t &tier_super_v1(const void *sb)
{
    return tier_super<tier_super_block_v1_t>(sb);
}
