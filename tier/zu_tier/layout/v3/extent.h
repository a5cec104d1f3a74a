#pragma once

#include "zu_tier/format/v3.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/v3/packed.h"
#include "zu_tier/record/record.h"

#include <cstdint>
#include <tuple>

/* The V3 extent table: its fields and keys, and its commands. */

constexpr auto TIER_EXTENT_FIELDS_V3 = std::tuple{
    zutr_bits{EXTENT_LBA_V3},
    zutr_bits{EXTENT_SHARD_V3},
    zutr_bits{EXTENT_DIRTY_V3},
    zutr_bits{EXTENT_IN_USE_V3},
    zutr_bits{EXTENT_SENSE_V3},
    zutr_bits{EXTENT_DEMOTE_V3},
    zutr_bits{EXTENT_DM_ERR_V3},
    zutr_bits{EXTENT_RESERVED_V3},
    zutr_field{"eno", &tier_packed_entry_v3::no},
    zutr_bits{EXTENT_BITMAP_V3},
};

constexpr tier_packed_key_v3 TIER_EXTENT_KEYS_V3[] = {
    {EXTENT_LBA_V3},
    {EXTENT_SHARD_V3},
    {EXTENT_DIRTY_V3},
    {EXTENT_BITMAP_V3},
    {EXTENT_SENSE_V3, zutr_need::optional},
    {EXTENT_DEMOTE_V3, zutr_need::optional},
    {EXTENT_DM_ERR_V3, zutr_need::optional},
    {EXTENT_RESERVED_V3, zutr_need::optional},
};

constexpr tier_packed_table_v3 TIER_EXTENT_TABLE_V3 = {
    .entries = "extents",
    .number = "eno",
    .item = "extent",
    .first_word = 0,
    .magic = std::nullopt,
    .in_use = EXTENT_IN_USE_V3,
    .owner = EXTENT_SHARD_V3,
    .keys = TIER_EXTENT_KEYS_V3,
};

int32_t zutr_dump_extent_v3(zutr_params_t *params);
int32_t zutr_repair_extent_v3(zutr_params_t *params);
