// Files that zu_tier would not take, and entries that have no file.

#include "template_run.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr std::uint64_t MOST = UINT64_MAX;

void check(Device &device, const SlotTable &table, std::uint64_t no,
           const std::vector<std::string> &refusals)
{
    const auto offset = static_cast<std::uint64_t>(table.offset(no));
    expect_template(device, {table.name, no, offset, {}, refusals},
                    table.expect(no, device.block(offset)));
}

std::string no_inode(std::uint64_t no)
{
    return text("the super block does not have inode %lu in use", no);
}

TEST(TemplateRefusal, PathOfAnotherLength)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    for (const std::size_t length : {0U, 92U, 94U, 127U}) {
        BrickV1 brick = brick_used(0);
        brick.brickid = std::string(length, 'x');
        Device device = make_v1_device(sb, {brick});
        check(device, slot_tables(sb)[0], 0,
              {text("bi_brickid has %zu characters, not 93", length)});
    }
}

// All of the field is the path; one character is cut off.
TEST(TemplateRefusal, PathWithoutATerminator)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    Block block = encode(brick_used(0));
    put_text(block, 32, std::string(128, 'x'));
    seal(block, BrickV1::LENGTH);
    Device device = make_v1_device(sb);
    const auto offset = static_cast<std::uint64_t>(brick_offset(sb, 0));
    device.write(offset, block);
    const RunResult run = run_template(device, {"brick", "0"});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_NE(run.out.find("\"bi_brickid\": \"" + std::string(128, 'x') + "\","),
              std::string::npos);
    EXPECT_NE(run.err.find(": a repair changes bi_brickid: \"" + std::string(128, 'x') +
                           "\" -> \"" + std::string(127, 'x') + "\"\n"),
              std::string::npos);
    EXPECT_NE(run.err.find(": bi_brickid has 127 characters, not 93\n"), std::string::npos);
}

TEST(TemplateRefusal, IdentityOfTheSsd)
{
    for (const std::size_t length : {0U, 37U, 39U, 47U}) {
        const std::string why = text("ssd_uuid has %zu characters, not 38", length);
        SuperV1 v1 = super_v1(1, 1, 1);
        SuperV2 v2 = super_v2(1, 1, 1);
        SuperV3 v3 = super_v3(1, 1);
        v1.ssd_uuid = v2.ssd_uuid = v3.ssd_uuid = std::string(length, 'x');
        Device first = make_v1_device(v1);
        check(first, super_slots(v1), 0, {why});
        Device second = make_v2_device(v2);
        check(second, super_slots(v2), 0, {why});
        Device third = make_v3_device(v3);
        check(third, super_slots(v3), 0, {why});
    }
}

TEST(TemplateRefusal, BrickOfAnInode)
{
    const SuperV1 v1 = super_v1(2, 1, 1);
    Device first = make_v1_device(v1, {}, {inode_used(0, 2)});
    check(first, slot_tables(v1)[1], 0, {"there is no brick 2"});
    const SuperV2 v2 = super_v2(2, 1, 1);
    Device second = make_v2_device(v2, {}, {inode_v2_used(0, 0xFFFFFFFF)});
    check(second, slot_tables(v2)[1], 0, {"there is no brick 4294967295"});
    const SuperV3 v3 = super_v3(2, 1);
    Device third = make_v3_device(v3, {}, {inode_v3_used(0, 2)});
    check(third, slot_tables(v3)[1], 0, {"there is no brick 2"});
}

// Free entries name brick 0 and inode 0 in the eyes of the parser.
TEST(TemplateRefusal, NoBricksAndNoInodes)
{
    SuperV1 v1 = super_v1(0, 1, 1);
    Device first = make_v1_device(v1);
    check(first, slot_tables(v1)[1], 0, {"there is no brick 0"});
    v1 = super_v1(1, 0, 1);
    Device second = make_v1_device(v1);
    check(second, slot_tables(v1)[2], 0, {no_inode(0)});
    const SuperV2 v2 = super_v2(1, 0, 1);
    Device third = make_v2_device(v2);
    check(third, slot_tables(v2)[2], 0, {no_inode(0)});
}

TEST(TemplateRefusal, InodeOfAnExtent)
{
    const SuperV1 v1 = super_v1(1, 2, 1);
    Device first = make_v1_device(v1, {}, {}, {extent_used(0, 2)});
    check(first, slot_tables(v1)[2], 0, {no_inode(2)});
    const SuperV2 v2 = super_v2(1, 2, 1);
    Device second = make_v2_device(v2, {}, {}, {extent_v2_used(0, 2)});
    check(second, slot_tables(v2)[2], 0, {no_inode(2)});
}

TEST(TemplateRefusal, ExpansionAreaThatIsNotInUse)
{
    SuperV2 sb = super_v2(1, 2, 1);
    set_expansion(sb, 153600, false);
    Device device = make_v2_device(sb, {}, {inode_v2(2), inode_v2(153601)}, {extent_v2_used(0, 2)});
    check(device, slot_tables(sb)[1], 2, {no_inode(2)});
    check(device, slot_tables(sb)[2], 0, {no_inode(2)});
    check(device, super_slots(sb), 0, {});
}

TEST(TemplateRefusal, InodeNumbersThatAreTooLarge)
{
    SuperV2 sb = super_v2(1, 2, 1);
    sb.inode_cnt = 500001;
    Device device = make_v2_device(super_v2(1, 2, 1));
    device.write(4096, encode(sb));
    for (const std::uint32_t no : {499999U, 500000U}) {
        const auto offset = static_cast<std::uint64_t>(inode_offset(sb, no));
        device.truncate(offset + BLOCK_SIZE);
        device.write(offset, encode(inode_v2_used(no, 0)));
        check(device, slot_tables(sb)[1], no,
              no == 500000 ? std::vector{no_inode(no)} : std::vector<std::string>{});
    }
}

// The table begins so far in front of the device that its last entries lie on it.
TEST(TemplateRefusal, EntriesOfNumbersThatNoFileHas)
{
    SuperV3 sb = super_v3(1, 1);
    const SuperV3 sound = sb;
    Device device = make_v3_device(sb);
    constexpr std::uint64_t NEGATIVE = std::uint64_t{1} << 31;
    sb.inode_cnt = NEGATIVE + 1;
    sb.inode_table_offset = sound.inode_table_offset - NEGATIVE * BLOCK_SIZE;
    device.write(4096, encode(sb));
    device.write(sound.inode_table_offset, encode(inode_v3_used(NEGATIVE, 0)));
    check(device, slot_tables(sb)[1], NEGATIVE, {"inode numbers from 2147483648 on are negative"});

    constexpr std::uint64_t TOO_LONG = std::uint64_t{1} << 32;
    sb.brick_cnt = TOO_LONG + 1;
    sb.brick_table_offset = sound.brick_table_offset - TOO_LONG * BLOCK_SIZE;
    device.write(4096, encode(sb));
    expect_template_failure(device, {"brick", std::to_string(TOO_LONG)}, 1,
                            "no repair file can name brick 4294967296");
}

TEST(TemplateRefusal, PieceLongerThanABlock)
{
    const SuperV2 sb = super_v2(1, 1, 1);
    ExtentV2 extent = extent_v2_used(0, 0);
    extent.maps[5] = {.offset = 1, .clean = 1, .orig_len = sb.block_size + 1, .begin = 2, .cnt = 3};
    Device device = make_v2_device(sb, {}, {}, {extent});
    check(
        device, slot_tables(sb)[2], 0,
        {text("piece 5 is longer than a block, %u of %u bytes", sb.block_size + 1, sb.block_size)});
    extent.use = 0; // nobody looks
    device.write(static_cast<std::uint64_t>(extent_offset(sb, 0)), encode(extent, sb));
    check(device, slot_tables(sb)[2], 0, {});
}

// Blocks must lie in front of the next area.
TEST(TemplateRefusal, TablesInAnotherOrder)
{
    SuperV3 sb = packed_super(1);
    Device device = make_v3_device(sb);
    const auto outside = [](std::uint64_t begin, std::uint64_t end) {
        return std::vector{text("meta_offset is not between %lu and %lu", begin, end)};
    };
    const auto offset = [](std::int64_t at) { return static_cast<std::uint64_t>(at); };
    const SuperV3 sound = sb;
    sb.hot_table_offset = sound.extent_table_offset;
    sb.extent_table_offset = sound.hot_table_offset;
    sb.data_offset = 0;
    std::swap(sb.hot_table_offset, sb.shard_table_offset);
    device.write(4096, encode(sb));
    const auto &shards = block_table<ShardTable>();
    const auto &extents = block_table<ExtentTable>();
    const Block shard_block = encode(ShardBlockV3{});
    const Block extent_block = encode(ExtentBlockV3{});
    device.write(sb.shard_table_offset, shard_block);
    device.write(sb.extent_table_offset, extent_block);
    expect_template(device,
                    {"shard",
                     0,
                     offset(shard_offset(sb, 0)),
                     {},
                     outside(sb.shard_table_offset, sb.hot_table_offset)},
                    expect_packed(shards, sb, 0, shard_block));
    expect_template(
        device, {"extent", 0, offset(extent_offset(sb, 0)), {}, outside(sb.extent_table_offset, 0)},
        expect_packed(extents, sb, 0, extent_block));
    sb.extent_table_offset = sb.hot_table_offset;
    device.write(4096, encode(sb));
    expect_template(device,
                    {"hot",
                     0,
                     offset(hot_offset(sb, 0)),
                     {},
                     outside(sb.hot_table_offset, sb.hot_table_offset)},
                    expect_hot(sb, 0, device.block(sb.hot_table_offset)));
}

std::string no_area(const SuperV2 &sb)
{
    return text("there is no expansion area of %u inodes at offset %ld", expansion_count(sb),
                expansion_offset(sb, 0));
}

TEST(TemplateRefusal, ExpansionAreaThatIsNotThere)
{
    SuperV2 sb = super_v2(1, 2, 1);
    set_expansion(sb, 153600, true);
    for (const std::vector<InodeV2> &inodes :
         {std::vector<InodeV2>{}, {inode_v2(2)}, {inode_v2(153601)}}) {
        Device device = make_v2_device(sb, {}, inodes);
        check(device, super_slots(sb), 0, {no_area(sb)});
    }
    Device cut = make_v2_device(sb, {}, {inode_v2(2), inode_v2(153601)});
    cut.truncate(cut.size() - 1);
    check(cut, super_slots(sb), 0, {no_area(sb)});
}

TEST(TemplateRefusal, ExpansionAreaThatIsTooSmall)
{
    SuperV2 sb = super_v2(1, 2, 1);
    set_expansion(sb, 128000, true);
    Device device = make_v2_device(sb, {}, {inode_v2(2), inode_v2(128001)});
    check(device, super_slots(sb), 0, {no_area(sb)});
}

TEST(TemplateRefusal, ExpansionAreaInFrontOfTheData)
{
    SuperV2 sb = super_v2(1, 2, 1);
    Device device = make_v2_device(sb);
    set_expansion(sb, 153600, true);
    sb.data_offset = MOST - MIB + 1; // the sum wraps
    device.write(4096, encode(sb));
    check(device, super_slots(sb), 0, {no_area(sb)});
}

// Sizes of an extent that do not fit its slot.

const char UNFIT[] = "an extent as the super block describes it does not fit its slot, zu_tier "
                     "repairs none of them";

TEST(TemplateRefusal, ExtentSizesV1)
{
    for (const std::uint32_t size : {0U, 3U, 55U, 4097U, 0xFFFFFFFFU}) {
        SuperV1 sb = super_v1(1, 1, 1);
        Device device = make_v1_device(sb);
        sb.extent_size = size;
        device.write(4096, encode(sb));
        expect_template_failure(device, {"extent", "0"}, 1, UNFIT);
    }
}

TEST(TemplateRefusal, ExtentSizesV2)
{
    const auto refused = [](const std::function<void(SuperV2 &)> &spoil) {
        SuperV2 sb = super_v2(1, 1, 1);
        Device device = make_v2_device(sb);
        spoil(sb);
        device.write(4096, encode(sb));
        expect_template_failure(device, {"extent", "0"}, 1, UNFIT);
    };
    refused([](SuperV2 &sb) { sb.extent_size = 55; });
    refused([](SuperV2 &sb) { sb.extent_size = 0xFFFFFFFF; });
    refused([](SuperV2 &sb) { sb.map_cnt = (4096 - 72) / 16 + 1; });
    refused([](SuperV2 &sb) { sb.map_cnt = 0xFFFFFFFF; });
    refused([](SuperV2 &sb) { sb.total_extent_size = 3; });
    refused([](SuperV2 &sb) { sb.total_extent_size = 4097; });
}

// The largest that fits, and a checksum that does not cover all of it.
TEST(TemplateRefusal, ExtentSizesV2ThatFit)
{
    SuperV2 sb = super_v2(1, 1, 1);
    set_maps(sb, 64);
    sb.extent_size = 56;
    sb.map_cnt = (4096 - 56) / 16;
    sb.total_extent_size = 60;
    ExtentV2 extent = extent_v2_used(0, 0);
    extent.bitmap.clear();
    extent.hot_area.clear();
    Device device = make_v2_device(sb, {}, {}, {extent});
    check(device, slot_tables(sb)[2], 0, {});
}

} // namespace
