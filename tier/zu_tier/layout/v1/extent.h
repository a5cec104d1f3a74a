#pragma once

#include "zu_tier/format/v1.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/extent.h"

#include <cstdint>
#include <tuple>

/* The V1 extent table: its commands, and what the restore needs of it. */

/* Read only for an extent in use, and "te_bitmap" behind them. */
constexpr auto TIER_EXTENT_IN_USE_KEYS_V1 = std::tuple_cat(
    std::tuple{zutr_key{"te_block", &tier_extent_v1_t::te_block, zutr_to_s64},
               zutr_key{"te_size", &tier_extent_v1_t::te_size, zutr_to_u64}},
    TIER_EXTENT_OWNER_KEYS,
    std::tuple{
        zutr_key{"te_clean", &tier_extent_v1_t::te_clean, zutr_to_s32},
        zutr_key{"te_ntime", &tier_extent_v1_t::te_ntime, zutr_to_s64, zutr_need::optional},
        zutr_key{"te_hot", &tier_extent_v1_t::te_hot, zutr_to_u64, zutr_need::optional},
    });

int32_t zutr_dump_extent_v1(zutr_params_t *params);
int32_t zutr_repair_extent_v1(zutr_params_t *params);
