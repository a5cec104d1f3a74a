#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

namespace tierctl {

/* A sum that stops at the largest number. */
inline uint64_t add_limited(uint64_t a, uint64_t b)
{
    return a + std::min(b, std::numeric_limits<uint64_t>::max() - a);
}

} // namespace tierctl
