// What zu_tierctl writes into a sample image of layout V2: the geometry of its mapped pieces, every
// slot of every table. The expansion area has tests of its own.

#include "sample_contents.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

using namespace tier_test;

namespace {

// The piece sizes are those that belong to devices of up to 480 GiB.
struct GeometryV2 {
    std::vector<std::string> args;
    std::uint32_t bricks = 4;
    std::uint32_t inodes = 64;
    std::uint32_t blocks = 256;
    std::uint32_t block_size = 1048576;
    std::uint32_t extent_size = 88;
    std::uint32_t map_size = 32768;
    std::uint32_t map_cnt = 32;
};

const std::vector<GeometryV2> GEOMETRIES_V2{
    {.args = {}},
    {.args = {"--bricks", "1", "--inodes", "1", "--blocks", "1"},
     .bricks = 1,
     .inodes = 1,
     .blocks = 1},
    {.args = {"--bricks", "300", "--inodes", "1000", "--blocks", "700", "--block-size", "262144"},
     .bricks = 300,
     .inodes = 1000,
     .blocks = 700,
     .block_size = 262144,
     .extent_size = 64,
     .map_size = 16384,
     .map_cnt = 16},
    {.args = {"--block-size", "266240"}, // the last piece is one page
     .block_size = 266240,
     .extent_size = 72,
     .map_size = 16384,
     .map_cnt = 17},
    {.args = {"--block-size", "1044480"}, .block_size = 1044480, .map_size = 16384, .map_cnt = 64},
    {.args = {"--block-size", "2097152"}, .block_size = 2097152, .extent_size = 120, .map_cnt = 64},
    {.args = {"--block-size", "4194304", "--seed", "7"},
     .block_size = 4194304,
     .extent_size = 184,
     .map_size = 65536,
     .map_cnt = 64},
    {.args = {"--extent-size", "56"}, .extent_size = 56},
    {.args = {"--extent-size", "73"}, .extent_size = 73},
    {.args = {"--extent-size", "3008", "--block-size", "4194304"}, // the whole slot
     .block_size = 4194304,
     .extent_size = 3008,
     .map_size = 65536,
     .map_cnt = 64},
};

class SampleV2 : public SampleOf<GeometryV2, SuperV2> {
protected:
    std::vector<InodeV2> inodes() const { return entries(1, GetParam().inodes, decode_inode_v2); }

    std::vector<ExtentV2> extents() const
    {
        return read_entries(
            device, tables[2], GetParam().blocks,
            [this](const Block &block) { return decode_extent_v2(block, sb); },
            [this](const ExtentV2 &extent) { return encode(extent, sb); });
    }

    std::vector<ExtentV2> extents_in_use() const
    {
        std::vector<ExtentV2> all = extents();
        std::erase_if(all, [](const ExtentV2 &extent) { return extent.use == 0; });
        return all;
    }
};

INSTANTIATE_TEST_SUITE_P(Geometry, SampleV2, testing::ValuesIn(GEOMETRIES_V2));

TEST_P(SampleV2, SuperBlockDescribesTheDevice)
{
    const GeometryV2 &geometry = GetParam();
    SuperV2 expected = super_v2(geometry.bricks, geometry.inodes, geometry.blocks);
    expected.block_size = geometry.block_size;
    expected.extent_size = geometry.extent_size;
    expected.ctime = YEAR_START * NANOSECONDS;
    expected.uuid = sb.uuid;
    expected.ssd_uuid = sb.ssd_uuid;
    expected.min_alloc_size = geometry.map_size;
    set_maps(expected, geometry.map_cnt);
    EXPECT_EQ(device.block(4096), encode(expected));
    EXPECT_EQ(device.size(),
              expected.data_offset + std::uint64_t{geometry.blocks} * geometry.block_size);
}

TEST_P(SampleV2, Bricks) { expect_bricks(bricks()); }

TEST_P(SampleV2, InodesBelongToBricksInUse)
{
    const std::vector<InodeV2> all = inodes();
    expect_inodes(all, bricks(), sb.ctime, [](std::uint32_t no) { return encode(inode_v2(no)); });
    for (const InodeV2 &inode : all) {
        if (inode.use == 0)
            continue;
        EXPECT_LT(inode.new_data, inode.size) << inode.no;
        EXPECT_EQ(inode.blocks, round_up(inode.size, sb.block_size) / sb.block_size) << inode.no;
    }
}

TEST_P(SampleV2, ExtentsBelongToInodesInUse)
{
    const std::vector<ExtentV2> all = extents();
    expect_extents(all, inodes(), sb.block_size);
    const std::vector<std::uint8_t> empty(64, 0);
    for (const ExtentV2 &extent : all) {
        SCOPED_TRACE(extent.no);
        if (extent.use == 0) {
            EXPECT_EQ(encode(extent, sb), encode(extent_v2(extent.no), sb));
        } else {
            EXPECT_NE(extent.hot_area, empty);
        }
    }
}

// Piece i holds pages of the i-th part of the block: no two share a page.
TEST_P(SampleV2, PiecesHoldPartsOfTheFile)
{
    const std::vector<InodeV2> owners = inodes();
    const std::uint32_t pages = GetParam().map_size / 4096;
    for (const ExtentV2 &extent : extents_in_use()) {
        const std::uint64_t block_offset = std::uint64_t{extent.block} * sb.block_size;
        EXPECT_FALSE(extent.maps.empty()) << extent.no;
        for (const auto &[mapno, piece] : extent.maps) {
            SCOPED_TRACE(text("extent %lu, piece %u", extent.no, mapno));
            EXPECT_GE(piece.begin, mapno * pages);
            EXPECT_LE(piece.begin + piece.cnt, (mapno + 1) * pages);
            EXPECT_LE((piece.begin + piece.cnt) * 4096U, sb.block_size);
            EXPECT_EQ(round_up(piece.orig_len, 4096), piece.cnt * 4096U);
            EXPECT_EQ(piece.offset, block_offset + piece.begin * 4096U);
            EXPECT_LE(piece.offset + piece.orig_len, owners[extent.inode_no].size);
        }
    }
}

TEST_P(SampleV2, HeadAndBitmapSumUpThePieces)
{
    for (const ExtentV2 &extent : extents_in_use()) {
        SCOPED_TRACE(extent.no);
        std::uint64_t held = 0;
        bool clean = true;
        std::set<std::uint64_t> pages;
        for (const auto &[mapno, piece] : extent.maps) {
            held += piece.orig_len;
            clean = clean && piece.clean == 1;
            for (std::uint64_t page = 0; page < piece.cnt; ++page)
                pages.insert(piece.begin + page);
        }
        EXPECT_EQ(extent.size, held);
        EXPECT_EQ(extent.clean, clean ? 1 : 0);
        for (std::uint64_t page = 0; page < extent.bitmap.size() * 64; ++page)
            EXPECT_EQ(has_page(extent, page), pages.contains(page)) << page;
    }
}

TEST_P(SampleV2, ToolFindsNoFault)
{
    expect_no_fault(device, tables[0], "[]");
    expect_no_fault(device, tables[1], "{ \"inode\":[]}");
    expect_no_fault(device, tables[2], "[]");
    expect_accepted(device, json(sb));
}

TEST_P(SampleV2, ToolShowsTheEntries)
{
    const std::vector<InodeV2> inode = inodes();
    const std::vector<ExtentV2> extent = extents();
    EXPECT_EQ(run_logged(device, "dump_inode", {"-n", "0"}).out,
              json(inode[0], inode_offset(sb, 0U)));
    EXPECT_EQ(run_logged(device, "dump_extent", {"-n", "0"}).out,
              json(extent[0], sb, extent_offset(sb, 0)));
}

TEST(SampleV2Pieces, SomeAreCleanSomeAreNotSomeAreMissing)
{
    const Device device = make_sample({}, "v2");
    const SuperV2 sb = decode_super_v2(device.block(4096));
    std::size_t clean = 0;
    std::size_t dirty = 0;
    std::size_t gaps = 0;
    for (std::uint64_t no = 0; no < sb.block_cnt; ++no) {
        const auto at = static_cast<std::uint64_t>(extent_offset(sb, no));
        const ExtentV2 extent = decode_extent_v2(device.block(at), sb);
        std::uint32_t expected = extent.maps.empty() ? 0 : extent.maps.begin()->first;
        for (const auto &[mapno, piece] : extent.maps) {
            (piece.clean == 1 ? clean : dirty)++;
            gaps += mapno == expected ? 0 : 1;
            expected = mapno + 1;
        }
    }
    EXPECT_GT(clean, 0U);
    EXPECT_GT(dirty, 0U);
    EXPECT_GT(gaps, 0U);
}

TEST(SampleV2Pieces, BlocksOfTooManyAreRefused)
{
    for (const std::string size : {"2101248", "3145728", "4190208"})
        expect_refused({"--block-size", size},
                       "--block-size " + size + ": a block would have more than 64 mapped pieces",
                       "v2");
}

TEST(SampleV2Seed, SameArgumentsGiveTheSameBytes)
{
    const std::vector<std::string> small{"--blocks", "8", "--block-size", "262144"};
    const auto image = [&small](const std::string &seed) {
        std::vector<std::string> args = small;
        args.insert(args.end(), {"--seed", seed});
        return make_sample(args, "v2").bytes();
    };
    EXPECT_EQ(image("5"), image("5"));
    EXPECT_EQ(image("1"), make_sample(small, "v2").bytes());
    EXPECT_NE(image("5"), image("6"));
}

} // namespace
