#include "zu_tierctl/entry/ages.h"

#include <algorithm>
#include <iterator>

namespace tierctl {

namespace {

/* Some times, at most one in so many but always one of three or more, are odd when they come so
 * much later than all others: without a rule one wrong clock would make everything else old. */
constexpr size_t TIMES_AN_ODD = 100;
constexpr uint64_t ODD_AFTER = 365 * AGE_DAY;

/* How many of the times, the earliest first, are not odd. */
size_t count_plausible(const std::vector<uint64_t> &times)
{
    const size_t count = times.size();
    const size_t odd_max = count < 3 ? 0 : std::max<size_t>(1, count / TIMES_AN_ODD);
    for (size_t i = count - odd_max; i < count; i++) {
        if (times[i] - times[i - 1] > ODD_AFTER) {
            return i;
        }
    }
    return count;
}

} // namespace

NewestTime find_newest(std::vector<uint64_t> times)
{
    if (times.empty()) {
        return {};
    }
    std::ranges::sort(times);
    const size_t plausible = count_plausible(times);
    return {times[plausible - 1], times.size() - plausible, times.back()};
}

size_t age_group(const NewestTime &newest, uint64_t time)
{
    const uint64_t age = newest.time - time;
    const auto *group =
        std::ranges::find_if(AGE_GROUPS, [age](const AgeGroup &known) { return age <= known.end; });
    return static_cast<size_t>(group - std::begin(AGE_GROUPS));
}

} // namespace tierctl
