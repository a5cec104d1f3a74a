#include "zu_tierctl/sample/layout.h"

#include "zu_tierctl/device/error.h"

#include <fmt/core.h>

namespace tierctl {

namespace {

constexpr const SampleLayout *LAYOUTS[] = {&SAMPLE_LAYOUT_V1, &SAMPLE_LAYOUT_V2, &SAMPLE_LAYOUT_V3};

} // namespace

std::string bounds_text(const Bounds &bounds)
{
    if (bounds.max == NO_BOUNDS.max) {
        return "none";
    }
    return fmt::format("{}..{}", bounds.min, bounds.max) +
           (bounds.unit == 1 ? "" : fmt::format(" in steps of {}", bounds.unit));
}

std::span<const SampleLayout *const> sample_layouts()
{
    return LAYOUTS;
}

const SampleLayout &find_sample_layout(std::string_view name)
{
    for (const SampleLayout *layout : LAYOUTS) {
        if (layout->name == name) {
            return *layout;
        }
    }
    throw UsageError(fmt::format("unknown layout {}", name));
}

} // namespace tierctl
