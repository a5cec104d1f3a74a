#pragma once

#include "zu_tier/format/v3.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/v3/packed.h"
#include "zu_tier/record/record.h"

#include <cstdint>
#include <tuple>

/* The V3 shard table: its fields and keys, and its commands. */

constexpr auto TIER_SHARD_FIELDS_V3 = std::tuple{
    zutr_bits{SHARD_INO_V3},      zutr_bits{SHARD_IN_USE_V3},
    zutr_bits{SHARD_RESERVED_V3}, zutr_field{"sno", &tier_packed_entry_v3::no},
    zutr_bits{SHARD_INDEX_V3},
};

constexpr tier_packed_key_v3 TIER_SHARD_KEYS_V3[] = {
    {SHARD_INO_V3},
    {SHARD_INDEX_V3},
    {SHARD_RESERVED_V3, zutr_need::optional},
};

constexpr tier_packed_table_v3 TIER_SHARD_TABLE_V3 = {
    .entries = "shards",
    .number = "sno",
    .item = "shards",
    .first_word = 1,
    .magic = TIER_SHARD_MAGIC_V3,
    .in_use = SHARD_IN_USE_V3,
    .owner = SHARD_INO_V3,
    .keys = TIER_SHARD_KEYS_V3,
};

int32_t zutr_dump_shard_v3(zutr_params_t *params);
int32_t zutr_repair_shard_v3(zutr_params_t *params);
