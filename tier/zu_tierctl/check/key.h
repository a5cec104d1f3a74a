#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tierctl {

/* What entries claim, as keys: a number, an identity of 16 bytes, or a text of up to 128. */
using Identity = std::array<uint64_t, 2>;
using Text = std::array<uint64_t, 16>;

/* Spreads the bits of a number over all 64. `odd` is an odd number: another one gives another,
 * unrelated result. */
constexpr uint64_t mix_bits(uint64_t number, uint64_t odd)
{
    constexpr uint64_t ODD = 0xD6E8FEB86659FD93;
    number *= odd;
    number ^= number >> 32;
    number *= ODD;
    return number ^ number >> 32;
}

/* The hash of a key; `odd` as above. */
constexpr uint64_t key_hash(uint64_t key, uint64_t odd) { return mix_bits(key, odd); }

template <size_t WORDS>
constexpr uint64_t key_hash(const std::array<uint64_t, WORDS> &key, uint64_t odd)
{
    uint64_t hash = 0;
    for (const uint64_t word : key) {
        hash = mix_bits(hash ^ word, odd);
    }
    return hash;
}

} // namespace tierctl
