#pragma once

#include "zu_tierctl/entry/table.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* How samples of each layout are made. */

/* The sizes that describe a device. */
enum Size {
    BRICKS,
    INODES,
    BLOCKS,
    BLOCK_SIZE,
    EXTENT_SIZE,
    EXPANSION,
    SHARDS,
    EXTENTS,
    HOT_SIZE,
    SIZES,
};

using Sizes = std::array<uint32_t, SIZES>;

struct Bounds {
    uint32_t min;
    uint32_t max;
    uint32_t unit;
    uint32_t fallback; /* default; 0: none, or it follows from the other sizes */
};

/* For a size that a layout does not have. */
constexpr Bounds NO_BOUNDS = {1, 0, 1, 0};

/* "1..300", "262144..4194304 in steps of 4096", "none" */
std::string bounds_text(const Bounds &bounds);

/* Writes the content of entry `no` but for its checksum to a slot of zeros. Called once for every
 * entry, table by table, in the order of the numbers. */
using Fill = std::function<void(uint64_t no, uint8_t *slot)>;

struct SampleTable {
    Table table;
    Fill fill;
};

struct SamplePlan {
    uint64_t device_size;            /* bytes */
    std::vector<SampleTable> tables; /* in the order of writing */
};

struct SampleLayout {
    std::string_view name;
    std::array<Bounds, SIZES> bounds;
    SamplePlan (*sample)(const Sizes &sizes, uint64_t seed);
    const SampleLayout
        *for_conversion; /* makes devices for convert_super; null: it converts none */
};

extern const SampleLayout SAMPLE_LAYOUT_V1;
extern const SampleLayout SAMPLE_LAYOUT_FOR_CONVERSION;
extern const SampleLayout SAMPLE_LAYOUT_V2;
extern const SampleLayout SAMPLE_LAYOUT_V3;

std::span<const SampleLayout *const> sample_layouts();

/* Times in a sample lie in the year before 2026-01-01 00:00:00 UTC, not before today: the same
 * arguments give the same bytes on any day. */
constexpr const char SAMPLE_DATE[] = "2026-01-01 00:00:00 UTC";
constexpr uint64_t SAMPLE_YEAR_END = 1767225600; /* seconds since the epoch */
constexpr uint64_t SAMPLE_YEAR_START = SAMPLE_YEAR_END - uint64_t{365} * 24 * 3600;
constexpr uint64_t NANOSECONDS = 1000000000; /* in a second; stored times count them */

struct SampleOptions {
    std::string layout;
    bool for_conversion = false;
    std::array<std::optional<uint64_t>, SIZES> sizes; /* those that the command line gives */
    uint64_t seed = 1;
    std::vector<std::string> damage;
    bool data = false; /* in the data blocks, too */
    bool force = false;
    bool overwrite_cache = false;
    std::string file;
};

/* The option that gives each size, and what it means. */
struct SizeOption {
    const char *name;
    const char *meaning;
};
extern const std::array<SizeOption, SIZES> SIZE_OPTIONS;

/* Writes the image of a sample device; throws when that fails. */
void sample(const SampleOptions &options);

} // namespace tierctl
