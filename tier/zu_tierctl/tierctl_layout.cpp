#include "zu_tierctl/tierctl_layout.h"

#include "zu_tierctl/tierctl_error.h"

#include <cstring>

namespace {

constexpr const tierctl_layout *LAYOUTS[] = {&TIERCTL_LAYOUT_V1, &TIERCTL_LAYOUT_V2,
                                             &TIERCTL_LAYOUT_V3};

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

void tierctl_table::seal_slot(uint8_t *slot) const
{
    if (seal != nullptr) {
        seal(slot, record_length);
    }
}

void tierctl_seal_head(uint8_t *record, size_t length)
{
    const uint32_t crc = zutr_crc32(record + sizeof(crc), length - sizeof(crc));
    memcpy(record, &crc, sizeof(crc));
}

void tierctl_seal_words(uint8_t *record, size_t length)
{
    constexpr uint32_t CRC_BITS = 32;
    const auto low_byte = [record](uint32_t word) -> uint8_t & {
        return record[word * sizeof(uint64_t)]; /* words are stored low byte first */
    };
    for (uint32_t i = 0; i < CRC_BITS; i++) {
        low_byte(i) &= 0xFE;
    }
    const uint32_t crc = zutr_crc32(record, length);
    for (uint32_t i = 0; i < CRC_BITS; i++) {
        low_byte(i) = static_cast<uint8_t>(low_byte(i) | (crc >> i & 1));
    }
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
