#pragma once

#include "zu_tierctl/entry/table.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/* What sample devices of a layout need. */

/* The sizes that describe a device. */
enum tierctl_size {
    TIERCTL_BRICKS,
    TIERCTL_INODES,
    TIERCTL_BLOCKS,
    TIERCTL_BLOCK_SIZE,
    TIERCTL_EXTENT_SIZE,
    TIERCTL_EXPANSION,
    TIERCTL_SHARDS,
    TIERCTL_EXTENTS,
    TIERCTL_HOT_SIZE,
    TIERCTL_SIZES,
};

using tierctl_sizes = std::array<uint32_t, TIERCTL_SIZES>;

struct tierctl_bounds {
    uint32_t min;
    uint32_t max;
    uint32_t unit;
    uint32_t fallback; /* when not given; 0: none, or it follows from the other sizes */
};

/* Of a size that a layout does not have. */
constexpr tierctl_bounds TIERCTL_NONE = {1, 0, 1, 0};

/* "1..300", "262144..4194304 in steps of 4096", "none" */
std::string tierctl_bounds_text(const tierctl_bounds &bounds);

/* Puts the content of entry `no` into its zeroed slot, all but the checksum. Called once for every
 * entry in order of number, table by table. */
using tierctl_fill = std::function<void(uint64_t no, uint8_t *slot)>;

struct tierctl_sample_table {
    tierctl_table table;
    tierctl_fill fill;
};

/* A sample device: its bytes and its tables in writing order. */
struct tierctl_sample_plan {
    uint64_t device_size;
    std::vector<tierctl_sample_table> tables;
};

struct tierctl_layout {
    std::string_view name;
    std::array<tierctl_bounds, TIERCTL_SIZES> bounds;
    tierctl_sample_plan (*sample)(const tierctl_sizes &sizes, uint64_t seed);
    const tierctl_layout *for_conversion; /* the same, ready to be converted; null: never is */
};

extern const tierctl_layout TIERCTL_LAYOUT_V1;
extern const tierctl_layout TIERCTL_LAYOUT_V1_FOR_CONVERSION;
extern const tierctl_layout TIERCTL_LAYOUT_V2;
extern const tierctl_layout TIERCTL_LAYOUT_V3;

std::span<const tierctl_layout *const> tierctl_layouts();

/* The layout of that name; a usage error when there is none. */
const tierctl_layout &tierctl_find_layout(std::string_view name);
