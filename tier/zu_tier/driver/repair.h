#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/driver/params.h"

#include <cjson/cJSON.h>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/* Builds one block from a repair file: fills the 4096 zeroed bytes at `m` from `document` and gives
 * the device offset to write them at, or a negative errno (-5, -12, -14 or -22). */
using zutr_parse_func_t = int64_t (*)(zutr_params_t *params, const cJSON *document, void *m);

/* Prints the entry at the start of a block as a JSON object; `sb` is the super block, `offset` the
 * device offset of the block. It may change bytes that belong to no field. */
using zutr_print_func_t = void (*)(void *entry, const void *sb, int64_t offset, FILE *fp);

/* How a table is repaired. */
struct zutr_repair_t {
    zutr_parse_func_t parse;
    zutr_print_func_t print; /* null: what has been built is not shown */
};

/* Loads the repair file, has the 4096-byte block built in `block` and prints it to standard output.
 * Gives the device offset for the block, or a negative errno after messages on behalf of `func`; a
 * file that cannot be loaded gives `-EINVAL` or, with `hand_on_errno`, its own errno. */
int64_t zutr_build_block(const char *func, zutr_params_t *params, const zutr_repair_t &repair,
                         bool hand_on_errno, zutr_buffer *block);

/* Does the same and, only with the commit flag, writes the block to the device. Gives 0 or a
 * negative errno. */
int32_t zutr_repair_common(zutr_params_t *params, const zutr_repair_t &repair);

/* Reads `nbyte` bytes (a multiple of 4096) at byte `offset` in units of 1 MiB. Where a unit cannot
 * be read its first block is tried again, as often as the unit has blocks, and zeroed when that
 * fails; the other blocks keep what the failed read left. Gives `nbyte`, or -1 for bad arguments.
 */
ssize_t zutr_repair_readn(int32_t fd, void *buf, size_t nbyte, int64_t offset);

/* Whether a device can have a slot at `offset`; logs an error on behalf of `func` if not. The sizes
 * in a sealed super block may add up to anything. */
bool tier_check_slot(const char *func, int64_t offset);

/* The preconditions of a parser of table entries; `text` states them. */
void zutr_assert_parse(const zutr_params_t *params, const cJSON *document, const void *m,
                       const char *text);
