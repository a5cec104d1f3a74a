#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tierctl {

enum class State : uint8_t {
    in_use,
    free,
    damaged,
    unreadable,
    missing, /* there is no entry of that number */
    head,    /* the number is that of a block's head, which is no entry */
    closed,  /* no entry may refer to it */
};

/* The states of a table's entries, for the entries that refer to them. */
class States {
public:
    /* More than any layout has: only a super block that breaks the rules counts more, and those
     * entries are taken as unreadable. */
    static constexpr size_t ENTRIES_MAX = size_t{1} << 24;

    /* The same for the numbers of entries, of eight bytes each; those after it are not noted. */
    static constexpr size_t NUMBERS_MAX = size_t{1} << 19;

    /* A table of so many entries, all unreadable so far. */
    explicit States(uint64_t count = 0) : count_(count) {}

    /* Memory is taken only up to the last number that is set. */
    void set(uint64_t no, State state)
    {
        if (no >= ENTRIES_MAX) {
            return;
        }
        if (no >= known_.size()) {
            known_.resize(no + 1, State::unreadable);
        }
        known_[no] = state;
    }

    /* Sets all from `no` on. */
    void set_from(uint64_t no, State state)
    {
        known_.resize(std::min<uint64_t>(count_, ENTRIES_MAX), State::unreadable);
        for (size_t i = no; i < known_.size(); i++) {
            known_[i] = state;
        }
    }

    /* Notes the number that an entry has for those that refer to it. */
    void set_number(uint64_t no, uint64_t number)
    {
        if (no >= NUMBERS_MAX) {
            return;
        }
        if (no >= numbers_.size()) {
            numbers_.resize(no + 1);
        }
        numbers_[no] = number;
    }

    /* That of an entry in use, if it was noted. */
    std::optional<uint64_t> number(uint64_t no) const
    {
        return no < numbers_.size() ? std::optional(numbers_[no]) : std::nullopt;
    }

    State get(uint64_t no) const
    {
        if (no < known_.size()) {
            return known_[no];
        }
        return no < count_ ? State::unreadable : State::missing;
    }

private:
    uint64_t count_;
    std::vector<State> known_;
    std::vector<uint64_t> numbers_;
};

} // namespace tierctl
