#include "zu_tierctl/tierctl_layout.h"

#include "zu_tierctl/tierctl_error.h"

#include <cstring>

namespace {

constexpr const tierctl_layout *LAYOUTS[] = {&TIERCTL_LAYOUT_V1, &TIERCTL_LAYOUT_V2};

} // namespace

uint64_t tierctl_table::count() const
{
    uint64_t entries = 0;
    for (const tier_region &region : regions) {
        entries += region.count;
    }
    return entries;
}

int64_t tierctl_table::slot(uint64_t no) const
{
    auto region = regions.begin();
    while (no >= region->count) {
        no -= region->count;
        ++region;
    }
    return region->slot(no);
}

void tierctl_seal(const tierctl_table &table, uint8_t *slot)
{
    const uint32_t crc =
        zutr_crc32(slot + sizeof(uint32_t), table.record_length - sizeof(uint32_t));
    memcpy(slot, &crc, sizeof(crc));
}

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
