// Repeated claims, found in memory that holds all of the claims, and in less.

#include "zu_tierctl/check/claims.h"
#include "zu_tierctl/check/large_claims.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <new>
#include <random>
#include <set>
#include <span>
#include <vector>

using namespace tierctl;

namespace {

using Found = std::map<std::uint64_t, std::uint64_t>; // the number, and who claimed first
using Numbers = std::vector<std::uint64_t>;

template <class Key>
Found by_map(const std::vector<Key> &keys)
{
    std::map<Key, std::uint64_t> first;
    Found found;
    for (std::uint64_t no = 0; no < keys.size(); ++no) {
        const auto [at, is_first] = first.emplace(keys[no], no);
        if (!is_first)
            found[no] = at->second;
    }
    return found;
}

// The keys in runs of different lengths, each with the number of its first key.
template <class Key, class Use>
void in_runs(const std::vector<Key> &keys, const Use &use)
{
    const std::span<const Key> all(keys);
    std::size_t length = 1;
    for (std::size_t no = 0; no < keys.size(); no += length) {
        length = std::min(no * 5 % 1101 + 1, keys.size() - no);
        use(no, all.subspan(no, length));
    }
}

struct Search {
    Found found;
    std::size_t rounds = 0;
    std::size_t telling = 0; // rounds with a second pass
};

// Of the claims of every round the first comes before those that repeat it.
template <class AnyClaims, class Key>
Search by_claims(const std::vector<Key> &keys, std::size_t room)
{
    AnyClaims claims(room);
    Search search;
    do {
        ++search.rounds;
        in_runs(keys, [&](std::size_t, std::span<const Key> run) { claims.add(run); });
        if (!claims.end_pass())
            continue;
        ++search.telling;
        in_runs(keys, [&](std::size_t no, std::span<const Key> run) {
            claims.for_suspects(run, [&](std::size_t i) {
                const auto first = claims.first_claim(run[i], no + i);
                if (first) {
                    EXPECT_TRUE(search.found.emplace(no + i, *first).second) << no + i;
                }
            });
        });
    } while (claims.next_round());
    return search;
}

// Keys below `bound`; all equal when it is 1.
Numbers random_keys(std::size_t count, std::uint64_t bound)
{
    std::mt19937_64 random(count + bound);
    Numbers keys(count);
    for (std::uint64_t &key : keys)
        key = random() % bound;
    return keys;
}

Numbers doubled(Numbers keys)
{
    const std::size_t count = keys.size();
    for (std::size_t i = 0; i < count; ++i)
        keys.push_back(keys[count - 1 - i]);
    return keys;
}

template <class Key>
std::size_t distinct(const std::vector<Key> &keys)
{
    return std::set(keys.begin(), keys.end()).size();
}

constexpr std::uint64_t BOUNDS[] = {1, 2, 30, 1000, 100'000, ~std::uint64_t{0}};

TEST(Claims, FoundAsByAMap)
{
    for (const std::uint64_t bound : BOUNDS) {
        for (const std::size_t count : {2, 3, 16, 17, 100, 2000}) {
            const Numbers keys = random_keys(count, bound);
            for (const std::size_t room : {count, 3 * count}) {
                SCOPED_TRACE(testing::Message() << bound << ", " << count << ", " << room);
                const Search search = by_claims<Claims<std::uint64_t>>(keys, room);
                EXPECT_EQ(search.found, by_map(keys));
                EXPECT_LE(search.rounds, 1 + distinct(keys) / std::max<std::size_t>(1, room / 16));
            }
        }
    }
}

TEST(Claims, OneRoundUnlessVeryManyAreRepeated)
{
    const Numbers once = random_keys(1000, ~std::uint64_t{0});
    const Search search = by_claims<Claims<std::uint64_t>>(once, once.size());
    EXPECT_EQ(search.rounds, 1U);
    EXPECT_EQ(search.telling, 0U);
    const Numbers twice = doubled(once);
    // A round has 125 of 1000; whether the last of them is the last at all only the next one tells.
    EXPECT_EQ(by_claims<Claims<std::uint64_t>>(twice, twice.size()).rounds, 9U);
}

TEST(Claims, Ends)
{
    const Numbers keys{~std::uint64_t{0}, 0, 5, ~std::uint64_t{0}, 0, 5, 5};
    EXPECT_EQ(by_claims<Claims<std::uint64_t>>(keys, keys.size()).found, by_map(keys));
    EXPECT_TRUE(by_claims<Claims<std::uint64_t>>(Numbers{}, 0).found.empty());
    for (const std::size_t memory : {1, 64, 1000})
        EXPECT_EQ(by_claims<LargeClaims<std::uint64_t>>(keys, memory).found, by_map(keys));
    EXPECT_TRUE(by_claims<LargeClaims<std::uint64_t>>(Numbers{}, 64).found.empty());
}

std::vector<Identity> random_identities(std::size_t count)
{
    std::mt19937_64 random(7);
    std::vector<Identity> keys(count);
    for (Identity &key : keys)
        key = {random() % 20, random() % 20};
    return keys;
}

// Compared byte by byte.
std::vector<Text> random_texts(std::size_t count)
{
    std::vector<Text> keys;
    for (const std::uint64_t number : random_keys(count, 100)) {
        Text text{};
        text.back() = number;
        keys.push_back(text);
    }
    return keys;
}

TEST(Claims, OfIdentitiesAndTexts)
{
    const std::vector<Identity> identities = random_identities(1000);
    const Search search = by_claims<Claims<Identity>>(identities, identities.size());
    EXPECT_EQ(search.found, by_map(identities));
    EXPECT_GT(search.rounds, 1U);
    const std::vector<Text> texts = random_texts(300);
    EXPECT_EQ(by_claims<Claims<Text>>(texts, texts.size()).found, by_map(texts));
}

TEST(Claims, CapacityKeepsWithinMemory)
{
    for (const std::size_t bytes : {1000, 1'000'000, 400 << 20}) {
        const std::size_t capacity = Claims<std::uint64_t>::capacity(bytes);
        EXPECT_LE(capacity * 8 + capacity / 16 * 24, bytes);
        EXPECT_GE(capacity * 8, bytes / 2);
    }
}

// How many suspects fit, of which a range of keys has at least half.
std::size_t suspects(std::size_t memory, std::size_t key_size)
{
    return std::max<std::size_t>(2, memory / 4 / key_size);
}

template <class Key>
Search check_large(const std::vector<Key> &keys, std::size_t memory)
{
    SCOPED_TRACE(testing::Message() << keys.size() << " in " << memory);
    const Search search = by_claims<LargeClaims<Key>>(keys, memory);
    EXPECT_EQ(search.found, by_map(keys));
    EXPECT_LE(search.rounds, 2 + distinct(keys) / (suspects(memory, sizeof(Key)) / 2));
    return search;
}

TEST(LargeClaims, FoundAsByAMap)
{
    for (const std::uint64_t bound : BOUNDS) {
        SCOPED_TRACE(bound);
        const Numbers keys = random_keys(2000, bound);
        for (const std::size_t memory : {0, 1, 31, 64, 500, 2000, 16'000, 100'000})
            check_large(keys, memory);
    }
}

TEST(LargeClaims, FoundWhereNearlyAllAreRepeated)
{
    Numbers keys = doubled(random_keys(2000, ~std::uint64_t{0}));
    for (const std::size_t memory : {200, 4000, 30'000})
        check_large(keys, memory);
    keys.insert(keys.end(), 5000, keys.front()); // more often than there is memory
    for (const std::size_t memory : {200, 4000, 30'000})
        check_large(keys, memory);
}

// With a byte for each key.
TEST(LargeClaims, ThreePassesUsually)
{
    Numbers keys = random_keys(20'000, ~std::uint64_t{0});
    Search search = check_large(keys, keys.size());
    EXPECT_LE(search.rounds, 2U);
    keys.back() = keys.front();
    search = check_large(keys, keys.size());
    EXPECT_EQ(search.rounds, 2U);
    EXPECT_EQ(search.telling, 1U);
    EXPECT_EQ(search.found, (Found{{keys.size() - 1, 0}}));
}

TEST(LargeClaims, OnePassWhenAllAreSeenOnce)
{
    const Search search = check_large(Numbers{3, 1, 2}, 100'000);
    EXPECT_EQ(search.rounds, 1U);
    EXPECT_EQ(search.telling, 0U);
}

TEST(LargeClaims, OfIdentitiesAndTexts)
{
    for (const std::size_t memory : {1, 1000, 5000}) {
        check_large(random_identities(1000), memory);
        check_large(random_texts(300), memory);
    }
}

// Keys that all have nearly the same hash: they hit the same word of a filter.
TEST(LargeClaims, KeysChosenAgainstAHash)
{
    using Large = LargeClaims<std::uint64_t>;
    for (const std::uint64_t hash :
         {Large::SEEN, Large::DOUBTFUL, Large::SEEN_AGAIN, Large::SUSPECTED}) {
        SCOPED_TRACE(hash);
        Numbers keys;
        for (std::uint64_t key = 0; keys.size() < 1500; ++key) {
            if (key_hash(key, hash) >> 56 == 77)
                keys.push_back(key);
        }
        keys.push_back(keys[700]);
        EXPECT_EQ(check_large(keys, 4000).found, (Found{{1500, 700}}));
    }
}

TEST(KeyFilter, HasWhatItWasGiven)
{
    for (const std::size_t words : {1, 7, 1000}) {
        KeyFilter filter(words);
        EXPECT_FALSE(filter.has(0));
        std::size_t denied = 0;
        for (const std::uint64_t hash : random_keys(2000, ~std::uint64_t{0})) {
            const bool had = filter.has(hash);
            EXPECT_EQ(filter.add(hash), had);
            EXPECT_TRUE(filter.has(hash));
            denied += had ? 0 : 1;
        }
        EXPECT_GE(denied, std::min<std::size_t>(words, 1500));
    }
}

TEST(KeyFilter, NeedsMemory)
{
    constexpr std::size_t MOST = std::numeric_limits<std::size_t>::max();
    EXPECT_THROW(KeyFilter{MOST}, std::bad_alloc);
    EXPECT_THROW(KeyFilter{MOST / sizeof(std::uint64_t)}, std::bad_alloc);
}

} // namespace
