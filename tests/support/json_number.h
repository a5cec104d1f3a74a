#pragma once

// Numbers of repair files.

#include "model.h"

#include <string>
#include <vector>

namespace tier_test {

struct JsonNumber {
    std::string text;
    long double value;
};

// Fractions, exponents, and the numbers around the bounds of 16, 32, 53, 63 and 64 bits.
const std::vector<JsonNumber> &boundary_numbers();

} // namespace tier_test
