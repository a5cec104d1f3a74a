#include "zu_tierctl/sample/layout.h"

#include "zu_tierctl/device/error.h"

#include <fmt/core.h>

namespace tierctl {

namespace {

constexpr const Layout *LAYOUTS[] = {&SAMPLE_LAYOUT_V1, &SAMPLE_LAYOUT_V2, &SAMPLE_LAYOUT_V3};

} // namespace

std::string bounds_text(const Bounds &bounds)
{
    if (bounds.max == NO_BOUNDS.max) {
        return "none";
    }
    return fmt::format("{}..{}", bounds.min, bounds.max) +
           (bounds.unit == 1 ? "" : fmt::format(" in steps of {}", bounds.unit));
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
    throw UsageError(fmt::format("unknown layout {}", name));
}

} // namespace tierctl
