#pragma once

#include "zu_tier/driver/params.h"

#include <array>
#include <cstdint>
#include <span>

/* The layouts, and how a run finds the one of its device. */

struct tier_layout;

enum zutr_ver_code_t : int32_t {
    ZUTR_VER_CODE_NONE = 0,
    ZUTR_VER_CODE_V1 = 1,
    ZUTR_VER_CODE_V2 = 2,
    ZUTR_VER_CODE_V3 = 3,
    ZUTR_VER_CODE_MAX = 4,
};

constexpr bool ZUTR_VER_VALID(int32_t ver)
{
    return ver > ZUTR_VER_CODE_NONE && ver < ZUTR_VER_CODE_MAX;
}

/* Puts a layout's handler for `cmd`, or null, into `*func`, and gives 0; gives a negative errno
 * when `sb`, unless null, is not a super block of that layout. */
using zutr_func_selector_t = int32_t (*)(int32_t cmd, const void *sb, zutr_cmd_func_t *func);

/* A layout's handlers, indexed by zutr_cmd_t; null where the layout does not offer the command. */
using zutr_cmd_map_t = std::array<zutr_cmd_func_t, ZUTR_CMD_MAXVALUE>;

/* What every selector does: tests `sb`, unless null, and hands out the handler. */
int32_t zutr_select(zutr_super_check_t check, const zutr_cmd_map_t &map, int32_t cmd,
                    const void *sb, zutr_cmd_func_t *func);

/* Registers the selector of a layout version, once, before main. */
void zutr_func_register(int32_t ver, zutr_func_selector_t selector);

/* The registered selector of `ver`, or null; any number may be asked for. */
zutr_func_selector_t zutr_get_selector(int32_t ver);

/* Adds a layout to those of tier_layouts(), once, before main. */
void tier_register_layout(const tier_layout *layout);

/* The registered layouts, in order of registration. */
std::span<const tier_layout *const> tier_layouts();
