// The geometry check of a new V1 super block, at both sides of each bound.

#include "super_v1_repair.h"

#include <functional>

using namespace tier_test;

namespace {

// Counts are changed together with the geometry that belongs to them.
auto counts(void (*change)(SuperV1 &))
{
    return [change](SuperV1 &sb) {
        change(sb);
        set_geometry(sb);
    };
}

SuperV1 changed(const std::function<void(SuperV1 &)> &change)
{
    SuperV1 sb = super_v1(2, 3, 4);
    change(sb);
    return sb;
}

std::string size_message(const SuperV1 &sb)
{
    return text("sb size is invalid. expect:1048576, real:%u", sb.size);
}

std::string brick_message(const SuperV1 &sb)
{
    return text("brick params is invalid. brick_cnt:%u, brick_table_size:%lu, expect "
                "brick_cnt:[1-300]",
                sb.brick_cnt, sb.brick_table_size);
}

std::string inode_message(const SuperV1 &sb)
{
    return text("inode params is invalid. inode_cnt:%u, itable_size:%lu, expect "
                "inode_cnt:[1-100000]",
                sb.inode_cnt, sb.inode_table_size);
}

std::string block_message(const SuperV1 &sb)
{
    return text("block size(%u) is invalid. expect block_size:[262144-4194304] and must 4k aligned",
                sb.block_size);
}

std::string extent_message(const SuperV1 &sb)
{
    return text("extent size(%u) is invalid. expect size:[56-4096]", sb.extent_size);
}

std::string extent_table_message(const SuperV1 &sb)
{
    return text("extent table size(%lu) is invalid. block_cnt:%u", sb.extent_table_size,
                sb.block_cnt);
}

std::string data_offset_message(const SuperV1 &sb)
{
    SuperV1 right = sb;
    set_geometry(right);
    return text("data offset(%lu) is invalid. expect:%lu", sb.data_offset, right.data_offset);
}

std::string ssd_uuid_message(const SuperV1 &sb)
{
    const std::string stored = sb.ssd_uuid.substr(0, 47);
    return text("ssd uuid(%s) length(%zu) is invalid. expect:38", stored.c_str(), stored.size());
}

struct Passing {
    std::string name;
    std::function<void(SuperV1 &)> change;
};

const std::vector<Passing> PASSING{
    {"as built", [](SuperV1 &) {}},
    {"one brick", counts([](SuperV1 &sb) { sb.brick_cnt = 1; })},
    {"300 bricks", counts([](SuperV1 &sb) { sb.brick_cnt = 300; })},
    {"one inode", counts([](SuperV1 &sb) { sb.inode_cnt = 1; })},
    {"100000 inodes", counts([](SuperV1 &sb) { sb.inode_cnt = 100000; })},
    {"inodes that fill their last MiB", counts([](SuperV1 &sb) { sb.inode_cnt = 253; })},
    {"inodes that just need one more MiB", counts([](SuperV1 &sb) { sb.inode_cnt = 254; })},
    {"smallest block", [](SuperV1 &sb) { sb.block_size = 262144; }},
    {"block of 65 pages", [](SuperV1 &sb) { sb.block_size = 266240; }},
    {"largest block", [](SuperV1 &sb) { sb.block_size = 4194304; }},
    {"smallest extent", [](SuperV1 &sb) { sb.extent_size = 56; }},
    {"extent off the word boundary", [](SuperV1 &sb) { sb.extent_size = 61; }},
    {"largest extent", [](SuperV1 &sb) { sb.extent_size = 4096; }},
    {"no blocks", counts([](SuperV1 &sb) { sb.block_cnt = 0; })},
    {"extents that end on a MiB", counts([](SuperV1 &sb) { sb.block_cnt = 256; })},
    {"extents that end behind a MiB", counts([](SuperV1 &sb) { sb.block_cnt = 257; })},
    {"most blocks", counts([](SuperV1 &sb) { sb.block_cnt = 0xFFFFFFFF; })},
    {"any 38 characters", [](SuperV1 &sb) { sb.ssd_uuid = std::string(38, '-'); }},
};

struct Failing {
    std::string name;
    std::function<void(SuperV1 &)> change;
    std::string (*message)(const SuperV1 &);
};

const std::vector<Failing> FAILING{
    {"size below 1 MiB", counts([](SuperV1 &sb) { sb.size = 1048575; }), size_message},
    {"size above 1 MiB", counts([](SuperV1 &sb) { sb.size = 1048577; }), size_message},
    {"no size", counts([](SuperV1 &sb) { sb.size = 0; }), size_message},
    {"no bricks", counts([](SuperV1 &sb) { sb.brick_cnt = 0; }), brick_message},
    {"301 bricks", counts([](SuperV1 &sb) { sb.brick_cnt = 301; }), brick_message},
    {"most bricks", counts([](SuperV1 &sb) { sb.brick_cnt = 0xFFFFFFFF; }), brick_message},
    {"brick table a byte short", [](SuperV1 &sb) { sb.brick_table_size -= 1; }, brick_message},
    {"brick table a page long", [](SuperV1 &sb) { sb.brick_table_size += 4096; }, brick_message},
    {"brick table right in its low half",
     [](SuperV1 &sb) { sb.brick_table_size += std::uint64_t{1} << 32; }, brick_message},
    {"no inodes", counts([](SuperV1 &sb) { sb.inode_cnt = 0; }), inode_message},
    {"100001 inodes", counts([](SuperV1 &sb) { sb.inode_cnt = 100001; }), inode_message},
    {"inode table without padding", [](SuperV1 &sb) { sb.inode_table_size = 3 * 4096; },
     inode_message},
    {"inode table a byte long", [](SuperV1 &sb) { sb.inode_table_size += 1; }, inode_message},
    {"inode table a MiB long", [](SuperV1 &sb) { sb.inode_table_size += MIB; }, inode_message},
    {"block below the smallest", [](SuperV1 &sb) { sb.block_size = 262143; }, block_message},
    {"page below the smallest block", [](SuperV1 &sb) { sb.block_size = 258048; }, block_message},
    {"block off the page", [](SuperV1 &sb) { sb.block_size = 262145; }, block_message},
    {"block above the largest", [](SuperV1 &sb) { sb.block_size = 4194305; }, block_message},
    {"page above the largest block", [](SuperV1 &sb) { sb.block_size = 4198400; }, block_message},
    {"no block size", [](SuperV1 &sb) { sb.block_size = 0; }, block_message},
    {"extent below the smallest", [](SuperV1 &sb) { sb.extent_size = 55; }, extent_message},
    {"extent above the largest", [](SuperV1 &sb) { sb.extent_size = 4097; }, extent_message},
    {"no extent size", [](SuperV1 &sb) { sb.extent_size = 0; }, extent_message},
    {"extent table a byte short", [](SuperV1 &sb) { sb.extent_table_size -= 1; },
     extent_table_message},
    {"extent table of records", [](SuperV1 &sb) { sb.extent_table_size = 4 * sb.extent_size; },
     extent_table_message},
    {"one block more", [](SuperV1 &sb) { sb.block_cnt += 1; }, extent_table_message},
    {"data a byte early", [](SuperV1 &sb) { sb.data_offset -= 1; }, data_offset_message},
    {"data a MiB late", [](SuperV1 &sb) { sb.data_offset += MIB; }, data_offset_message},
    {"data nowhere", [](SuperV1 &sb) { sb.data_offset = 0; }, data_offset_message},
    {"37 characters", [](SuperV1 &sb) { sb.ssd_uuid.pop_back(); }, ssd_uuid_message},
    {"39 characters", [](SuperV1 &sb) { sb.ssd_uuid += 'x'; }, ssd_uuid_message},
    {"no characters", [](SuperV1 &sb) { sb.ssd_uuid = ""; }, ssd_uuid_message},
    {"47 characters", [](SuperV1 &sb) { sb.ssd_uuid.resize(47, 'y'); }, ssd_uuid_message},
    {"80 characters", [](SuperV1 &sb) { sb.ssd_uuid.resize(80, 'z'); }, ssd_uuid_message},
};

class SuperV1Check : public SuperV1Repair {};

TEST_F(SuperV1Check, GeometryOfTheSmallestDevice)
{
    const SuperV1 sb = super_v1(1, 1, 0);
    ASSERT_EQ(sb.inode_table_size, 1040384U);
    ASSERT_EQ(sb.data_offset, 0x400000U);
    expect_accepted(repair_file(sb).text(), sb);
}

TEST_F(SuperV1Check, ValuesWithinTheBoundsPass)
{
    for (const Passing &passing : PASSING) {
        SCOPED_TRACE(passing.name);
        const SuperV1 sb = changed(passing.change);
        expect_accepted(repair_file(sb).text(), sb);
    }
}

TEST_F(SuperV1Check, ValuesBeyondTheBoundsFailWithTheirMessage)
{
    for (const Failing &failing : FAILING) {
        SCOPED_TRACE(failing.name);
        const SuperV1 sb = changed(failing.change);
        expect_refused(
            repair_file(sb).text(),
            log_of_keys(sb, 14,
                        {error_line("__check_sb_params_v1", failing.message(sb)), rejected()}));
    }
}

TEST_F(SuperV1Check, ForceAcceptsAnyGeometry)
{
    for (const Failing &failing : FAILING) {
        SCOPED_TRACE(failing.name);
        const SuperV1 sb = changed(failing.change);
        SuperV1 stored = sb;
        stored.ssd_uuid = sb.ssd_uuid.substr(0, 47);
        expect_accepted(repair_file(sb).text(), stored, {"-F"});
    }
    SuperV1 nonsense;
    nonsense.size = nonsense.block_size = nonsense.extent_size = 0;
    expect_accepted(repair_file(nonsense).text(), nonsense, {"--force"});
}

// From a super block that fails every check, each is put right in turn, and the next one reports.
TEST_F(SuperV1Check, FirstFailureInOrderIsTheOneReported)
{
    SuperV1 sb;
    sb.size = 1;
    sb.brick_table_size = sb.inode_table_size = sb.extent_table_size = sb.data_offset = 1;
    sb.block_size = sb.extent_size = 1;
    sb.ssd_uuid = "short";
    const std::vector<std::pair<std::string (*)(const SuperV1 &), void (*)(SuperV1 &)>> steps{
        {size_message, [](SuperV1 &it) { it.size = 1048576; }},
        {brick_message,
         [](SuperV1 &it) {
             it.brick_cnt = 1;
             it.brick_table_size = 4096;
         }},
        {inode_message,
         [](SuperV1 &it) {
             it.inode_cnt = 1;
             it.inode_table_size = 1040384;
         }},
        {block_message, [](SuperV1 &it) { it.block_size = 1048576; }},
        {extent_message, [](SuperV1 &it) { it.extent_size = 72; }},
        {extent_table_message, [](SuperV1 &it) { it.extent_table_size = 0; }},
        {data_offset_message, [](SuperV1 &it) { it.data_offset = 0x400000; }},
        {ssd_uuid_message, [](SuperV1 &it) { it.ssd_uuid.resize(38, 'x'); }},
    };
    for (const auto &[message, put_right] : steps) {
        SCOPED_TRACE(message(sb));
        expect_refused(
            repair_file(sb).text(),
            log_of_keys(sb, 14, {error_line("__check_sb_params_v1", message(sb)), rejected()}));
        put_right(sb);
    }
    expect_accepted(repair_file(sb).text(), sb);
}

} // namespace
