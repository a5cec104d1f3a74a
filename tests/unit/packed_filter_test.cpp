// The filter of packed entries as a mask and bits, against the rule in words.

#include "zu_tier/layout/v3/packed.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

namespace {

struct FilterRow {
    const char *name;
    // Lowest bit and width of the number of an entry's owner, and the bit that marks it in use.
    unsigned owner_at;
    unsigned owner_width;
    unsigned in_use_at;

    std::uint64_t largest_owner() const { return (std::uint64_t{1} << owner_width) - 1; }
    bool in_use(std::uint64_t word) const { return (word >> in_use_at & 1) != 0; }
    std::uint64_t owner(std::uint64_t word) const { return word >> owner_at & largest_owner(); }

    tier_packed_table_v3 table() const
    {
        return {.entries = "entries",
                .number = "no",
                .item = "entry",
                .first_word = 0,
                .magic = std::nullopt,
                .in_use = {"in_use", in_use_at, 1},
                .owner = {"owner", owner_at, owner_width}};
    }
};

std::ostream &operator<<(std::ostream &out, const FilterRow &row) { return out << row.name; }

class PackedFilter : public testing::TestWithParam<FilterRow> {
protected:
    const FilterRow row = GetParam();

    // Words in use and free, of every kind of owner, with nothing and with everything around.
    std::vector<std::uint64_t> words() const
    {
        const std::uint64_t fields = row.largest_owner() << row.owner_at | std::uint64_t{1}
                                                                               << row.in_use_at;
        std::vector<std::uint64_t> result;
        for (const std::uint64_t around : {std::uint64_t{0}, ~fields, ~fields / 3 & ~fields})
            for (const std::uint64_t in_use : {0U, 1U})
                for (const std::uint64_t owner :
                     {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{2}, row.largest_owner() - 1,
                      row.largest_owner()})
                    result.push_back(around | in_use << row.in_use_at | owner << row.owner_at);
        return result;
    }

    bool passes(const zutr_filter_t &filter, std::uint64_t word) const
    {
        if (filter.error == 1)
            return false;
        const bool use_fits = filter.use < 0 || filter.use == static_cast<int>(row.in_use(word));
        const bool owner_fits =
            filter.owner < 0 ||
            (row.in_use(word) && row.owner(word) == static_cast<std::uint64_t>(filter.owner));
        return use_fits && owner_fits;
    }
};

INSTANTIATE_TEST_SUITE_P(, PackedFilter,
                         testing::Values(FilterRow{"shards", 0, 18, 18},
                                         FilterRow{"extents", 20, 19, 56},
                                         FilterRow{"at_the_end", 31, 32, 63},
                                         FilterRow{"narrow", 1, 1, 0}),
                         [](const auto &it) { return std::string(it.param.name); });

TEST_P(PackedFilter, PassesWhatTheRulePasses)
{
    const tier_packed_table_v3 table = row.table();
    const std::int64_t largest = static_cast<std::int64_t>(row.largest_owner());
    constexpr std::int64_t LAST_OWNER = std::numeric_limits<std::int32_t>::max();
    for (const std::int32_t use : {-5, -1, 0, 1, 2, 7}) {
        for (const std::int64_t owner : {std::int64_t{-1}, std::int64_t{0}, std::int64_t{1},
                                         largest, largest + 1, LAST_OWNER}) {
            if (owner > LAST_OWNER)
                continue;
            for (const std::int32_t error : {-1, 0, 1, 2}) {
                const zutr_filter_t filter{.use = use,
                                           .owner = static_cast<std::int32_t>(owner),
                                           .error = error,
                                           .id = nullptr};
                const tier_packed_filter made = tier_make_packed_filter(table, filter);
                for (const std::uint64_t word : words())
                    EXPECT_EQ(made.passes(word), passes(filter, word))
                        << "use=" << use << ",owner=" << owner << ",error=" << error << std::hex
                        << ", word 0x" << word;
            }
        }
    }
}

TEST_P(PackedFilter, TheWordsPassAndFail)
{
    // The rule is put to the test by both kinds.
    const auto passing = [&](const zutr_filter_t &filter) {
        return std::ranges::count_if(words(),
                                     [&](std::uint64_t word) { return passes(filter, word); });
    };
    EXPECT_EQ(passing({.use = -1, .owner = -1, .error = -1, .id = nullptr}), std::ssize(words()));
    EXPECT_EQ(passing({.use = 1, .owner = -1, .error = -1, .id = nullptr}),
              std::ssize(words()) / 2);
    EXPECT_GT(passing({.use = 1, .owner = 1, .error = -1, .id = nullptr}), 0);
    EXPECT_EQ(passing({.use = 0, .owner = 1, .error = -1, .id = nullptr}), 0);
}

} // namespace
