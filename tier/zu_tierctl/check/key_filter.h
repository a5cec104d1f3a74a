#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tierctl {

/* A set of keys, given by their hashes, in memory of a fixed size that does not depend on their
 * number. It never denies a key that it has; a key that it has not it takes for one that it has the
 * more often the fuller it is.
 *
 * A key sets two bits of one word (B. Bloom: Space/Time Trade-offs in Hash Coding with Allowable
 * Errors, 1970; of a single word, so that it costs one access to memory). */
class KeyFilter {
public:
    /* An empty set in so many words of eight bytes, at least 1; throws when there is no memory. */
    explicit KeyFilter(size_t words);

    /* Has the word of a key fetched that is needed soon: memory takes longer to answer than
     * everything else here. */
    void prefetch(uint64_t hash) const { __builtin_prefetch(&words_[place(hash)], 1); }

    bool has(uint64_t hash) const
    {
        const uint64_t bits = bits_of(hash);
        return (words_[place(hash)] & bits) == bits;
    }

    /* Whether it had the key before. */
    bool add(uint64_t hash)
    {
        uint64_t &word = words_[place(hash)];
        const uint64_t bits = bits_of(hash);
        const bool had = (word & bits) == bits;
        word |= bits;
        return had;
    }

private:
    struct Unmap {
        size_t bytes;
        void operator()(uint64_t *words) const;
    };

    /* The lowest bits of the hash: */
    static uint64_t bits_of(uint64_t hash)
    {
        return uint64_t{1} << (hash & 63) | uint64_t{1} << (hash >> 6 & 63);
    }

    /* and the highest. */
    size_t place(uint64_t hash) const
    {
        __extension__ using Product = unsigned __int128;
        return static_cast<size_t>(Product{hash} * count_ >> 64);
    }

    size_t count_;
    std::unique_ptr<uint64_t[], Unmap> words_;
};

} // namespace tierctl
