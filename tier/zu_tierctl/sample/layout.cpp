#include "zu_tierctl/sample/layout.h"

#include "zu_tierctl/device/error.h"

namespace tierctl {

namespace {

constexpr const Layout *LAYOUTS[] = {&SAMPLE_LAYOUT_V1, &SAMPLE_LAYOUT_V2, &SAMPLE_LAYOUT_V3};

} // namespace

std::string bounds_text(const Bounds &bounds)
{
    if (bounds.max == NO_BOUNDS.max) {
        return "none";
    }
    std::string text = std::to_string(bounds.min) + ".." + std::to_string(bounds.max);
    if (bounds.unit != 1) {
        text += " in steps of " + std::to_string(bounds.unit);
    }
    return text;
}

std::span<const Layout *const> layouts()
{
    return LAYOUTS;
}

const Layout &find_layout(std::string_view name)
{
    for (const Layout *layout : LAYOUTS) {
        if (layout->name == name) {
            return *layout;
        }
    }
    throw UsageError("unknown layout " + std::string(name));
}

} // namespace tierctl
