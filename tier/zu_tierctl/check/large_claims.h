#pragma once

#include "zu_tierctl/check/key.h"
#include "zu_tierctl/check/key_filter.h"
#include "zu_tierctl/check/repeated_keys.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tierctl {

/* Does what Claims does, and is called in the same way, where there is no memory for all keys. What
 * is found is exact: filters only leave out what cannot be claimed repeatedly.
 *
 * The first round finds nothing yet. It adds all keys to a filter; those that this filter seems to
 * have already, among them each that is claimed repeatedly, make up a second filter, the doubtful
 * ones. The next round adds the doubtful keys alone to an empty filter, with a hash of its own.
 * Those that this one seems to have are few: the suspects, for which the claims are counted. If
 * they do not fit, the round is one of several, each for a range of keys.
 */
template <class Key>
class LargeClaims {
public:
    /* Passes over the claims, unless several rounds are needed for the suspects. */
    static constexpr unsigned PASSES = 3;

    /* The hashes. Keys that are chosen against them cost time, and nothing else. */
    static constexpr uint64_t SEEN = 0x9E3779B97F4A7C15;
    static constexpr uint64_t DOUBTFUL = 0xC2B2AE3D27D4EB4F;
    static constexpr uint64_t SEEN_AGAIN = 0x165667B19E3779F9;
    static constexpr uint64_t SUSPECTED = 0x85EBCA77C2B2AE63;

    /* Takes at most so many bytes, and a little more when these are very few. */
    explicit LargeClaims(size_t memory)
        : words_(std::max<size_t>(1, memory / sizeof(uint64_t) / PARTS)),
          suspects_max_(std::max<size_t>(2, memory / PARTS / sizeof(Key))), doubtful_(words_),
          seen_(std::in_place, (PARTS - 1) * words_)
    {
    }

    void add(std::span<const Key> keys)
    {
        while (!keys.empty()) {
            const auto batch = keys.first(std::min(keys.size(), BATCH));
            if (is_first_round_) {
                find_doubtful(batch);
            } else {
                find_suspects(batch);
            }
            keys = keys.subspan(batch.size());
        }
    }

    bool end_pass()
    {
        seen_.reset();
        suspects_.sort(suspects_max_);
        suspects_.begin_claims();
        if (suspects_.keys().empty()) {
            return false;
        }
        suspected_.emplace(suspects_.keys().size());
        for (const Key &key : suspects_.keys()) {
            suspected_->add(key_hash(key, SUSPECTED));
        }
        return true;
    }

    template <class Use>
    void for_suspects(std::span<const Key> keys, const Use &use) const
    {
        Hashes hashes;
        for (size_t first = 0; first < keys.size(); first += BATCH) {
            const auto batch = keys.subspan(first, std::min(keys.size() - first, BATCH));
            begin(*suspected_, SUSPECTED, batch, hashes);
            for (size_t i = 0; i < batch.size(); i++) {
                if (suspected_->has(hashes[i])) {
                    use(first + i);
                }
            }
        }
    }

    std::optional<uint64_t> first_claim(const Key &key, uint64_t no)
    {
        return suspects_.first_claim(key, no);
    }

    bool next_round()
    {
        suspected_.reset();
        const bool goes_on = is_first_round_ ? is_any_doubtful_ : suspects_.next_range();
        is_first_round_ = false;
        if (goes_on) {
            suspects_.reserve(suspects_max_);
            seen_.emplace(PARTS / 2 * words_);
        }
        return goes_on;
    }

private:
    /* The memory: a part for the doubtful keys, and in the first round all others for what was
     * seen; then two for that, and one for the suspects. The second pass of a round needs two for
     * them: a number, and a word of a filter that makes it quick to see that a key is none. */
    static constexpr size_t PARTS = 4;

    /* Keys that memory answers for at the same time. */
    static constexpr size_t BATCH = 512;

    using Hashes = std::array<uint64_t, BATCH>;
    using Places = std::array<uint16_t, BATCH>;

    /* The hashes of keys that the filter is to look up. */
    static void begin(const KeyFilter &filter, uint64_t odd, std::span<const Key> keys,
                      Hashes &hashes)
    {
        for (size_t i = 0; i < keys.size(); i++) {
            hashes[i] = key_hash(keys[i], odd);
            filter.prefetch(hashes[i]);
        }
    }

    void find_doubtful(std::span<const Key> keys)
    {
        Hashes hashes;
        Places places;
        begin(*seen_, SEEN, keys, hashes);
        size_t count = 0;
        for (size_t i = 0; i < keys.size(); i++) {
            places[count] = static_cast<uint16_t>(i);
            count += seen_->add(hashes[i]) ? 1 : 0;
        }
        for (size_t i = 0; i < count; i++) {
            hashes[i] = key_hash(keys[places[i]], DOUBTFUL);
            doubtful_.prefetch(hashes[i]);
        }
        for (size_t i = 0; i < count; i++) {
            doubtful_.add(hashes[i]);
        }
        is_any_doubtful_ = is_any_doubtful_ || count != 0;
    }

    void find_suspects(std::span<const Key> keys)
    {
        Hashes hashes;
        Places places;
        begin(doubtful_, DOUBTFUL, keys, hashes);
        size_t count = 0;
        for (size_t i = 0; i < keys.size(); i++) {
            places[count] = static_cast<uint16_t>(i);
            count += doubtful_.has(hashes[i]) ? 1 : 0;
        }
        for (size_t i = 0; i < count; i++) {
            hashes[i] = key_hash(keys[places[i]], SEEN_AGAIN);
            seen_->prefetch(hashes[i]);
        }
        for (size_t i = 0; i < count; i++) {
            const Key &key = keys[places[i]];
            if (suspects_.in_range(key) && seen_->add(hashes[i])) {
                suspect(key);
            }
        }
    }

    void suspect(const Key &key)
    {
        if (suspects_.keys().size() == suspects_max_) {
            suspects_.sort(suspects_max_ / 2);
        }
        if (suspects_.in_range(key)) {
            suspects_.add(key);
        }
    }

    size_t words_; /* of a part */
    size_t suspects_max_;
    bool is_first_round_ = true;
    bool is_any_doubtful_ = false;
    KeyFilter doubtful_;
    std::optional<KeyFilter> seen_;
    RepeatedKeys<Key> suspects_;
    std::optional<KeyFilter> suspected_; /* the suspects */
};

} // namespace tierctl
