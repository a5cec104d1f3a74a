#include "zu_tierctl/sample/sample.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/sample/damage.h"
#include "zu_tierctl/sample/data.h"
#include "zu_tierctl/sample/image.h"

#include <algorithm>
#include <cstring>
#include <fmt/core.h>
#include <new>

namespace tierctl {

const std::array<SizeOption, SIZES> SIZE_OPTIONS = {{
    {"--bricks", "Entries of the brick table"},
    {"--inodes", "Entries of the inode table"},
    {"--blocks", "Data blocks; v1 and v2 have an extent for each, in v3 there\n"
                 "is by default a block for each extent"},
    {"--block-size", "Bytes of a data block"},
    {"--extent-size", "Bytes of an extent record with its bitmap, by default a bit\n"
                      "for each 4096-byte page of a block, in words of 64"},
    {"--expansion", "Inodes of the expansion area, which is in use"},
    {"--shards", "Entries of the shard table; the first of each block counts,\n"
                 "but holds no shard"},
    {"--extents", "Entries of the extent table"},
    {"--hot-size", "Bytes of the hot table"},
}};

namespace {

constexpr const SampleLayout *LAYOUTS[] = {&SAMPLE_LAYOUT_V1, &SAMPLE_LAYOUT_V2, &SAMPLE_LAYOUT_V3};

constexpr uint64_t SLOTS_A_WRITE = SIZE_1M / SIZE_4K;

Sizes choose_sizes(const SampleOptions &options, const SampleLayout &layout)
{
    Sizes sizes{};
    for (size_t i = 0; i < sizes.size(); i++) {
        const Bounds &bounds = layout.bounds[i];
        const uint64_t value = options.sizes[i].value_or(bounds.fallback);
        const bool in_range = value >= bounds.min && value <= bounds.max;
        if (options.sizes[i] && (!in_range || value % bounds.unit != 0)) {
            throw UsageError(fmt::format("{} {}: expected {}", SIZE_OPTIONS[i].name, value,
                                         bounds_text(bounds)));
        }
        sizes[i] = static_cast<uint32_t>(value);
    }
    return sizes;
}

/* Fills `region` with the entries of `sample` from `no` on. `run` has room for SLOTS_A_WRITE slots.
 */
void write_region(Image &image, const SampleTable &sample, const tier_region &region, uint64_t no,
                  uint8_t *run)
{
    for (uint64_t first = 0; first < region.count; first += SLOTS_A_WRITE) {
        const uint64_t slots = std::min(SLOTS_A_WRITE, region.count - first);
        memset(run, 0, slots * SIZE_4K);
        for (uint64_t i = 0; i < slots; i++) {
            uint8_t *slot = run + i * SIZE_4K;
            sample.fill(no + first + i, slot);
            sample.table.seal_slot(slot);
        }
        image.write(region.slot(first), run, slots * SIZE_4K);
    }
}

void write_table(Image &image, const SampleTable &sample, uint8_t *run)
{
    uint64_t no = 0;
    for (const tier_region &region : sample.table.regions) {
        write_region(image, sample, region, no, run);
        no += region.count;
    }
}

const SampleLayout &choose_layout(const SampleOptions &options)
{
    const auto *layout = std::ranges::find(LAYOUTS, options.layout, &SampleLayout::name);
    if (layout == std::end(LAYOUTS)) {
        throw UsageError("unknown layout " + options.layout);
    }
    if (!options.for_conversion) {
        return **layout;
    }
    if ((*layout)->for_conversion == nullptr) {
        throw UsageError("--for-conversion: layout " + options.layout + " cannot be converted");
    }
    return *(*layout)->for_conversion;
}

} // namespace

std::string bounds_text(const Bounds &bounds)
{
    if (bounds.max == NO_BOUNDS.max) {
        return "none";
    }
    return fmt::format("{}..{}", bounds.min, bounds.max) +
           (bounds.unit == 1 ? "" : fmt::format(" in steps of {}", bounds.unit));
}

std::span<const SampleLayout *const> sample_layouts() { return LAYOUTS; }

void sample(const SampleOptions &options)
{
    const SampleLayout &layout = choose_layout(options);
    const SamplePlan plan = layout.sample(choose_sizes(options, layout), options.seed);
    std::vector<Table> tables;
    for (const SampleTable &planned : plan.tables) {
        tables.push_back(planned.table);
    }
    const std::vector<Damage> damages = parse_damage(options.damage, tables);

    zutr_buffer run;
    if (zutr_alloc_aligned(SLOTS_A_WRITE * SIZE_4K, &run) != 0) {
        throw std::bad_alloc();
    }
    Image image(options.file, plan.device_size, options.force, options.overwrite_cache);
    for (const SampleTable &planned : plan.tables) {
        if (options.data && planned.table.name == SUPER_TABLE) { /* the last */
            memset(run.get(), 0, SIZE_4K);
            planned.fill(0, run.get());
            write_data(image, plan.device_size, tables, run.get());
        }
        write_table(image, planned, run.get());
    }
    apply_damage(image, damages, options.seed);
    image.commit();
}

} // namespace tierctl
