#pragma once

#include "zu_tier/driver/params.h"
#include "zu_tier/format/records.h"

#include <cstdint>

/* Shows one entry: `meta` are the 4096 bytes of its block, `delim` goes to the output before it.
 * Gives 0 when it was printed, 1 when the filter hides it, or a negative errno when it is bad: then
 * its ERROR line is written and the output untouched. */
using meta_format_func_t = int32_t (*)(int32_t no, void *meta, const char *delim,
                                       zutr_params_t *params);

/* Dumps the entry `params->meta_no` of a table, or when that is negative the whole table as one
 * JSON array in which an entry that cannot be read or checked becomes an error record. The table is
 * `max_cnt` blocks of 4096 bytes from byte `meta_start` of the device, numbered from
 * `params->base_no`; `meta_type` is the key of the entry number. For one entry `max_cnt` bounds the
 * number itself. Gives 0 or a negative errno; a walk succeeds whatever its entries give. */
int32_t zutr_dump_common(zutr_params_t *params, const char *meta_type, int64_t meta_start,
                         int32_t max_cnt, meta_format_func_t format_func);

/* The preconditions of a formatter, and of a command that needs the device's super block;
 * `super_text` is the layout's condition on it. */
void zutr_assert_entry(int32_t no, const void *meta, const char *delim,
                       const zutr_params_t *params);
void zutr_assert_super(const zutr_params_t *params, zutr_super_check_t check,
                       const char *super_text);
