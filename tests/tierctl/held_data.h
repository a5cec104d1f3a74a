#pragma once

// What the entries of a sample hold of files, from the model of the disk format: where each stretch
// lies on the device and in which file it belongs. For samples that are sound but for entries that
// the test has damaged, and names.

#include "sample_image.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tier_test {

struct HeldPiece {
    std::string file; // below the directory of a salvage
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::uint64_t device = 0; // offset there
    bool clean = false;
    std::string by;
    std::uint64_t extent = 0;
    std::uint64_t place = 0; // as the sample marks its pages
    Uuid uuid{};             // of the file
    std::uint64_t brick = 0; // numbers
    std::uint64_t inode = 0;
    std::uint64_t conflict = NO_CONFLICT; // the extent that has the place
    std::uint64_t cut = 0; // the last bytes of its last page, past the end of the file

    static constexpr std::uint64_t NO_CONFLICT = ~std::uint64_t{0};
};

// Slots of a table that are lost: "inode" and 7, "extent" and 2.
using Lost = std::set<std::pair<std::string, std::uint64_t>>;

// All of them, in the order of the device.
std::vector<HeldPiece> held_pieces(const Device &device, const std::string &layout,
                                   const Lost &lost = {});

// The 4096 bytes at an offset of a piece, as a sample fills it.
std::string sample_page(const HeldPiece &piece, std::uint64_t at);

} // namespace tier_test
