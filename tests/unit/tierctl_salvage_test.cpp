// What a salvage copies of a layout that joins the others, and what a mapfile lets it read.

#include "fourth_layout.h"
#include "hostile_super.h"
#include "v2_device.h"
#include "v3_device.h"
#include "zu_tierctl/device/mapfile.h"
#include "zu_tierctl/salvage/domain.h"
#include "zu_tierctl/salvage/plan.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Boxes hold 100 bytes each of a file of their shelf, at their place, and clean ones are light.
constexpr std::uint64_t DEPOT_DATA = 0x10000;

constexpr tier_data DATA = {
    .placed = true,
    .block_size = [](const void *) { return std::uint64_t{BLOCK_SIZE}; },
    .pieces =
        [](const void *, const std::uint8_t *entry, std::uint64_t no, tier_piece *to) {
            const std::uint64_t word = get_u64({entry, 8}, 0);
            *to = {.part = 0,
                   .clean = BOX_WEIGHT.get(word) <= 100,
                   .place = BOX_PLACE.get(word) * 100,
                   .start = DEPOT_DATA + (512 - no % 512) * BLOCK_SIZE, // backwards
                   .length = 100};
            return std::uint32_t{1};
        }};

class DepotData : public testing::Test {
protected:
    DepotData()
    {
        boxes.data = &DATA;
        layout.tables = tables;
        EXPECT_TRUE(opened.read(TIER_SUPER_OFFSET, super.data(), BLOCK_SIZE));
    }

    std::vector<std::string> planned(const tierctl::DataChoice &choice) const
    {
        const tierctl::Metadata metadata = tierctl::make_metadata(layout, super, opened);
        const tierctl::DataPlan plan(opened, metadata, choice);
        std::vector<std::string> pieces;
        for (const tierctl::DataPiece &piece : plan.pieces())
            pieces.push_back(text("%s %lu at %lu by %s", plan.path(piece).c_str(),
                                  plan.offset(piece), (piece.start - DEPOT_DATA) / BLOCK_SIZE,
                                  tierctl::held_by_text(piece.by).data()));
        EXPECT_EQ(plan.bytes(), pieces.size() * 100);
        EXPECT_TRUE(plan.tell_unknown());
        return pieces;
    }

    static std::string shelf(std::uint8_t number)
    {
        Uuid uuid{};
        uuid[0] = number;
        return uuid_text(uuid);
    }

    Device device = make_depot();
    const tierctl::Device opened{device.path(), tierctl::Access::read_only};
    alignas(BLOCK_SIZE) tierctl::Block super;
    tier_table boxes = *DEPOT_LAYOUT.tables[2];
    const tier_table *tables[3] = {DEPOT_LAYOUT.tables[0], DEPOT_LAYOUT.tables[1], &boxes};
    tier_layout layout = DEPOT_LAYOUT;
};

TEST_F(DepotData, InTheOrderOfTheDevice)
{
    using Pieces = std::vector<std::string>;
    const Pieces heavy{shelf(1) + " 800 at 1 by piece", shelf(3) + " 700 at 507 by piece"};
    EXPECT_EQ(planned({}), heavy);
    Pieces all = heavy;
    all.push_back(shelf(1) + " 700 at 511 by piece");
    EXPECT_EQ(planned({.all = true}), all);
    EXPECT_EQ(planned({.all = true, .filters = {{.table = "shelf", .no = 2, .uuid = {}}}}),
              Pieces{heavy[1]});
    EXPECT_EQ(planned({.all = true, .filters = {{.table = "box", .no = 2, .uuid = {}}}}), Pieces{});
    put_box(device, 1, 9, box_word(1, 7, 200)); // on a free shelf
    put_box(device, 1, 8, box_word(77, 7, 200));
    EXPECT_EQ(planned({}), (Pieces{heavy[0], "unknown/shelf-1 700 at 503 by piece",
                                   "unknown/shelf-77 700 at 504 by piece", heavy[1]}));
}

TEST_F(DepotData, OfALayoutThatTellsNothing)
{
    layout.tables = DEPOT_LAYOUT.tables;
    try {
        planned({});
        FAIL();
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "where layout depot keeps data is not known");
    }
}

// Whatever a sealed super block says, a plan has no more pieces than the entries in use can hold,
// and names that the device does not choose.
void expect_plans_of_hostile(int version, Device device)
{
    constexpr char NAMES[] = "0123456789abcdefghijklmnopqrstuvwxyz-/.";
    const Block sound = device.block(SUPER_OFFSET);
    std::size_t plans = 0;
    std::size_t with_pieces = 0;
    for (const HostileSuper &hostile : hostile_supers(version, sound)) {
        SCOPED_TRACE(hostile.what);
        device.write(SUPER_OFFSET, hostile.block);
        const tierctl::Device opened(device.path(), tierctl::Access::read_only);
        const tierctl::Metadata metadata = tierctl::read_metadata(opened);
        try {
            const tierctl::DataPlan plan(opened, metadata, {.all = true});
            plans++;
            with_pieces += plan.pieces().empty() ? 0 : 1;
            EXPECT_LE(plan.pieces().size(), 64U);
            for (const tierctl::DataPiece &piece : plan.pieces()) {
                EXPECT_GT(piece.length, 0U);
                EXPECT_EQ(plan.path(piece).find_first_not_of(NAMES), std::string::npos);
                EXPECT_EQ(plan.path(piece).find(".."), std::string::npos);
            }
        } catch (const std::runtime_error &error) {
            EXPECT_NE(std::string(error.what()).find("more than any has"), std::string::npos);
        }
    }
    EXPECT_GT(plans, 40U);
    EXPECT_GT(with_pieces, plans / 2);
}

TEST(HostilePlans, OfV1)
{
    expect_plans_of_hostile(1, make_v1_device(super_v1(3, 5, 6), {brick_used(1)},
                                              {inode_used(2, 1)}, {extent_used(0, 2)}));
}

TEST(HostilePlans, OfV2)
{
    ExtentV2 extent = extent_v2_used(1, 2);
    extent.maps = {{0, {0, 0, 8192, 0, 2}}, {31, {4096, 1, 8192, 4, 2}}};
    expect_plans_of_hostile(
        2, make_v2_device(super_v2(3, 5, 6), {brick_used(1)}, {inode_v2_used(2, 1)}, {extent}));
}

TEST(HostilePlans, OfV3)
{
    ShardBlockV3 shards;
    shards.shards = {{.slot = 1, .ino = 2, .index = 7}};
    ExtentBlockV3 extents;
    extents.extents = {{.slot = 0, .lba = 9, .shard = 1}, {.slot = 7, .lba = 8, .shard = 77}};
    expect_plans_of_hostile(3,
                            make_v3_device(super_v3(3, 5), {brick_v3_used(1)},
                                           {inode_v3_used(2, 1)}, {{0, shards}}, {{2, extents}}));
}

TEST(MapfileStretches, OnlyWhatIsFinished)
{
    const TempDir directory;
    const tierctl::Mapfile map(directory.write(
        "map", "0 + 1\n0 4096 ?\n4096 4096 +\n8192 4096 +\n12288 512 *\n12800 100 +\n"));
    EXPECT_EQ(map.end(), 12900U);
    EXPECT_FALSE(map.is_finished(0, 4096));
    EXPECT_FALSE(map.is_finished(4095, 2));
    EXPECT_TRUE(map.is_finished(4096, 8192));
    EXPECT_TRUE(map.is_finished(8000, 400));
    EXPECT_FALSE(map.is_finished(4096, 8193));
    EXPECT_TRUE(map.is_finished(12800, 100));
    EXPECT_FALSE(map.is_finished(12800, 101));
    EXPECT_FALSE(map.is_finished(20000, 1));
    EXPECT_TRUE(tierctl::Mapfile().is_finished(20000, 1));
}

TEST(MapfileStretches, AreWrittenWithoutGaps)
{
    std::string map;
    tierctl::MapfileWriter writer(10000, [&map](std::string_view more) { map += more; });
    using enum tierctl::CopyStatus;
    writer.add(100, 50, finished);
    writer.add(120, 10, failed); // is covered
    writer.add(140, 60, finished);
    writer.add(200, 0, failed);
    writer.add(200, 100, failed);
    writer.add(9000, ~std::uint64_t{0}, finished);
    writer.add(10000, 5, failed);
    writer.add(~std::uint64_t{0}, 5, failed);
    writer.finish();
    const std::size_t head = map.find("pass\n") + 5;
    EXPECT_EQ(map.substr(head), "0x00000000     ?               1\n"
                                "#      pos        size  status\n"
                                "0x00000000  0x00000064  ?\n"
                                "0x00000064  0x00000064  +\n"
                                "0x000000c8  0x00000064  -\n"
                                "0x0000012c  0x000021fc  ?\n"
                                "0x00002328  0x000003e8  +\n");
}

} // namespace
