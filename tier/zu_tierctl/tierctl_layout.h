#pragma once

#include "zu_tier/tier_format.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/* What the companion knows of a layout. */

/* Stores the checksum of a record of `length` bytes in it. */
using tierctl_seal = void (*)(uint8_t *record, size_t length);

/* The CRC-32 of all behind its first four bytes, in these. */
void tierctl_seal_head(uint8_t *record, size_t length);

/* The CRC-32 of all with its own bits zero: bit i is the lowest of the 64-bit word i. */
void tierctl_seal_words(uint8_t *record, size_t length);

/* A table of 4096-byte slots. Each has a record at its start; the super block is a table of one
 * slot, and a block of packed entries is a single record. */
struct tierctl_table {
    std::string_view name;
    std::vector<tier_region> regions; /* where it lies; each is numbered on from the one before */
    size_t record_length;
    tierctl_seal seal = nullptr;       /* null: a record has no checksum */
    std::optional<size_t> magic_at{};  /* byte offset of the magic in a record, if it has one */
    std::optional<size_t> number_at{}; /* byte offset of the entry's own number, if it has one */

    uint64_t count() const;

    /* Byte offset of the slot of entry `no`, which exists. */
    int64_t slot(uint64_t no) const;

    /* Stores the checksum, if there is one, of the record in `slot`. */
    void seal_slot(uint8_t *slot) const;
};

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
