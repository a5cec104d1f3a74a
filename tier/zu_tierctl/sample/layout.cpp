#include "zu_tierctl/sample/layout.h"

#include "zu_tierctl/device/error.h"

namespace {

constexpr const tierctl_layout *LAYOUTS[] = {&TIERCTL_LAYOUT_V1, &TIERCTL_LAYOUT_V2,
                                             &TIERCTL_LAYOUT_V3};

} // namespace

std::string tierctl_bounds_text(const tierctl_bounds &bounds)
{
    if (bounds.max == TIERCTL_NONE.max) {
        return "none";
    }
    std::string text = std::to_string(bounds.min) + ".." + std::to_string(bounds.max);
    if (bounds.unit != 1) {
        text += " in steps of " + std::to_string(bounds.unit);
    }
    return text;
}

std::span<const tierctl_layout *const> tierctl_layouts()
{
    return LAYOUTS;
}

const tierctl_layout &tierctl_find_layout(std::string_view name)
{
    for (const tierctl_layout *layout : LAYOUTS) {
        if (layout->name == name) {
            return *layout;
        }
    }
    throw tierctl_usage_error("unknown layout " + std::string(name));
}
