#pragma once

#include "zu_tier/tier_format_v1.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>

/* The V1 extent table: its commands, and what the restore needs of it. */

int32_t zutr_dump_extent_v1(zutr_params_t *params);
int32_t zutr_repair_extent_v1(zutr_params_t *params);

/* A super block may be sealed and still name a record that does not fit its slot: 0, or -EFAULT
 * after a message on behalf of `func`. */
int32_t tier_check_extent_size_v1(const char *func, const tier_super_block_v1_t &sb);
