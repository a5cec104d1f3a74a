#pragma once

// A layout that no device has, of a depot: shelves, and boxes that stand on them. It is all that
// the companion needs to know about one more layout.

#include "device.h"
#include "zu_tier/layout/layout.h"

namespace tier_test {

struct DepotSuper {
    std::uint32_t checksum;
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t shelf_cnt;
    std::uint32_t box_blocks; // each holds up to 511 boxes
    std::uint32_t spare;
    std::uint64_t shelves_at;
    std::uint64_t boxes_at;
    std::uint64_t made;
    std::uint8_t uuid[16];
};

// Followed by its levels, two words.
struct DepotShelf {
    std::uint32_t checksum;
    std::uint32_t magic;
    std::uint32_t no;
    std::uint32_t use;
    std::uint8_t uuid[16];
    char label[24];
};

constexpr std::uint32_t DEPOT_MAGIC = 0xD3907001;
constexpr std::uint32_t DEPOT_VERSION = 0x90000;
constexpr std::uint32_t SHELF_MAGIC = 0xD3907002;
constexpr std::uint32_t BOX_MAGIC = 0xD3907003;
constexpr std::uint32_t DEPOT_LEVELS = 2;

// A box is a word of a block whose first word is its head.
constexpr tier_bits BOX_SHELF = {"shelf", 0, 16};
constexpr tier_bits BOX_PLACE = {"place", 16, 16};
constexpr tier_bits BOX_IN_USE = {"use", 32, 1};
constexpr tier_bits BOX_WEIGHT = {"weight", 33, 31};

extern const tier_layout DEPOT_LAYOUT;

constexpr DepotSuper DEPOT = {.checksum = 0,
                              .magic = DEPOT_MAGIC,
                              .version = DEPOT_VERSION,
                              .shelf_cnt = 4,
                              .box_blocks = 2,
                              .spare = 0,
                              .shelves_at = 4 * BLOCK_SIZE,
                              .boxes_at = 8 * BLOCK_SIZE,
                              .made = 1'600'000'000'123'456'789U,
                              .uuid = {0xD3}};

// Shelf 0 and 2 are in use; two boxes stand on the one, and one on the other.
Device make_depot();

// The word of a box in use.
std::uint64_t box_word(std::uint64_t shelf, std::uint64_t place, std::uint64_t weight);

// Stores the word of a box, and the checksum of its block.
void put_box(Device &device, std::uint64_t block, std::uint64_t slot, std::uint64_t word);

} // namespace tier_test
