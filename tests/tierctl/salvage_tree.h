#pragma once

// What zu_tierctl salvage writes, and what it has to write.

#include "held_data.h"

#include <functional>
#include <nlohmann/json.hpp>

namespace tier_test {

struct SalvageTree {
    std::map<std::string, std::string> files;
    std::vector<nlohmann::json> manifest; // without its first line
};

// What lies in a directory. Nothing in it is anything but a file or a directory.
SalvageTree read_tree(const std::string &directory);

// What has to lie there after these pieces of a sample were salvaged. The blocks of the device that
// begin at these offsets could not be read.
SalvageTree expected_tree(const std::vector<HeldPiece> &pieces,
                          const std::set<std::uint64_t> &unreadable = {});

std::vector<HeldPiece> only(const std::vector<HeldPiece> &pieces,
                            const std::function<bool(const HeldPiece &)> &is_wanted);
inline std::vector<HeldPiece> dirty(const std::vector<HeldPiece> &pieces)
{
    return only(pieces, [](const HeldPiece &piece) { return !piece.clean; });
}

void expect_same(const SalvageTree &is, const SalvageTree &expected);

// What a salvage says of it at the end.
std::string total_line(const SalvageTree &tree);

// Arguments of a small sample with data.
std::vector<std::string> small_sample(const std::string &layout);

} // namespace tier_test
