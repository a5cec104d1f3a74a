// Repeated claims, found in memory that holds only a few of the claims at a time.

#include "zu_tierctl/check/claims.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <vector>

using namespace tierctl;

namespace {

using Found = std::map<std::uint64_t, std::uint64_t>; // the number, and who claimed first

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

template <class Key>
Found by_claims(const std::vector<Key> &keys, std::size_t capacity, std::size_t *rounds)
{
    Claims<Key> claims(capacity);
    Found found;
    *rounds = 0;
    do {
        ++*rounds;
        for (const Key &key : keys)
            claims.add(key);
        if (claims.end_pass()) {
            for (std::uint64_t no = 0; no < keys.size(); ++no) {
                const auto first = claims.first_claim(keys[no], no);
                if (first) {
                    EXPECT_TRUE(found.emplace(no, *first).second) << no;
                }
            }
        }
    } while (claims.next_round());
    return found;
}

// Keys below `bound`; all equal when it is 1.
std::vector<std::uint64_t> random_keys(std::size_t count, std::uint64_t bound)
{
    std::mt19937_64 random(count + bound);
    std::vector<std::uint64_t> keys(count);
    for (std::uint64_t &key : keys)
        key = random() % bound;
    return keys;
}

constexpr std::uint64_t BOUNDS[] = {1, 2, 30, 1000, 100'000, ~std::uint64_t{0}};

TEST(Claims, FoundAsByAMap)
{
    for (const std::uint64_t bound : BOUNDS) {
        const std::vector<std::uint64_t> keys = random_keys(2000, bound);
        for (const std::size_t capacity : {2, 3, 16, 17, 100, 1000, 2000, 5000}) {
            SCOPED_TRACE(testing::Message() << bound << ", " << capacity);
            std::size_t rounds = 0;
            EXPECT_EQ(by_claims(keys, capacity, &rounds), by_map(keys));
            const std::size_t distinct = std::set(keys.begin(), keys.end()).size();
            EXPECT_LE(rounds, 2 + 16 * distinct / capacity + distinct / 2);
        }
    }
}

TEST(Claims, OneRoundWhenAllFit)
{
    const std::vector<std::uint64_t> keys = random_keys(1000, ~std::uint64_t{0});
    std::size_t rounds = 0;
    by_claims(keys, keys.size(), &rounds);
    EXPECT_EQ(rounds, 1U);
    by_claims(keys, keys.size() / 4, &rounds);
    EXPECT_GE(rounds, 4U);
    EXPECT_LE(rounds, 9U); // at least half of the room is used
}

TEST(Claims, Ends)
{
    const std::vector<std::uint64_t> keys{~std::uint64_t{0}, 0, 5, ~std::uint64_t{0}, 0, 5, 5};
    std::size_t rounds = 0;
    for (const std::size_t capacity : {2, 3, 4, 100})
        EXPECT_EQ(by_claims(keys, capacity, &rounds), by_map(keys)) << capacity;
    EXPECT_TRUE(by_claims(std::vector<std::uint64_t>{}, 2, &rounds).empty());
}

TEST(Claims, Identities)
{
    std::mt19937_64 random(7);
    std::vector<Identity> keys(1000);
    for (Identity &key : keys)
        key = {random() % 20, random() % 20};
    std::size_t rounds = 0;
    EXPECT_EQ(by_claims(keys, 64, &rounds), by_map(keys));
    EXPECT_GT(rounds, 1U);
}

// Texts, compared byte by byte.
TEST(Claims, OfTexts)
{
    std::vector<Text> keys;
    for (const std::uint64_t number : random_keys(300, 100)) {
        Text text{};
        text.back() = static_cast<Text::value_type>(number);
        keys.push_back(text);
    }
    for (const std::size_t capacity : {2, 16, 100, 5000}) {
        std::size_t rounds = 0;
        EXPECT_EQ(by_claims(keys, capacity, &rounds), by_map(keys)) << capacity;
        EXPECT_EQ(rounds == 1, capacity == 5000);
    }
}

TEST(Claims, CapacityKeepsWithinMemory)
{
    for (const std::size_t bytes : {1000, 1'000'000, 400 << 20}) {
        const std::size_t capacity = Claims<std::uint64_t>::capacity(bytes);
        EXPECT_LE(capacity * 8 + capacity / 16 * 24, bytes);
        EXPECT_GE(capacity * 8, bytes / 2);
    }
}

} // namespace
