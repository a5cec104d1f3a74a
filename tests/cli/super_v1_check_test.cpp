// The geometry check of a new V1 super block, at both sides of each bound.

#include "super_check.h"

using namespace tier_test;

namespace {

std::string extent_message_v1(const SuperV1 &sb)
{
    return text("extent size(%u) is invalid. expect size:[56-4096]", sb.extent_size);
}

const std::vector<Passing<SuperV1>> PASSING_V1{
    {"smallest extent", [](SuperV1 &sb) { sb.extent_size = 56; }},
    {"extent off the word boundary", [](SuperV1 &sb) { sb.extent_size = 61; }},
    {"largest extent", [](SuperV1 &sb) { sb.extent_size = 4096; }},
};

const std::vector<Failing<SuperV1>> FAILING_V1{
    {"extent below the smallest", [](SuperV1 &sb) { sb.extent_size = 55; }, extent_message_v1},
    {"extent above the largest", [](SuperV1 &sb) { sb.extent_size = 4097; }, extent_message_v1},
    {"no extent size", [](SuperV1 &sb) { sb.extent_size = 0; }, extent_message_v1},
};

using SuperV1Check = SuperCheck<SuperV1>;

TEST_F(SuperV1Check, ExtentSizesWithinTheBoundsPass)
{
    expect_passing(PASSING_V1);
}

TEST_F(SuperV1Check, ExtentSizesBeyondTheBoundsFailWithTheirMessage)
{
    expect_failing(FAILING_V1);
    expect_forced(FAILING_V1);
}

TEST_F(SuperV1Check, FirstFailureInOrderIsTheOneReported)
{
    SuperV1 sb;
    spoil(sb);
    sb.extent_size = 1;
    expect_order(sb, {of_head(SIZE_STEP),
                      of_head(BRICK_STEP),
                      of_head(INODE_STEP),
                      of_head(BLOCK_STEP),
                      {extent_message_v1, [](SuperV1 &it) { it.extent_size = 72; }},
                      of_head(EXTENT_TABLE_STEP),
                      of_head(DATA_OFFSET_STEP),
                      of_head(SSD_UUID_STEP)});
}

} // namespace
