#pragma once

// Numbers of repair files and the integers they stand for.

#include "configuration.h"

namespace tier_test {

struct SweptNumber {
    std::string text;
    std::uint64_t as_unsigned; // converted to unsigned 64 bits
    std::uint64_t as_signed;   // converted to signed 64 bits
};

// What a key makes of it, before the field keeps the low bits.
std::uint64_t taken(const SweptNumber &number, Taken how);

// Fractions, signs and the bounds of 31, 32, 53, 63 and 64 bits, then the bounds of the key's field
// and the numbers of interest for it alone.
std::vector<SweptNumber> swept_numbers(const ConfigKey &key);

} // namespace tier_test
