#pragma once

// Numbers of repair files, and the integers that the tool makes of them.

#include <cstdint>
#include <string>
#include <vector>

namespace tier_test {

enum class Conversion { SIGNED_32, SIGNED_64, UNSIGNED_64 };

// Truncates toward zero; a field narrower than 64 bits keeps the low bits of the result. A number
// out of the range of the conversion becomes the smallest signed integer.
std::uint64_t convert(Conversion conversion, long double value);

struct JsonNumber {
    std::string text;
    long double value;
};

// Fractions, exponents, and the numbers around the bounds of 16, 32, 53, 63 and 64 bits.
const std::vector<JsonNumber> &boundary_numbers();

} // namespace tier_test
