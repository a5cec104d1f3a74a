#pragma once

#include "zu_tier/zu_tier.h"

#include <cstdint>

/* The commands on the V3 extent table. */

int32_t zutr_dump_extent_v3(zutr_params_t *params);
int32_t zutr_repair_extent_v3(zutr_params_t *params);
