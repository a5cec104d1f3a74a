#pragma once

#include "zu_tier/tier_format_v3.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>

/* The V3 super block: the commands that read and rebuild it, and what the other tables need. */

/* 0, or -EFAULT when `sb` is not a V3 super block. */
int32_t __check_super_v3(const void *sb);

int32_t zutr_dump_super_v3(zutr_params_t *params);
int32_t zutr_repair_super_v3(zutr_params_t *params);

/* The device's super block. */
inline const tier_super_block_v3_t &tier_super_v3(const zutr_params_t *params)
{
    return *static_cast<const tier_super_block_v3_t *>(params->sb);
}

/* What every command on a table relies on. */
void tier_assert_super_v3(const zutr_params_t *params);
