#pragma once

#include "zu_tierctl/device/error.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
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

/* The same for the argument `name` of the command line; a usage error when it is no such number. */
inline uint64_t read_number(const std::string &name, const std::string &text)
{
    const std::optional<uint64_t> value = parse_number(text);
    if (!value) {
        throw UsageError(name + " " + text + ": expected a number of up to 64 bits");
    }
    return *value;
}

} // namespace tierctl
