// The geometry check of a new V1 super block, at both sides of each bound.

#include "super_check.h"

using namespace tier_test;

namespace {

const std::vector<Change<SuperV1>> PASSING_V1{
    {"smallest extent", [](SuperV1 &sb) { sb.extent_size = 56; }},
    {"extent off the word boundary", [](SuperV1 &sb) { sb.extent_size = 61; }},
    {"largest extent", [](SuperV1 &sb) { sb.extent_size = 4096; }},
};

const std::vector<Change<SuperV1>> FAILING_V1{
    {"extent below the smallest", [](SuperV1 &sb) { sb.extent_size = 55; }},
    {"extent above the largest", [](SuperV1 &sb) { sb.extent_size = 4097; }},
    {"no extent size", [](SuperV1 &sb) { sb.extent_size = 0; }},
};

using SuperV1Check = SuperCheck<SuperV1>;

TEST_F(SuperV1Check, ExtentSizesWithinTheBoundsPass) { expect_passing(PASSING_V1); }

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
    expect_order(sb, {[](SuperV1 &it) { it.size = 1048576; },
                      [](SuperV1 &it) {
                          it.brick_cnt = 1;
                          it.brick_table_size = 4096;
                      },
                      [](SuperV1 &it) {
                          it.inode_cnt = 1;
                          it.inode_table_size = 1040384;
                      },
                      [](SuperV1 &it) { it.block_size = 1048576; },
                      [](SuperV1 &it) { it.extent_size = 72; },
                      [](SuperV1 &it) { it.extent_table_size = 0; },
                      [](SuperV1 &it) { it.data_offset = 0x400000; },
                      [](SuperV1 &it) { it.ssd_uuid.resize(38, 'x'); }});
}

} // namespace
