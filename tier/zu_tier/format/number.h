#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

/* A number in an entry: bits of the eight bytes from byte `at` on. With a mask of 0 there is no
 * number. The eight bytes must lie in the entry's slot. */
struct tier_number {
    uint32_t at = 0;
    uint64_t mask = 0;

    explicit constexpr operator bool() const { return mask != 0; }

    uint64_t get(const uint8_t *entry) const
    {
        uint64_t word = 0;
        memcpy(&word, entry + at, sizeof(word));
        return (word & mask) >> std::countr_zero(mask);
    }

    void put(uint8_t *entry, uint64_t value) const
    {
        uint64_t word = 0;
        memcpy(&word, entry + at, sizeof(word));
        word = (word & ~mask) | (value << std::countr_zero(mask) & mask);
        memcpy(entry + at, &word, sizeof(word));
    }
};

/* The number of `size` bytes, 1 to 8, at byte `at`. */
constexpr tier_number tier_number_at(size_t at, size_t size)
{
    return {static_cast<uint32_t>(at), ~uint64_t{0} >> (64 - 8 * size)};
}
