#pragma once

// What a damaged field of a super block may hold.

#include "damage_layout.h"

#include <set>

namespace tier_test {

std::uint64_t get_field(const Block &super, const SuperField &field);
void put_field(Block &super, const SuperField &field, std::uint64_t value);

// The bounds of the field and of 31 to 63 bits, and the neighbours of what it held: one less, one
// more, a block less, a block more.
std::set<std::uint64_t> damage_values(const SuperField &field, std::uint64_t old);

} // namespace tier_test
