#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace tierctl {

/* Sorts in place; numbers by their bytes, in a third of the time that comparing them takes. */

/* Numbers that differ in the bits below `bits` only. */
struct SortPart {
    std::span<uint64_t> keys;
    unsigned bits;
};

constexpr unsigned SORT_DIGIT = 8; /* bits sorted by at a time */
constexpr size_t SORT_FEW = 256;   /* are compared */

/* Puts the keys of a part in order of their highest digit. The parts that the digit leaves unsorted
 * are appended to the others. */
inline void split_part(const SortPart &part, std::vector<SortPart> &parts)
{
    const std::span<uint64_t> keys = part.keys;
    const unsigned shift = part.bits > SORT_DIGIT ? part.bits - SORT_DIGIT : 0;
    const auto digit = [shift](uint64_t key) { return key >> shift & ((1U << SORT_DIGIT) - 1); };

    /* Where the keys of each digit end, and where the next one goes. */
    std::array<size_t, size_t{1} << SORT_DIGIT> ends{};
    for (const uint64_t key : keys) {
        ends[digit(key)]++;
    }
    std::array<size_t, size_t{1} << SORT_DIGIT> next{};
    for (size_t d = 1; d < ends.size(); d++) {
        next[d] = ends[d - 1];
        ends[d] += ends[d - 1];
    }
    for (size_t d = 0; d < ends.size(); d++) {
        while (next[d] < ends[d]) {
            uint64_t key = keys[next[d]];
            while (digit(key) != d) {
                std::swap(key, keys[next[digit(key)]++]);
            }
            keys[next[d]++] = key;
        }
    }
    size_t begin = 0;
    for (const size_t end : ends) {
        parts.push_back({keys.subspan(begin, end - begin), shift});
        begin = end;
    }
}

inline void sort_keys(std::span<uint64_t> keys)
{
    uint64_t differing = 0;
    for (const uint64_t key : keys) {
        differing |= key ^ keys.front();
    }
    std::vector<SortPart> parts = {{keys, static_cast<unsigned>(std::bit_width(differing))}};
    while (!parts.empty()) {
        const SortPart part = parts.back();
        parts.pop_back();
        if (part.bits == 0 || part.keys.size() <= SORT_FEW) {
            std::ranges::sort(part.keys);
        } else {
            split_part(part, parts);
        }
    }
}

template <class Key>
void sort_keys(std::span<Key> keys)
{
    std::ranges::sort(keys);
}

} // namespace tierctl
