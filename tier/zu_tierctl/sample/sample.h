#pragma once

#include "zu_tierctl/sample/layout.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/* Times in a sample lie in the year before 2026-01-01 00:00:00 UTC, not before today: the same
 * arguments give the same bytes on any day. */
constexpr const char TIERCTL_SAMPLE_DATE[] = "2026-01-01 00:00:00 UTC";
constexpr uint64_t TIERCTL_SAMPLE_YEAR_END = 1767225600; /* seconds since the epoch */
constexpr uint64_t TIERCTL_SAMPLE_YEAR_START = TIERCTL_SAMPLE_YEAR_END - uint64_t{365} * 24 * 3600;
constexpr uint64_t TIERCTL_NANOSECONDS = 1000000000; /* in a second: the unit of stored times */

struct tierctl_sample_options {
    std::string layout;
    bool for_conversion = false;
    std::array<std::optional<uint64_t>, TIERCTL_SIZES> sizes; /* those that were given */
    uint64_t seed = 1;
    std::vector<std::string> damage;
    bool force = false;
    std::string file;
};

/* The option that gives each size, and what it means. */
struct tierctl_size_option {
    const char *name;
    const char *meaning;
};
extern const std::array<tierctl_size_option, TIERCTL_SIZES> TIERCTL_SIZE_OPTIONS;

/* Writes the image of a sample device. */
void tierctl_sample(const tierctl_sample_options &options);
