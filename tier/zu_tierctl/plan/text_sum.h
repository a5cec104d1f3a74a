#pragma once

#include "common/zutr_crc32.h"

#include <cstdint>
#include <string_view>

namespace tierctl {

/* What tells whether two long texts are the same, of which neither is kept. */
struct TextSum {
    uint64_t length = 0;
    uint32_t crc = 0;

    /* The next piece of the text. */
    void add(std::string_view piece)
    {
        length += piece.size();
        crc = zutr_crc32_append(crc, piece.data(), piece.size());
    }

    bool operator==(const TextSum &) const = default;
};

} // namespace tierctl
