#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tierctl {

/* The decimal number in `text`; nothing when it holds anything else, or a number of more than 64
 * bits. */
inline std::optional<uint64_t> parse_number(std::string_view text)
{
    uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || stop != end) {
        return std::nullopt;
    }
    return value;
}

} // namespace tierctl
