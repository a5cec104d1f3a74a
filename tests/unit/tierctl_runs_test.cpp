// How findings of a check become runs.

#include "zu_tierctl/check/runs.h"

#include "bytes.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tier_test;
using tierctl::Finding;

namespace {

Finding finding(const std::string &kind, std::uint64_t no, const std::string &text_of_it = "odd",
                const char *table = "inode")
{
    return {.kind = {kind},
            .table = table,
            .unit = "entry",
            .no = no,
            .last = no,
            .offset = static_cast<std::int64_t>(4096 * no),
            .slot = no,
            .last_slot = no,
            .joins = no,
            .joins_end = no + 1,
            .text = text_of_it};
}

class RunsOfFindings : public testing::Test {
protected:
    std::vector<std::string> told; // "a 3..5: 3"
    tierctl::Runs runs{[this](const Finding &run) {
        told.push_back(
            text("%s %lu..%lu: %lu", run.kind.name.c_str(), run.no, run.last, run.count));
    }};
};

TEST_F(RunsOfFindings, AreToldOnceTheCheckHasPassed)
{
    runs.add(finding("a", 5));
    runs.add(finding("a", 6));
    EXPECT_TRUE(told.empty());
    runs.add(finding("b", 7)); // the entry after the last one
    EXPECT_TRUE(told.empty());
    runs.add(finding("b", 8));
    EXPECT_EQ(told, (std::vector<std::string>{"a 5..6: 2"}));
    runs.add(finding("b", 10));
    EXPECT_EQ(told, (std::vector<std::string>{"a 5..6: 2", "b 7..8: 2"}));
    runs.add(finding("b", 11, "odd", "extent"));
    EXPECT_EQ(told.back(), "b 10..10: 1");
    runs.end();
    EXPECT_EQ(told.back(), "b 11..11: 1");
    EXPECT_EQ(told.size(), 4U);
    runs.end();
    EXPECT_EQ(told.size(), 4U);
}

// An entry may break the same rule twice.
TEST_F(RunsOfFindings, SeveralOfAKindInEachEntry)
{
    for (std::uint64_t no = 3; no < 6; ++no) {
        runs.add(finding("a", no, "piece 1 of " + std::to_string(no)));
        runs.add(finding("a", no, "piece 2 of " + std::to_string(no)));
    }
    runs.end();
    EXPECT_EQ(told, (std::vector<std::string>{"a 3..5: 3", "a 3..5: 3"}));
}

TEST_F(RunsOfFindings, OtherWordsAreNotTheSame)
{
    runs.add(finding("a", 3, "it is 1 too many"));
    runs.add(finding("a", 4, "it is 2 too many"));
    runs.add(finding("a", 5, "it is 2 too few"));
    runs.end();
    EXPECT_EQ(told, (std::vector<std::string>{"a 3..4: 2", "a 5..5: 1"}));
}

TEST_F(RunsOfFindings, CountsStopAtTheLargestNumber)
{
    Finding many = finding("a", 1);
    many.count = UINT64_MAX;
    runs.add(many);
    runs.add(finding("a", 2));
    runs.end();
    EXPECT_EQ(told, (std::vector<std::string>{"a 1..2: 18446744073709551615"}));
}

} // namespace
