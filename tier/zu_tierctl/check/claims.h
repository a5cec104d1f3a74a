#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace tierctl {

/* An identity of 16 bytes, and a text of up to 128, as keys. */
using Identity = std::array<uint64_t, 2>;
using Text = std::array<uint64_t, 16>;

/* Finds the keys that more than one number claims, in memory of a fixed size and therefore, if need
 * be, in several rounds, one for each range of keys that fits. A round goes twice over all claims,
 * the second time only if some key was claimed repeatedly:
 *
 *   do {
 *       add(key) for every claim
 *       if (end_pass()) {
 *           first_claim(key, no) for every claim
 *       }
 *   } while (next_round());
 */
template <class Key>
class Claims {
public:
    /* Keys held at a time, 2 or more. */
    explicit Claims(size_t capacity) : capacity_(capacity) { keys_.reserve(capacity); }

    /* The largest that takes at most so many bytes. */
    static constexpr size_t capacity(size_t bytes)
    {
        constexpr size_t REPEATED_SIZE = 2 * sizeof(Key) + sizeof(uint64_t);
        return bytes / (sizeof(Key) + (REPEATED_SIZE + REPEATED_PART - 1) / REPEATED_PART);
    }

    void add(const Key &key)
    {
        if (!in_range(key)) {
            return;
        }
        if (keys_.size() == capacity_) {
            make_room();
            if (!in_range(key)) {
                return;
            }
        }
        keys_.push_back(key);
    }

    /* All claims of the round were added. True when keys of its range were claimed repeatedly. */
    bool end_pass()
    {
        gather();
        keys_.clear();
        first_.assign(repeated_.size(), NOBODY);
        return !repeated_.empty();
    }

    /* The number that claimed the key before `no` did, if it is claimed repeatedly. */
    std::optional<uint64_t> first_claim(const Key &key, uint64_t no)
    {
        if (!in_range(key)) {
            return std::nullopt;
        }
        const auto found = std::ranges::lower_bound(repeated_, key);
        if (found == repeated_.end() || *found != key) {
            return std::nullopt;
        }
        uint64_t &first = first_[static_cast<size_t>(found - repeated_.begin())];
        if (first == NOBODY) {
            first = no;
            return std::nullopt;
        }
        return first;
    }

    /* Goes on to the keys after those of this round. False when there are none. */
    bool next_round()
    {
        if (!last_) {
            return false;
        }
        after_ = std::exchange(last_, std::nullopt);
        repeated_.clear();
        return true;
    }

private:
    static constexpr size_t REPEATED_PART = 16; /* of the keys, these may be repeated */
    static constexpr uint64_t NOBODY = std::numeric_limits<uint64_t>::max();

    bool in_range(const Key &key) const
    {
        return (!after_ || *after_ < key) && (!last_ || !(*last_ < key));
    }

    /* Ends the range at `last`: later keys are left to the next round. */
    void end_range(const Key &last)
    {
        last_ = last;
        std::erase_if(keys_, [&last](const Key &key) { return last < key; });
        std::erase_if(repeated_, [&last](const Key &key) { return last < key; });
    }

    /* Drops half of the range, unless keeping each key only once is enough. */
    void make_room()
    {
        gather();
        if (keys_.size() > capacity_ / 2) {
            end_range(keys_[capacity_ / 2 - 1]);
        }
    }

    /* Sorts the keys and keeps each once; those that were repeated are remembered. The range ends
     * where there are too many of these. */
    void gather()
    {
        std::ranges::sort(keys_);
        const size_t repeated_max = std::max<size_t>(1, capacity_ / REPEATED_PART);
        const size_t repeated_full = repeated_.size() + repeated_max;
        size_t kept = 0;
        for (size_t i = 0; i < keys_.size() && repeated_.size() < repeated_full; i++) {
            if (kept == 0 || keys_[kept - 1] != keys_[i]) {
                keys_[kept++] = keys_[i];
            } else if (repeated_.empty() || repeated_.back() != keys_[i]) {
                repeated_.push_back(keys_[i]);
            }
        }
        keys_.resize(kept);
        if (repeated_.size() == repeated_full) {
            end_range(repeated_.back());
        }
        std::ranges::sort(repeated_);
        repeated_.erase(std::unique(repeated_.begin(), repeated_.end()), repeated_.end());
        if (repeated_.size() > repeated_max) {
            end_range(repeated_[repeated_max - 1]);
        }
    }

    size_t capacity_;
    std::vector<Key> keys_;       /* of the range, claimed at least once */
    std::vector<Key> repeated_;   /* of the range, claimed repeatedly; sorted */
    std::vector<uint64_t> first_; /* who claimed each of these first */
    std::optional<Key> after_;    /* the range begins after this key, */
    std::optional<Key> last_;     /* and ends with this one */
};

} // namespace tierctl
