// Sums of counts that a damaged super block may make larger than any number.

#include "zu_tierctl/device/sum.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t LARGEST = 0xFFFFFFFFFFFFFFFF;

TEST(AddLimited, IsTheSumWhereANumberHoldsIt)
{
    EXPECT_EQ(tierctl::add_limited(0, 0), 0U);
    EXPECT_EQ(tierctl::add_limited(1, 2), 3U);
    EXPECT_EQ(tierctl::add_limited(LARGEST, 0), LARGEST);
    EXPECT_EQ(tierctl::add_limited(0, LARGEST), LARGEST);
    EXPECT_EQ(tierctl::add_limited(LARGEST - 2, 1), LARGEST - 1);
    EXPECT_EQ(tierctl::add_limited(LARGEST - 1, 1), LARGEST);
}

TEST(AddLimited, StopsAtTheLargestNumber)
{
    EXPECT_EQ(tierctl::add_limited(LARGEST, 1), LARGEST);
    EXPECT_EQ(tierctl::add_limited(1, LARGEST), LARGEST);
    EXPECT_EQ(tierctl::add_limited(std::uint64_t{1} << 63, std::uint64_t{1} << 63), LARGEST);
    EXPECT_EQ(tierctl::add_limited(LARGEST, LARGEST), LARGEST);
}

} // namespace
