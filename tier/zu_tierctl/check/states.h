#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

enum class tierctl_state : uint8_t {
    in_use,
    free,
    damaged,
    unreadable,
    missing, /* there is no entry of that number */
    head,    /* the number is that of a block's head, which is no entry */
    closed,  /* no entry may be named here */
};

/* What the entries of a table are, for the entries that name them. */
class tierctl_states {
public:
    /* More than a layout has entries that others can name: only a super block that breaks the
     * rules counts more, and those are taken for unreadable. */
    static constexpr size_t ENTRIES_MAX = size_t{1} << 24;

    /* Of a table of so many entries, all of them unreadable so far. */
    explicit tierctl_states(uint64_t count = 0) : count_(count) {}

    /* Memory is taken only up to the last number that is set. */
    void set(uint64_t no, tierctl_state state)
    {
        if (no >= ENTRIES_MAX) {
            return;
        }
        if (no >= known_.size()) {
            known_.resize(no + 1, tierctl_state::unreadable);
        }
        known_[no] = state;
    }

    /* Sets all from `no` on. */
    void set_from(uint64_t no, tierctl_state state)
    {
        known_.resize(std::min<uint64_t>(count_, ENTRIES_MAX), tierctl_state::unreadable);
        for (size_t i = no; i < known_.size(); i++) {
            known_[i] = state;
        }
    }

    tierctl_state get(uint64_t no) const
    {
        if (no < known_.size()) {
            return known_[no];
        }
        return no < count_ ? tierctl_state::unreadable : tierctl_state::missing;
    }

private:
    uint64_t count_;
    std::vector<tierctl_state> known_;
};
