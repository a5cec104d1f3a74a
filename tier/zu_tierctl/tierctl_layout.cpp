#include "zu_tierctl/tierctl_layout.h"

#include "zu_tierctl/tierctl_error.h"

#include <cstring>

namespace {

constexpr const tierctl_layout *LAYOUTS[] = {&TIERCTL_LAYOUT_V1};

} // namespace

void tierctl_seal(const tierctl_table &table, uint8_t *slot)
{
    const uint32_t crc =
        zutr_crc32(slot + sizeof(uint32_t), table.record_length - sizeof(uint32_t));
    memcpy(slot, &crc, sizeof(crc));
}

std::string tierctl_bounds_text(const tierctl_bounds &bounds)
{
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
