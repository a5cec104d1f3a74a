#pragma once

#include "zu_tierctl/check/key.h"
#include "zu_tierctl/check/repeated_keys.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tierctl {

/* Finds the keys that more than one number claims, where there is memory for all of them. Usually
 * in a single round; when too many are claimed repeatedly, in several, one for each range of keys.
 * A round goes twice over all claims, the second time only if some key was claimed repeatedly:
 *
 *   do {
 *       add(keys) for all claims
 *       if (end_pass()) {
 *           for_suspects(keys, ...) for all claims, and of these
 *               first_claim(key, no) for every one
 *       }
 *   } while (next_round());
 */
template <class Key>
class Claims {
public:
    /* For at most so many claims. */
    explicit Claims(size_t capacity) : repeated_max_(std::max<size_t>(1, capacity / REPEATED_PART))
    {
        keys_.reserve(capacity);
    }

    /* The largest that takes at most so many bytes. */
    static constexpr size_t capacity(size_t bytes)
    {
        constexpr size_t REPEATED_SIZE = 2 * sizeof(Key) + sizeof(uint64_t);
        return bytes / (sizeof(Key) + (REPEATED_SIZE + REPEATED_PART - 1) / REPEATED_PART);
    }

    void add(std::span<const Key> keys)
    {
        for (const Key &key : keys) {
            if (repeated_.in_range(key)) {
                keys_.push_back(key);
            }
        }
    }

    /* All claims were added. True when keys of the round's range were claimed repeatedly. */
    bool end_pass()
    {
        std::ranges::sort(keys_);
        const std::vector<Key> &found = repeated_.keys();
        for (size_t i = 1; i < keys_.size() && found.size() < repeated_max_; i++) {
            if (keys_[i] == keys_[i - 1] && (found.empty() || found.back() != keys_[i])) {
                repeated_.add(keys_[i]);
            }
        }
        if (found.size() == repeated_max_) {
            const Key last = found.back();
            repeated_.end_range(last);
        }
        keys_.clear();
        repeated_.begin_claims();
        return !found.empty();
    }

    /* Calls `use` with the place of every key that may be claimed repeatedly. */
    template <class Use>
    void for_suspects(std::span<const Key> keys, const Use &use) const
    {
        for (size_t i = 0; i < keys.size(); i++) {
            use(i);
        }
    }

    /* The number that claimed the key before `no` did, if it is claimed repeatedly. */
    std::optional<uint64_t> first_claim(const Key &key, uint64_t no)
    {
        return repeated_.first_claim(key, no);
    }

    /* Goes on to the keys after those of this round. False when there are none. */
    bool next_round() { return repeated_.next_range(); }

private:
    static constexpr size_t REPEATED_PART = 16; /* of the keys, these may be repeated */

    size_t repeated_max_;
    std::vector<Key> keys_; /* of the range */
    RepeatedKeys<Key> repeated_;
};

} // namespace tierctl
