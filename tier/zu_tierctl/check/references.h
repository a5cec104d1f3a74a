#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tierctl {

/* References to another table: for each of its entries, the first referrer and their number. Takes
 * 16 bytes for every number up to the highest that is referred to: 8 MiB for all that are kept, 24
 * MiB while it grows. */
class References {
public:
    /* Only a super block that breaks the rules lets entries refer to higher numbers. */
    static constexpr size_t NUMBERS_MAX = size_t{1} << 19;

    /* Entry `no` refers to `target`; false when that is too high to keep. */
    bool add(uint64_t target, uint64_t no)
    {
        if (target >= NUMBERS_MAX) {
            return false;
        }
        if (target >= referrers_.size()) {
            referrers_.resize(target + 1);
        }
        Referrers &kept = referrers_[target];
        if (kept.count == 0) {
            kept.first = no;
        }
        kept.count++;
        return true;
    }

    /* Calls `use(target, first, count)` in order of the targets. */
    template <class Use>
    void each(const Use &use) const
    {
        for (size_t target = 0; target < referrers_.size(); target++) {
            if (referrers_[target].count != 0) {
                use(target, referrers_[target].first, referrers_[target].count);
            }
        }
    }

private:
    struct Referrers {
        uint64_t first = 0;
        uint64_t count = 0;
    };

    std::vector<Referrers> referrers_;
};

} // namespace tierctl
