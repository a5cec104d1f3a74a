#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tierctl {

/* Who names the entries of another table, each of them by number: the first that does, and how many
 * do. Takes 16 bytes for every number up to the highest that is named: 8 MiB for all that are kept,
 * 24 MiB while it grows. */
class References {
public:
    /* No layout lets entries name higher numbers than those below, only a super block that breaks
     * the rules does. */
    static constexpr size_t NUMBERS_MAX = size_t{1} << 19;

    /* `no` names `named`; false when that is too high to be kept. */
    bool add(uint64_t named, uint64_t no)
    {
        if (named >= NUMBERS_MAX) {
            return false;
        }
        if (named >= namings_.size()) {
            namings_.resize(named + 1);
        }
        naming &kept = namings_[named];
        if (kept.count == 0) {
            kept.first = no;
        }
        kept.count++;
        return true;
    }

    /* Calls `use(named, first, count)` in order of what is named. */
    template <class Use>
    void each(const Use &use) const
    {
        for (size_t named = 0; named < namings_.size(); named++) {
            if (namings_[named].count != 0) {
                use(named, namings_[named].first, namings_[named].count);
            }
        }
    }

private:
    struct naming {
        uint64_t first = 0;
        uint64_t count = 0;
    };

    std::vector<naming> namings_;
};

} // namespace tierctl
