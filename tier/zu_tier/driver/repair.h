#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/front/zu_tier.h"

#include <cjson/cJSON.h>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/* Builds one block from a repair file: fills the 4096 zeroed bytes at `m` from `document` and gives
 * the device offset to write them at, or a negative errno (-5, -12, -14 or -22). */
using zutr_parse_func_t = int64_t (*)(zutr_params_t *params, const cJSON *document, void *m);

/* Loads the repair file and has `parse_func` build the 4096-byte block in `block`. Gives the device
 * offset for the block, or a negative errno after messages on behalf of `func`; a file that cannot
 * be loaded gives `-EINVAL` or, with `hand_on_errno`, its own errno. */
int64_t zutr_build_block(const char *func, zutr_params_t *params, zutr_parse_func_t parse_func,
                         bool hand_on_errno, zutr_buffer *block);

/* Loads the repair file, has `parse_func` build the block and, only with the commit flag, writes it
 * to the device. Gives 0 or a negative errno. */
int32_t zutr_repair_common(zutr_params_t *params, zutr_parse_func_t parse_func);

/* Reads `nbyte` bytes (a multiple of 4096) at byte `offset` in units of 1 MiB. Where a unit cannot
 * be read its first block is tried again, as often as the unit has blocks, and zeroed when that
 * fails; the other blocks keep what the failed read left. Gives `nbyte`, or -1 for bad arguments.
 */
ssize_t zutr_repair_readn(int32_t fd, void *buf, size_t nbyte, int64_t offset);

/* Whether a slot lies where a device can have one; if not, says so on behalf of `func`. The sizes
 * of a sealed super block may still add up to anything. */
bool tier_check_slot(const char *func, int64_t offset);

/* What a parser of table entries relies on, in the words `text`. */
void zutr_assert_parse(const zutr_params_t *params, const cJSON *document, const void *m,
                       const char *text);
