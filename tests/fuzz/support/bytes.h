#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace tier_fuzz {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

constexpr std::size_t BLOCK = 4096;

// The number at byte `at`; bytes that are missing are zero.
template <class Number>
Number get(View bytes, std::size_t at)
{
    Number value = 0;
    if (at < bytes.size()) {
        std::memcpy(&value, bytes.data() + at, std::min(sizeof(value), bytes.size() - at));
    }
    return value;
}

// Bytes that are not there are left out.
template <class Number>
void put(std::span<std::uint8_t> bytes, std::size_t at, Number value)
{
    if (at < bytes.size()) {
        std::memcpy(bytes.data() + at, &value, std::min(sizeof(value), bytes.size() - at));
    }
}

// The beginning of a block of 4096 bytes, filled up with zeros.
inline Bytes as_block(View bytes)
{
    Bytes block(bytes.begin(),
                bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), BLOCK)));
    block.resize(BLOCK);
    return block;
}

} // namespace tier_fuzz
