#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace tierctl {

/* How long before the newest of many times the others lie. Times are nanoseconds since the epoch.
 */

struct AgeGroup {
    std::string_view name;
    uint64_t end; /* the longest such time */
};

inline constexpr uint64_t AGE_HOUR = 3600ULL * 1000 * 1000 * 1000;
inline constexpr uint64_t AGE_DAY = 24 * AGE_HOUR;

inline constexpr AgeGroup AGE_GROUPS[] = {
    {"hour", AGE_HOUR},      {"day", AGE_DAY},        {"week", 7 * AGE_DAY},
    {"month", 30 * AGE_DAY}, {"year", 365 * AGE_DAY}, {"older", ~uint64_t{0}},
};

struct NewestTime {
    uint64_t time = 0;   /* the newest that can be right */
    uint64_t odd = 0;    /* so many are so much later than all others that they cannot be right */
    uint64_t latest = 0; /* of all */
};

/* The newest of the times; zeros when there are none. */
NewestTime find_newest(std::vector<uint64_t> times);

/* The index of the group of a time, which is no odd one. */
size_t age_group(const NewestTime &newest, uint64_t time);

} // namespace tierctl
