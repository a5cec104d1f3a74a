#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

namespace tierctl {

/* Keys that more than one number may claim, and who claimed each first. They are those of a range,
 * which ends earlier when there are too many; the next range begins there. */
template <class Key>
class RepeatedKeys {
public:
    bool in_range(const Key &key) const
    {
        return (!after_ || *after_ < key) && (!last_ || !(*last_ < key));
    }

    /* Ends the range at `last`. */
    void end_range(const Key &last)
    {
        last_ = last;
        std::erase_if(keys_, [&last](const Key &key) { return last < key; });
    }

    /* Makes room for so many. */
    void reserve(size_t keys) { keys_.reserve(keys); }

    /* Adds a key of the range. */
    void add(const Key &key) { keys_.push_back(key); }

    /* Sorts them and keeps each once. If more than `most` are left, the range ends with the last of
     * so many. */
    void sort(size_t most)
    {
        std::ranges::sort(keys_);
        keys_.erase(std::unique(keys_.begin(), keys_.end()), keys_.end());
        if (keys_.size() > most) {
            end_range(keys_[most - 1]);
        }
    }

    /* In their order after sort(). */
    const std::vector<Key> &keys() const { return keys_; }

    /* Must be called before the first of first_claim(), after sort(). */
    void begin_claims() { first_.assign(keys_.size(), NOBODY); }

    /* The number that claimed the key before `no` did, if it is one of these. */
    std::optional<uint64_t> first_claim(const Key &key, uint64_t no)
    {
        const auto found = std::ranges::lower_bound(keys_, key);
        if (found == keys_.end() || *found != key) {
            return std::nullopt;
        }
        uint64_t &first = first_[static_cast<size_t>(found - keys_.begin())];
        if (first == NOBODY) {
            first = no;
            return std::nullopt;
        }
        return first;
    }

    /* Goes on to the keys after the range. False when there are none. */
    bool next_range()
    {
        if (!last_) {
            return false;
        }
        after_ = std::exchange(last_, std::nullopt);
        keys_.clear();
        return true;
    }

private:
    static constexpr uint64_t NOBODY = std::numeric_limits<uint64_t>::max();

    std::vector<Key> keys_;
    std::vector<uint64_t> first_; /* who claimed each of these first */
    std::optional<Key> after_;    /* the range begins after this key, */
    std::optional<Key> last_;     /* and ends with this one */
};

} // namespace tierctl
