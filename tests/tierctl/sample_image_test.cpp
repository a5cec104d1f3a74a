// What zu_tierctl writes into a sample image of layout V1: every super block field, every slot of
// every table.

#include "sample_contents.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>

using namespace tier_test;

namespace {

struct GeometryV1 {
    std::vector<std::string> args;
    std::uint32_t bricks = 4;
    std::uint32_t inodes = 64;
    std::uint32_t blocks = 256;
    std::uint32_t block_size = 1048576;
    std::uint32_t extent_size = 88;
};

const std::vector<GeometryV1> GEOMETRIES_V1{
    {.args = {}},
    {.args = {"--seed", "18446744073709551615"}},
    {.args = {"--bricks", "1", "--inodes", "1", "--blocks", "1"},
     .bricks = 1,
     .inodes = 1,
     .blocks = 1},
    {.args = {"--bricks", "2", "--inodes", "2", "--blocks", "2", "--seed", "0"},
     .bricks = 2,
     .inodes = 2,
     .blocks = 2},
    {.args = {"--bricks", "300", "--inodes", "1000", "--blocks", "700", "--block-size", "262144"},
     .bricks = 300,
     .inodes = 1000,
     .blocks = 700,
     .block_size = 262144,
     .extent_size = 64},
    {.args = {"--block-size", "266240"}, .block_size = 266240, .extent_size = 72},
    {.args = {"--block-size", "4194304", "--seed", "7"}, .block_size = 4194304, .extent_size = 184},
    {.args = {"--extent-size", "56"}, .extent_size = 56},
    {.args = {"--extent-size", "60"}, .extent_size = 60},
    {.args = {"--extent-size", "73"}, .extent_size = 73},
    {.args = {"--extent-size", "4096"}, .extent_size = 4096},
    {.args = {"--inodes", "3", "--blocks", "500"}, .inodes = 3, .blocks = 500},
};

class SampleImage : public SampleOf<GeometryV1, SuperV1> {
protected:
    std::vector<InodeV1> inodes() const { return entries(1, GetParam().inodes, decode_inode); }

    std::vector<ExtentV1> extents() const
    {
        const std::uint32_t size = GetParam().extent_size;
        return read_entries(
            device, tables[2], GetParam().blocks,
            [size](const Block &block) { return decode_extent(block, size); },
            [size](const ExtentV1 &extent) { return encode(extent, size); });
    }
};

INSTANTIATE_TEST_SUITE_P(Geometry, SampleImage, testing::ValuesIn(GEOMETRIES_V1));

TEST_P(SampleImage, SuperBlockDescribesTheDevice)
{
    const GeometryV1 &geometry = GetParam();
    SuperV1 expected = super_v1(geometry.bricks, geometry.inodes, geometry.blocks);
    expected.block_size = geometry.block_size;
    expected.extent_size = geometry.extent_size;
    expected.ctime = sb.ctime;
    expected.uuid = sb.uuid;
    expected.ssd_uuid = sb.ssd_uuid;
    EXPECT_EQ(device.block(4096), encode(expected));

    EXPECT_GE(sb.ctime, YEAR_START * NANOSECONDS);
    EXPECT_LT(sb.ctime, YEAR_END * NANOSECONDS);
    EXPECT_TRUE(std::regex_match(sb.ssd_uuid, std::regex(VOLUME_ID))) << sb.ssd_uuid;
    EXPECT_NE(sb.uuid, Uuid{});
    EXPECT_EQ(device.size(),
              expected.data_offset + std::uint64_t{geometry.blocks} * geometry.block_size);
}

TEST_P(SampleImage, Bricks) { expect_bricks(bricks()); }

TEST_P(SampleImage, InodesBelongToBricksInUse)
{
    const std::vector<InodeV1> all = inodes();
    expect_inodes(all, bricks(), sb.ctime,
                  [](std::uint32_t no) { return encode(InodeV1{.no = no}); });
    for (const InodeV1 &inode : all) {
        EXPECT_EQ(inode.reserved1, 0U) << inode.no;
        EXPECT_EQ(inode.reserved2, 0U) << inode.no;
    }
}

TEST_P(SampleImage, ExtentsBelongToInodesInUse)
{
    const std::vector<ExtentV1> all = extents();
    expect_extents(all, inodes(), sb.block_size);
    for (const ExtentV1 &extent : all) {
        if (extent.use == 0) {
            EXPECT_EQ(encode(extent, sb.extent_size),
                      encode(ExtentV1{.no = extent.no}, sb.extent_size));
        }
    }
}

// Bit k of the bitmap stands for page k of the block: those that hold the valid bytes are set.
TEST_P(SampleImage, BitmapCoversTheValidBytes)
{
    const std::vector<InodeV1> owners = inodes();
    for (const ExtentV1 &extent : extents()) {
        if (extent.use == 0)
            continue;
        SCOPED_TRACE(extent.no);
        const std::uint64_t end = std::min<std::uint64_t>(
            owners[extent.inode_no].size - std::uint64_t{extent.block} * sb.block_size,
            sb.block_size);
        const std::uint64_t begin = end - extent.size;
        EXPECT_EQ(begin % 4096, 0U);
        for (std::uint64_t page = 0; page < extent.bitmap.size() * 64; ++page) {
            EXPECT_EQ(has_page(extent, page), page * 4096 >= begin && page * 4096 < end) << page;
        }
    }
}

TEST_P(SampleImage, ToolFindsNoFault)
{
    for (const SampleTable &table : tables)
        expect_no_fault(device, table, "[]");
    expect_accepted(device, json(sb));
}

std::vector<std::uint8_t> small_image(std::vector<std::string> args)
{
    args.insert(args.end(), {"--inodes", "16", "--blocks", "8", "--block-size", "262144"});
    return make_sample(args).bytes();
}

TEST(SampleSeed, SameArgumentsGiveTheSameBytes)
{
    EXPECT_EQ(small_image({"--seed", "5"}), small_image({"--seed", "5"}));
    EXPECT_EQ(small_image({"--seed", "1"}), small_image({})); // the default
}

TEST(SampleSeed, AnotherSeedGivesAnotherDevice)
{
    const std::vector<std::uint8_t> one = small_image({"--seed", "5"});
    const std::vector<std::uint8_t> other = small_image({"--seed", "6"});
    ASSERT_EQ(one.size(), other.size());
    const SuperV1 sb = super_v1(4, 16, 8);
    for (const std::int64_t at :
         {std::int64_t{4096}, brick_offset(sb, 0), inode_offset(sb, 0), extent_offset(sb, 0)}) {
        const auto first = one.begin() + at;
        EXPECT_FALSE(std::equal(first, first + 4096, other.begin() + at)) << at;
    }
}

TEST(SampleSeed, NothingIsWrittenOutsideTheTables)
{
    std::vector<std::uint8_t> image = small_image({});
    const SuperV1 sb = super_v1(4, 16, 8);
    const auto clear = [&image](std::int64_t begin, std::int64_t end) {
        std::fill(image.begin() + begin, image.begin() + end, std::uint8_t{0});
    };
    clear(4096, 8192);
    clear(brick_offset(sb, 0), brick_offset(sb, 4));
    clear(inode_offset(sb, 0), inode_offset(sb, 16));
    clear(extent_offset(sb, 0), extent_offset(sb, 8));
    EXPECT_TRUE(std::ranges::all_of(image, [](std::uint8_t byte) { return byte == 0; }));
}

} // namespace
