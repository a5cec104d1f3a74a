#pragma once

#include "bytes.h"

namespace tier_fuzz {

// An input: a head of fixed size, a fixed number of parts, each with its length in two bytes before
// it, and the rest. What is missing is empty, in the head zero.
struct Input {
    Bytes head;
    std::vector<Bytes> parts;
    Bytes rest;
};

Input split(View data, std::size_t head_size, std::size_t parts);

// Gives the size of the input written to `data`, which is cut off at `room`.
std::size_t join(const Input &input, std::uint8_t *data, std::size_t room);

} // namespace tier_fuzz
