#pragma once

#include "zu_tier/tier_format_v2.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>

/* The commands that read, rebuild and convert a V2 super block. */

/* 0, or -EFAULT when `sb` is not a V2 super block. */
int32_t __check_super_v2(const void *sb);

int32_t zutr_dump_super_v2(zutr_params_t *params);
int32_t zutr_repair_super_v2(zutr_params_t *params);
int32_t zutr_convert_super_v2(zutr_params_t *params);
