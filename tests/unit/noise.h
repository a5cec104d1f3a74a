#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace tier_test {

// Bytes without a pattern, the same in every run.
inline std::vector<std::uint8_t> noise(std::size_t length)
{
    std::mt19937 random(static_cast<unsigned>(length));
    std::vector<std::uint8_t> bytes(length);
    std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

} // namespace tier_test
