#pragma once

#include "zu_tier/format/v1.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/super.h"

#include <cstdint>
#include <tuple>

/* The V1 super block: the commands that read and rebuild it, and what the other tables need. */

constexpr auto TIER_SUPER_FIELDS_V1 =
    std::tuple_cat(TIER_SUPER_HEAD_FIELDS<tier_super_block_v1_t>,
                   std::tuple{zutr_field{"sb_reserved", &tier_super_block_v1_t::sb_reserved}});

/* 0, or -EFAULT when `sb` is not a V1 super block. */
int32_t __check_super_v1(const void *sb);

int32_t zutr_dump_super_v1(zutr_params_t *params);
int32_t zutr_repair_super_v1(zutr_params_t *params);

/* The device's super block. */
inline const tier_super_block_v1_t &tier_super_v1(const zutr_params_t *params)
{
    return *static_cast<const tier_super_block_v1_t *>(params->sb);
}

/* What every command on a table relies on. */
void tier_assert_super_v1(const zutr_params_t *params);
