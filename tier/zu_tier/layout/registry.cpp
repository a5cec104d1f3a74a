#include "zu_tier/layout/registry.h"
#include "common/zutr_assert.h"

#include <array>

namespace {

/* Indexed by version code. Filled by the layouts' start-up functions, so it must not have one. */
constinit std::array<zutr_func_selector_t, ZUTR_VER_CODE_MAX> s_func_selectors{};

constexpr size_t LAYOUTS_MAX = 8;
constinit std::array<const tier_layout *, LAYOUTS_MAX> s_layouts{};
constinit size_t s_layout_count = 0;

} // namespace

int32_t zutr_select(zutr_super_check_t check, const zutr_cmd_map_t &map, int32_t cmd,
                    const void *sb, zutr_cmd_func_t *func)
{
    const int32_t ret = sb != nullptr ? check(sb) : 0;
    if (ret < 0) {
        return ret;
    }
    zutr_assert(ZUTR_CMD_VALID(cmd), "ZUTR_CMD_VALID(cmd)");
    *func = map.at(static_cast<size_t>(cmd));
    return 0;
}

void zutr_func_register(int32_t ver, zutr_func_selector_t selector)
{
    zutr_assert(ZUTR_VER_VALID(ver) && selector != nullptr, "ZUTR_VER_VALID(ver) && s");
    auto &slot = s_func_selectors.at(static_cast<size_t>(ver));
    zutr_assert(slot == nullptr, "!s_func_selectors[ver]");
    slot = selector;
}

zutr_func_selector_t zutr_get_selector(int32_t ver)
{
    return ZUTR_VER_VALID(ver) ? s_func_selectors.at(static_cast<size_t>(ver)) : nullptr;
}

void tier_register_layout(const tier_layout *layout)
{
    zutr_assert(layout != nullptr && s_layout_count < s_layouts.size(), "room for the layout");
    s_layouts.at(s_layout_count++) = layout;
}

std::span<const tier_layout *const> tier_layouts()
{
    return std::span(s_layouts).first(s_layout_count);
}
