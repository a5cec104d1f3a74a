// The bounds of a super block whose geometry follows from its counts, at both sides.

#include "super_check.h"
#include "super_values.h"

using namespace tier_test;

namespace {

TYPED_TEST_SUITE(SuperCheck, HeadSupers, SuperNames);

TYPED_TEST(SuperCheck, GeometryOfTheSmallestDevice)
{
    const auto sb = Layout<TypeParam>::super(1, 1, 0);
    ASSERT_EQ(sb.inode_table_size, 1040384U);
    ASSERT_EQ(sb.data_offset, 0x400000U);
    this->expect_accepted(repair_file(sb).text(), sb);
}

TYPED_TEST(SuperCheck, ValuesWithinTheBoundsPass) { this->expect_passing(PASSING_HEADS); }

TYPED_TEST(SuperCheck, ValuesBeyondTheBoundsFailWithTheirMessage)
{
    this->expect_failing(FAILING_HEADS);
}

TYPED_TEST(SuperCheck, ForceAcceptsAnyGeometry)
{
    this->expect_forced(FAILING_HEADS);
    TypeParam nonsense;
    nonsense.size = nonsense.block_size = nonsense.extent_size = 0;
    derive(nonsense);
    this->expect_accepted(repair_file(nonsense).text(), nonsense, {"--force"});
}

} // namespace
