// The check of a new V3 super block's sizes and counts, at both sides of each bound.

#include "super_check.h"

using namespace tier_test;

namespace {

// A value of one field, the others as they belong to the counts before.
auto field(std::uint64_t SuperV3::*member, std::uint64_t value)
{
    return [=](SuperV3 &sb) { sb.*member = value; };
}

// A value of one field, with the sizes and offsets that belong to it.
auto count(std::uint64_t SuperV3::*member, std::uint64_t value)
{
    return [=](SuperV3 &sb) {
        sb.*member = value;
        set_geometry(sb);
    };
}

// A size that differs from the right one.
auto grown(std::uint64_t SuperV3::*member, std::uint64_t by)
{
    return [=](SuperV3 &sb) { sb.*member += by; };
}

auto blocks(std::uint64_t size, std::uint64_t number, std::uint64_t area)
{
    return [=](SuperV3 &sb) {
        sb.block_size = size;
        sb.block_cnt = number;
        sb.data_size = area;
    };
}

// The offsets, the hot table and the reserved area can be anything.
std::vector<Change<SuperV3>> unchecked_fields()
{
    std::vector<Change<SuperV3>> cases;
    for (const auto member :
         {&SuperV3::sb_offset, &SuperV3::reserved_offset, &SuperV3::reserved_size,
          &SuperV3::brick_table_offset, &SuperV3::inode_table_offset, &SuperV3::shard_table_offset,
          &SuperV3::extent_table_offset, &SuperV3::hot_table_offset, &SuperV3::hot_table_size,
          &SuperV3::data_offset})
        for (const std::uint64_t value : {std::uint64_t{0}, std::uint64_t{4097}, ~std::uint64_t{0}})
            cases.push_back({std::to_string(cases.size()), field(member, value)});
    return cases;
}

const std::vector<Change<SuperV3>> PASSING_V3{
    {"as built", [](SuperV3 &) {}},
    {"one brick", count(&SuperV3::brick_cnt, 1)},
    {"300 bricks", count(&SuperV3::brick_cnt, 300)},
    {"brick table a byte long", grown(&SuperV3::brick_table_size, 1)},
    {"brick table larger than any", field(&SuperV3::brick_table_size, ~std::uint64_t{0})},
    {"300 bricks in a larger table",
     [](SuperV3 &sb) {
         sb.brick_cnt = 300;
         sb.brick_table_size = 301 * 4096;
     }},
    {"one inode", count(&SuperV3::inode_cnt, 1)},
    {"262144 inodes", count(&SuperV3::inode_cnt, 262144)},
    {"one shard", count(&SuperV3::shard_cnt, 1)},
    {"shards that do not fill their block", count(&SuperV3::shard_cnt, 513)},
    {"524288 shards", count(&SuperV3::shard_cnt, 524288)},
    {"one extent", count(&SuperV3::extent_cnt, 1)},
    {"1073741824 extents", count(&SuperV3::extent_cnt, 1073741824)},
    {"smallest block", count(&SuperV3::block_size, 8192)},
    {"block of three pages", count(&SuperV3::block_size, 12288)},
    {"largest block", count(&SuperV3::block_size, 65536)},
    {"no blocks", count(&SuperV3::block_cnt, 0)},
    {"more blocks than 32 bits count", count(&SuperV3::block_cnt, BIT_32 + 5)},
    {"area of 64 bits", blocks(8192, BIT_63 / 8192 + 1, BIT_63 + 8192)},
    {"area that wraps", blocks(8192, BIT_63 / 4096 + 1, 8192)},
    {"any 38 characters", [](SuperV3 &sb) { sb.ssd_uuid = std::string(38, '-'); }},
    {"reserved word", [](SuperV3 &sb) { sb.reserved = 0xFFFFFFFF; }},
};

const std::vector<Change<SuperV3>> FAILING_V3{
    {"size below 1 MiB", field(&SuperV3::size, 1048575)},
    {"size above 1 MiB", field(&SuperV3::size, 1048577)},
    {"no size", field(&SuperV3::size, 0)},
    {"size right in its low half", field(&SuperV3::size, BIT_32 + 1048576)},
    {"block of one page", count(&SuperV3::block_size, 4096)},
    {"block a byte below the smallest", count(&SuperV3::block_size, 8191)},
    {"block off the page", count(&SuperV3::block_size, 12289)},
    {"block of sectors", count(&SuperV3::block_size, 8704)},
    {"block of half pages", count(&SuperV3::block_size, 14336)},
    {"block a byte above the largest", count(&SuperV3::block_size, 65537)},
    {"block a page above the largest", count(&SuperV3::block_size, 69632)},
    {"no block size", count(&SuperV3::block_size, 0)},
    {"block right in its low half", count(&SuperV3::block_size, BIT_32 + 8192)},
    {"no bricks", count(&SuperV3::brick_cnt, 0)},
    {"301 bricks", count(&SuperV3::brick_cnt, 301)},
    {"bricks right in their low half", count(&SuperV3::brick_cnt, BIT_32 + 1)},
    {"brick table a byte short", grown(&SuperV3::brick_table_size, std::uint64_t(-1))},
    {"no brick table", field(&SuperV3::brick_table_size, 0)},
    {"no inodes", count(&SuperV3::inode_cnt, 0)},
    {"262145 inodes", count(&SuperV3::inode_cnt, 262145)},
    {"inodes right in their low half", count(&SuperV3::inode_cnt, BIT_32 + 1)},
    {"inode table a byte short", grown(&SuperV3::inode_table_size, std::uint64_t(-1))},
    {"inode table a byte long", grown(&SuperV3::inode_table_size, 1)},
    {"inode table a page long", grown(&SuperV3::inode_table_size, 4096)},
    {"inode table right in its low half", grown(&SuperV3::inode_table_size, BIT_32)},
    {"no shards", count(&SuperV3::shard_cnt, 0)},
    {"524289 shards", count(&SuperV3::shard_cnt, 524289)},
    {"shards right in their low half", count(&SuperV3::shard_cnt, BIT_32 + 512)},
    {"shard table a byte short", grown(&SuperV3::shard_table_size, std::uint64_t(-1))},
    {"shard table a byte long", grown(&SuperV3::shard_table_size, 1)},
    {"shard table of pages", field(&SuperV3::shard_table_size, 1536 * 4096)},
    {"no extents", count(&SuperV3::extent_cnt, 0)},
    {"1073741825 extents", count(&SuperV3::extent_cnt, 1073741825)},
    {"extents right in their low half", count(&SuperV3::extent_cnt, BIT_32 + 512)},
    {"extent table a byte short", grown(&SuperV3::extent_table_size, std::uint64_t(-1))},
    {"extent table a byte long", grown(&SuperV3::extent_table_size, 1)},
    {"extent table right in its low half", grown(&SuperV3::extent_table_size, BIT_32)},
    {"data area a byte short", grown(&SuperV3::data_size, std::uint64_t(-1))},
    {"data area a byte long", grown(&SuperV3::data_size, 1)},
    {"data area right in its low half", grown(&SuperV3::data_size, BIT_32)},
    {"one block more", grown(&SuperV3::block_cnt, 1)},
    {"37 characters", [](SuperV3 &sb) { sb.ssd_uuid.pop_back(); }},
    {"39 characters", [](SuperV3 &sb) { sb.ssd_uuid += 'x'; }},
    {"no characters", [](SuperV3 &sb) { sb.ssd_uuid = ""; }},
    {"60 characters", [](SuperV3 &sb) { sb.ssd_uuid.resize(60, 'z'); }},
};

using SuperV3Check = SuperCheck<SuperV3>;

TEST_F(SuperV3Check, ValuesWithinTheBoundsPass) { expect_passing(PASSING_V3); }

TEST_F(SuperV3Check, OffsetsAndTheHotTableAreNotChecked) { expect_passing(unchecked_fields()); }

TEST_F(SuperV3Check, ValuesBeyondTheBoundsFailWithTheirMessage) { expect_failing(FAILING_V3); }

TEST_F(SuperV3Check, ForceAcceptsAnyValue)
{
    expect_forced(FAILING_V3);
    SuperV3 nothing;
    nothing.size = nothing.block_size = 0;
    expect_accepted(repair_file(nothing).text(), nothing, {"--force"});
}

TEST_F(SuperV3Check, FirstFailureInOrderIsTheOneReported)
{
    SuperV3 sb;
    sb.size = sb.block_size = sb.data_size = 1;
    sb.ssd_uuid = "short";
    expect_order(sb,
                 {field(&SuperV3::size, 1048576), field(&SuperV3::block_size, 8192),
                  field(&SuperV3::brick_cnt, 1), field(&SuperV3::brick_table_size, 4096),
                  field(&SuperV3::inode_cnt, 1), field(&SuperV3::inode_table_size, 4096),
                  field(&SuperV3::shard_cnt, 1), field(&SuperV3::shard_table_size, 8),
                  field(&SuperV3::extent_cnt, 1), field(&SuperV3::extent_table_size, 8),
                  field(&SuperV3::data_size, 0), [](SuperV3 &it) { it.ssd_uuid.resize(38, 'x'); }});
}

} // namespace
