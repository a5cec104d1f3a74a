// What zu_tierctl writes into a sample image: every super block field, every slot of every table.

#include "sample_image.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>

using namespace tier_test;

namespace {

// 2025-01-01 and 2026-01-01, 00:00:00 UTC.
constexpr std::uint64_t YEAR_START = 1735689600;
constexpr std::uint64_t YEAR_END = 1767225600;
constexpr std::uint64_t NANOSECONDS = 1'000'000'000;

const std::string VOLUME_ID = "[0-9A-Za-z]{6}(-[0-9A-Za-z]{4}){5}-[0-9A-Za-z]{6}";

struct Geometry {
    std::vector<std::string> args;
    std::uint32_t bricks = 4;
    std::uint32_t inodes = 64;
    std::uint32_t blocks = 256;
    std::uint32_t block_size = 1048576;
    std::uint32_t extent_size = 88;
};

const std::vector<Geometry> GEOMETRIES{
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

class SampleImage : public testing::TestWithParam<Geometry> {
protected:
    const Device device = make_sample(GetParam().args);
    const SuperV1 sb = decode_super(device.block(4096));

    Block slot(std::int64_t offset) const
    {
        return device.block(static_cast<std::uint64_t>(offset));
    }

    // The entries, each a whole slot that is as its fields say, checksum and zeros included.
    std::vector<BrickV1> bricks() const
    {
        std::vector<BrickV1> result;
        for (std::uint32_t no = 0; no < GetParam().bricks; ++no) {
            const Block block = slot(brick_offset(sb, no));
            result.push_back(decode_brick(block));
            EXPECT_EQ(result.back().magic, 0x42524B49U) << no;
            EXPECT_EQ(result.back().no, no);
            EXPECT_EQ(encode(result.back()), block) << no;
        }
        return result;
    }

    std::vector<InodeV1> inodes() const
    {
        std::vector<InodeV1> result;
        for (std::uint32_t no = 0; no < GetParam().inodes; ++no) {
            const Block block = slot(inode_offset(sb, no));
            result.push_back(decode_inode(block));
            EXPECT_EQ(result.back().magic, 0x494E4F44U) << no;
            EXPECT_EQ(result.back().no, no);
            EXPECT_EQ(encode(result.back()), block) << no;
        }
        return result;
    }

    std::vector<ExtentV1> extents() const
    {
        const std::uint32_t extent_size = GetParam().extent_size;
        std::vector<ExtentV1> result;
        for (std::uint32_t no = 0; no < GetParam().blocks; ++no) {
            const Block block = slot(extent_offset(sb, no));
            result.push_back(decode_extent(block, extent_size));
            EXPECT_EQ(result.back().no, no);
            EXPECT_EQ(encode(result.back(), extent_size), block) << no;
        }
        return result;
    }

    // Something is in use, and something is free where there is room for both.
    template <class Entry>
    static void expect_both_kinds(const std::vector<Entry> &entries)
    {
        const auto used = std::ranges::count(entries, 1, [](const Entry &e) { return int(e.use); });
        EXPECT_GT(used, 0);
        if (entries.size() > 1) {
            EXPECT_LT(used, std::ssize(entries));
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Geometry, SampleImage, testing::ValuesIn(GEOMETRIES));

TEST_P(SampleImage, SuperBlockDescribesTheDevice)
{
    const Geometry &geometry = GetParam();
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

TEST_P(SampleImage, Bricks)
{
    const std::vector<BrickV1> all = bricks();
    expect_both_kinds(all);
    std::set<Uuid> identities;
    for (const BrickV1 &brick : all) {
        SCOPED_TRACE(brick.no);
        identities.insert(brick.uuid);
        EXPECT_LE(brick.use, 1U);
        EXPECT_EQ(brick.unlink, 0U);
        EXPECT_EQ(brick.reserved, 0U);
        if (brick.use == 0) {
            EXPECT_EQ(brick.brickid, "");
            continue;
        }
        EXPECT_EQ(brick.brickid.size(), 93U);
        const std::regex path("/kd/data/zu/local/" + VOLUME_ID + "/" + uuid_text(brick.uuid));
        EXPECT_TRUE(std::regex_match(brick.brickid, path)) << brick.brickid;
    }
    EXPECT_EQ(identities.size(), all.size());
}

TEST_P(SampleImage, InodesBelongToBricksInUse)
{
    const std::vector<BrickV1> owners = bricks();
    const std::vector<InodeV1> all = inodes();
    expect_both_kinds(all);
    std::set<std::uint64_t> sizes;
    std::set<Uuid> identities;
    std::size_t used = 0;
    for (const InodeV1 &inode : all) {
        SCOPED_TRACE(inode.no);
        if (inode.use == 0) {
            EXPECT_EQ(encode(inode), encode(InodeV1{.no = inode.no}));
            continue;
        }
        used++;
        EXPECT_EQ(inode.use, 1);
        ASSERT_LT(inode.brick_no, owners.size());
        EXPECT_EQ(owners[inode.brick_no].use, 1U);
        EXPECT_GT(inode.size, 0U);
        sizes.insert(inode.size);
        identities.insert(inode.uuid);
        EXPECT_GE(inode.mtime, sb.ctime);
        EXPECT_GE(inode.ctime, inode.mtime);
        EXPECT_GE(inode.atime, inode.ctime);
        EXPECT_LT(inode.atime, YEAR_END * NANOSECONDS);
        EXPECT_LE(inode.unlink, 1);
        if (inode.unlink == 0) {
            EXPECT_EQ(inode.dtime, 0U);
        } else {
            EXPECT_GE(inode.dtime, inode.atime);
            EXPECT_LT(inode.dtime, YEAR_END * NANOSECONDS);
        }
        EXPECT_EQ(inode.reserved1, 0U);
        EXPECT_EQ(inode.reserved2, 0U);
    }
    EXPECT_EQ(identities.size(), used);
    EXPECT_GE(sizes.size(), std::min<std::size_t>(used, 2));
}

TEST_P(SampleImage, ExtentsBelongToInodesInUse)
{
    const std::vector<InodeV1> owners = inodes();
    const std::vector<ExtentV1> all = extents();
    expect_both_kinds(all);
    std::map<std::uint32_t, std::uint32_t> next_block;
    for (const ExtentV1 &extent : all) {
        SCOPED_TRACE(extent.no);
        if (extent.use == 0) {
            EXPECT_EQ(encode(extent, sb.extent_size),
                      encode(ExtentV1{.no = extent.no}, sb.extent_size));
            continue;
        }
        EXPECT_EQ(extent.use, 1);
        ASSERT_LT(extent.inode_no, owners.size());
        const InodeV1 &owner = owners[extent.inode_no];
        EXPECT_EQ(owner.use, 1);
        EXPECT_EQ(extent.block, next_block[extent.inode_no]++);
        EXPECT_EQ(text("%08x", extent.sampling_low), uuid_text(owner.uuid).substr(0, 8));
        EXPECT_LE(extent.clean, 1);
        EXPECT_GE(extent.ntime, YEAR_START);
        EXPECT_LT(extent.ntime, YEAR_END);
        EXPECT_GT(extent.size, 0U);
        EXPECT_LE(extent.size, sb.block_size);
        EXPECT_LE(std::uint64_t{extent.block} * sb.block_size + extent.size, owner.size);
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
            const bool is_set = (extent.bitmap[page / 64] >> (page % 64) & 1U) != 0;
            EXPECT_EQ(is_set, page * 4096 >= begin && page * 4096 < end) << page;
        }
    }
}

TEST_P(SampleImage, ToolFindsNoFault)
{
    for (const SampleTable &table : sample_tables(sb)) {
        SCOPED_TRACE(table.name);
        const LoggedRun run = run_logged(device, table.command, {"-g", "error=1"});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, "[]");
        EXPECT_EQ(run.err, "");
    }
    // The checks that a repaired super block has to pass.
    const LoggedRun shown = run_logged(device, "dump_super");
    EXPECT_EQ(shown.out, json(sb));
    const std::string file = device.directory().write("super.json", shown.out);
    const LoggedRun repaired = run_logged(device, "repair_super", {"-f", file});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_EQ(repaired.out, json(sb));
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
