#pragma once

#include "zu_tierctl/device/error.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace tierctl {

/* The number in `text`, read as zu_tier reads that of its option -n: decimal, hexadecimal after 0x,
 * octal after 0. Nothing when it is anything else, or a number of more than 64 bits. */
inline std::optional<uint64_t> parse_number(std::string_view text)
{
    const std::string copy(text);
    if (copy.empty() || copy.front() < '0' || copy.front() > '9') { /* nor a sign, nor a blank */
        return std::nullopt;
    }
    char *end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(copy.c_str(), &end, 0);
    if (errno != 0 || end != copy.c_str() + copy.size()) {
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
