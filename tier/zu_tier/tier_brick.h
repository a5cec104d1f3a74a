#pragma once

#include "zu_tier/tier_format.h"
#include "zu_tier/tier_json.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>
#include <cstdio>

/* The brick table, which is the same in every layout but for the values below. */
struct tier_brick_table {
    uint32_t magic;
    tier_region region;
    zutr_need unlink; /* whether a repair file must hold "bi_unlink" */
};

uint32_t tier_brick_crc(const tier_brick_info_t *brick);

/* Prints the brick as a JSON object; `offset` is shown as "meta_offset". Cuts off a path that lacks
 * its terminator, in the record itself. */
void tier_print_brick(tier_brick_info_t *brick, int64_t offset, FILE *fp);

/* Formatter of the dump driver, on behalf of the function `func`. */
int32_t tier_dump_brick(const char *func, const tier_brick_table &table, int32_t no, void *meta,
                        const char *delim, zutr_params_t *params);

/* Fills the zeroed `brick` from a repair file and prints it to standard output. Gives the device
 * offset of its slot, or -EINVAL or -EFAULT, logged. */
int64_t tier_parse_brick(const zutr_json_reader &in, const tier_brick_table &table,
                         tier_brick_info_t *brick);
