// The geometry check of a new V2 super block where it differs from that of the other layouts.

#include "super_check.h"

using namespace tier_test;

namespace {

// An extent entry of these sizes, without a hot area where none is given.
auto extents(std::uint32_t extent_size, std::uint32_t map_cnt, std::uint32_t hot_size = 0)
{
    return [=](SuperV2 &sb) {
        sb.extent_size = extent_size;
        sb.hot_size = hot_size;
        set_maps(sb, map_cnt);
    };
}

auto maps(std::uint32_t map_cnt, std::uint32_t size_mapped_meta, std::uint32_t total_map_size)
{
    return [=](SuperV2 &sb) {
        sb.map_cnt = map_cnt;
        sb.size_mapped_meta = size_mapped_meta;
        sb.total_map_size = total_map_size;
    };
}

const std::vector<Change<SuperV2>> PASSING_V2{
    {"smallest extent", extents(56, 32, 64)},
    {"extent off the word boundary", extents(61, 32, 64)},
    {"extent and its parts of a page", extents(3520, 32, 64)},
    {"extent of a page without parts", extents(4096, 0)},
    {"hot area that fills the page", extents(72, 32, 3512)},
    {"hot area that wraps the sum", extents(72, 32, 0xFFFFFFFF)},
    {"no hot area", extents(72, 32)},
    {"no records", extents(72, 0, 64)},
    {"most records", extents(72, 64, 64)},
    {"no minimum", [](SuperV2 &sb) { sb.min_alloc_size = 0; }},
    {"minimum of one byte", [](SuperV2 &sb) { sb.min_alloc_size = 1; }},
    {"minimum of a block", [](SuperV2 &sb) { sb.min_alloc_size = sb.block_size; }},
    {"records of no size", maps(64, 0, 0)},
    {"large records", maps(3, 1000, 3000)},
    {"no records of a large size", maps(0, 0xFFFFFFFF, 0)},
};

const std::vector<Change<SuperV2>> FAILING_V2{
    {"extent below the smallest", extents(55, 32, 64)},
    {"no extent size", extents(0, 32, 64)},
    {"extent above the largest", extents(4097, 0)},
    {"extent above the largest in a sum that wraps", extents(4097, 0, 0xFFFFFFFF)},
    {"extent that fits a page without its parts", extents(4096, 32, 64)},
    {"extent that makes a page and a byte", extents(3521, 32, 64)},
    {"hot area that makes a page and a byte", extents(72, 32, 3513)},
    {"records that make a page and more", maps(64, 64, 4096)},
    {"minimum above the block", [](SuperV2 &sb) { sb.min_alloc_size = sb.block_size + 1; }},
    {"largest minimum", [](SuperV2 &sb) { sb.min_alloc_size = 0xFFFFFFFF; }},
    {"65 records", extents(72, 65, 64)},
    {"65 records of no size", maps(65, 0, 0)},
    {"most records of no size", maps(0xFFFFFFFF, 0, 0)},
    {"records a byte short", maps(32, 16, 511)},
    {"records a byte long", maps(32, 16, 513)},
    {"room without records", maps(0, 16, 16)},
    {"product right in its low half", maps(64, 0x4000000, 0)},
};

using SuperV2Check = SuperCheck<SuperV2>;

TEST_F(SuperV2Check, MapAndExtentSizesWithinTheBoundsPass) { expect_passing(PASSING_V2); }

TEST_F(SuperV2Check, MapAndExtentSizesBeyondTheBoundsFailWithTheirMessage)
{
    expect_failing(FAILING_V2);
    expect_forced(FAILING_V2);
}

TEST_F(SuperV2Check, FirstFailureInOrderIsTheOneReported)
{
    SuperV2 sb;
    spoil(sb);
    sb.extent_size = 1;
    sb.min_alloc_size = 0xFFFFFFFF;
    sb.map_cnt = 65;
    derive(sb);
    expect_order(
        sb, {[](SuperV2 &it) { it.size = 1048576; },
             [](SuperV2 &it) {
                 it.brick_cnt = 1;
                 it.brick_table_size = 4096;
             },
             [](SuperV2 &it) {
                 it.inode_cnt = 1;
                 it.inode_table_size = 1040384;
             },
             [](SuperV2 &it) { it.block_size = 1048576; }, [](SuperV2 &it) { it.extent_size = 72; },
             [](SuperV2 &it) { it.extent_table_size = 0; },
             [](SuperV2 &it) { it.min_alloc_size = 32768; }, [](SuperV2 &it) { it.map_cnt = 32; },
             [](SuperV2 &it) { it.data_offset = 0x400000; },
             [](SuperV2 &it) { it.ssd_uuid.resize(38, 'x'); }});
}

} // namespace
