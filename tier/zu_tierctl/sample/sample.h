#pragma once

#include "zu_tierctl/sample/layout.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tierctl {

/* Times in a sample lie in the year before 2026-01-01 00:00:00 UTC, not before today: the same
 * arguments give the same bytes on any day. */
constexpr const char SAMPLE_DATE[] = "2026-01-01 00:00:00 UTC";
constexpr uint64_t SAMPLE_YEAR_END = 1767225600; /* seconds since the epoch */
constexpr uint64_t SAMPLE_YEAR_START = SAMPLE_YEAR_END - uint64_t{365} * 24 * 3600;
constexpr uint64_t NANOSECONDS = 1000000000; /* in a second; stored times count them */

struct SampleOptions {
    std::string layout;
    bool for_conversion = false;
    std::array<std::optional<uint64_t>, SIZES> sizes; /* those that the command line gives */
    uint64_t seed = 1;
    std::vector<std::string> damage;
    bool force = false;
    std::string file;
};

/* The option that gives each size, and what it means. */
struct SizeOption {
    const char *name;
    const char *meaning;
};
extern const std::array<SizeOption, SIZES> SIZE_OPTIONS;

/* Writes the image of a sample device; throws when that fails. */
void sample(const SampleOptions &options);

} // namespace tierctl
