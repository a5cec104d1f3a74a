#pragma once

#include "zu_tierctl/entry/table.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What sample devices of a layout need. */

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
    uint32_t fallback; /* when not given; 0: none, or it follows from the other sizes */
};

/* Of a size that a layout does not have. */
constexpr Bounds NO_BOUNDS = {1, 0, 1, 0};

/* "1..300", "262144..4194304 in steps of 4096", "none" */
std::string bounds_text(const Bounds &bounds);

/* Puts the content of entry `no` into its zeroed slot, all but the checksum. Called once for every
 * entry in order of number, table by table. */
using Fill = std::function<void(uint64_t no, uint8_t *slot)>;

struct SampleTable {
    Table table;
    Fill fill;
};

/* A sample device: its bytes and its tables in writing order. */
struct SamplePlan {
    uint64_t device_size;
    std::vector<SampleTable> tables;
};

struct Layout {
    std::string_view name;
    std::array<Bounds, SIZES> bounds;
    SamplePlan (*sample)(const Sizes &sizes, uint64_t seed);
    const Layout *for_conversion; /* the same, ready to be converted; null: never is */
};

extern const Layout SAMPLE_LAYOUT_V1;
extern const Layout SAMPLE_LAYOUT_FOR_CONVERSION;
extern const Layout SAMPLE_LAYOUT_V2;
extern const Layout SAMPLE_LAYOUT_V3;

std::span<const Layout *const> layouts();

/* The layout of that name; a usage error when there is none. */
const Layout &find_layout(std::string_view name);

} // namespace tierctl
