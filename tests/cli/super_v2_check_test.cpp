// The geometry check of a new V2 super block where it differs from that of the other layouts.

#include "super_check.h"

using namespace tier_test;

namespace {

std::string extent_message_v2(const SuperV2 &sb)
{
    return text("extent size(%u) is invalid. totoal extent_size:%u, expect size:[56-4096]",
                sb.extent_size, sb.total_extent_size);
}

std::string min_alloc_message(const SuperV2 &sb)
{
    return text("min_alloc_size(%u) is invalid. block_size:%u", sb.min_alloc_size, sb.block_size);
}

std::string map_message(const SuperV2 &sb)
{
    return text("map params is invalid. map_cnt:%u, map_size:%u, total_map_size:%u", sb.map_cnt,
                sb.size_mapped_meta, sb.total_map_size);
}

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

const std::vector<Passing<SuperV2>> PASSING_V2{
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

const std::vector<Failing<SuperV2>> FAILING_V2{
    {"extent below the smallest", extents(55, 32, 64), extent_message_v2},
    {"no extent size", extents(0, 32, 64), extent_message_v2},
    {"extent above the largest", extents(4097, 0), extent_message_v2},
    {"extent above the largest in a sum that wraps", extents(4097, 0, 0xFFFFFFFF),
     extent_message_v2},
    {"extent that fits a page without its parts", extents(4096, 32, 64), extent_message_v2},
    {"extent that makes a page and a byte", extents(3521, 32, 64), extent_message_v2},
    {"hot area that makes a page and a byte", extents(72, 32, 3513), extent_message_v2},
    {"records that make a page and more", maps(64, 64, 4096), extent_message_v2},
    {"minimum above the block", [](SuperV2 &sb) { sb.min_alloc_size = sb.block_size + 1; },
     min_alloc_message},
    {"largest minimum", [](SuperV2 &sb) { sb.min_alloc_size = 0xFFFFFFFF; }, min_alloc_message},
    {"65 records", extents(72, 65, 64), map_message},
    {"65 records of no size", maps(65, 0, 0), map_message},
    {"most records of no size", maps(0xFFFFFFFF, 0, 0), map_message},
    {"records a byte short", maps(32, 16, 511), map_message},
    {"records a byte long", maps(32, 16, 513), map_message},
    {"room without records", maps(0, 16, 16), map_message},
    {"product right in its low half", maps(64, 0x4000000, 0), map_message},
};

using SuperV2Check = SuperCheck<SuperV2>;

TEST_F(SuperV2Check, MapAndExtentSizesWithinTheBoundsPass)
{
    expect_passing(PASSING_V2);
}

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
    expect_order(sb, {of_head(SIZE_STEP),
                      of_head(BRICK_STEP),
                      of_head(INODE_STEP),
                      of_head(BLOCK_STEP),
                      {extent_message_v2, [](SuperV2 &it) { it.extent_size = 72; }},
                      of_head(EXTENT_TABLE_STEP),
                      {min_alloc_message, [](SuperV2 &it) { it.min_alloc_size = 32768; }},
                      {map_message, [](SuperV2 &it) { it.map_cnt = 32; }},
                      of_head(DATA_OFFSET_STEP),
                      of_head(SSD_UUID_STEP)});
}

} // namespace
