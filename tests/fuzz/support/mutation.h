#pragma once

#include "bytes.h"

#include <random>

namespace tier_fuzz {

// What the custom mutators share.
class Mutation {
public:
    explicit Mutation(unsigned seed) : random_(seed) {}

    // A number below `bound`; true once in `bound` times.
    std::size_t below(std::size_t bound) { return random_() % bound; }
    bool once_in(std::size_t bound) { return below(bound) == 0; }

    // Mutates bytes as the fuzzer does; they keep their size, or have up to `most` bytes.
    void bytes(std::span<std::uint8_t> bytes);
    void bytes(Bytes &bytes, std::size_t most);
    // Replaces an aligned number of 2, 4 or 8 bytes.
    void number(std::span<std::uint8_t> bytes);
    // Either.
    void record(std::span<std::uint8_t> bytes);
    // Replaces, takes away or repeats a token of a JSON text; or mutates its bytes.
    void json(Bytes &text, std::size_t most);

    // At an end of some width, a power of two, or small.
    std::uint64_t interesting();

private:
    std::minstd_rand random_;
};

} // namespace tier_fuzz
