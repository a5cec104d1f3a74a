#include "zu_tier/format/v1.h"
#include "zu_tierctl/rescue/areas.h"
#include "zu_tierctl/rescue/rescue.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

/* The super block of layout V1. */

namespace {

/* Of the extents in use that were kept, those whose bitmap has a bit for a page after the block. */
uint64_t strange_extents(const AreaNumbers &numbers)
{
    return static_cast<uint64_t>(
        std::ranges::count_if(numbers.extents->samples, [&numbers](const Block &block) {
            return bitmap_end(block.data(), numbers.extent_length) > numbers.block_size / SIZE_4K;
        }));
}

SuperReading read_v1(const tier_layout &layout, Remains &remains, const std::vector<Hint> &hints)
{
    Readings readings(layout, hints);
    const AreaNumbers numbers =
        read_areas(area_facts(remains, layout), {}, std::nullopt, &readings);
    tier_super_block_v1_t super{};
    put_areas(numbers, &super);
    super.sb_magic = TIER_SB_MAGIC_V1;
    super.sb_version = TIER_SB_VERSION_V1;
    const bool any = numbers.extents != nullptr;
    super.sb_extent_size = static_cast<uint32_t>(
        readings.add("extent_size", numbers.extents_certainty,
                     any ? numbers.extent_length : TIER_EXTENT_SIZE_MIN,
                     any ? "the checksums of the extents" : "no sound extent was found",
                     {TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX}));
    add_area_sizes(numbers, super, &readings);

    SuperReading reading{.layout = &layout};
    reading.is_contested = numbers.extents_certainty != Certainty::certain;
    uint64_t extents = 0;
    if (any) {
        const ExtentTrace &trace = *numbers.extents;
        const uint64_t strange = strange_extents(numbers);
        const uint64_t samples = std::max<uint64_t>(trace.samples.size(), 1);
        extents = trace.sound - trace.in_use * strange / samples;
        reading.is_contested = reading.is_contested || strange != 0;
    }
    reading.explained = numbers.explained + extents;
    reading.explained_text = fmt::format("{}, {} extents", numbers.explained_text, extents);
    memcpy(reading.block.data(), &super, sizeof(super));
    reading.numbers = readings.take();
    return reading;
}

constexpr RescueLayout RESCUE_V1 = {"v1", read_v1};

[[gnu::constructor]] void register_v1() { register_rescue(&RESCUE_V1); }

} // namespace

} // namespace tierctl
