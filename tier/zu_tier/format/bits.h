#pragma once

#include <cstdint>

/* A bit field of a 64-bit word. */
struct tier_bits {
    const char *key; /* its name, in JSON too */
    uint32_t at;     /* lowest bit */
    uint32_t width;

    constexpr uint64_t mask() const { return ~uint64_t{0} >> (64 - width) << at; }
    constexpr uint64_t get(uint64_t word) const { return (word & mask()) >> at; }

    /* The word with the low bits of `value` in the field. */
    constexpr uint64_t put(uint64_t word, uint64_t value) const
    {
        return (word & ~mask()) | (value << at & mask());
    }
};
