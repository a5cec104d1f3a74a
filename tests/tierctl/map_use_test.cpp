// zu_tierctl map --html: use by brick, and ages.

#include "map_fixture.h"

using namespace tier_test;

namespace {

constexpr char AGES[] = "Inodes by the time from their last access to the newest one";

class MapUse : public MapTest {};

TEST_F(MapUse, UseByBrick)
{
    std::vector<BrickV1> bricks{brick_used(0), brick_used(2), brick_used(3)};
    std::vector<InodeV1> inodes;
    const auto add = [&inodes](std::uint32_t brick, std::uint64_t size) {
        inodes.push_back(inode_used(static_cast<std::uint32_t>(inodes.size()), brick));
        inodes.back().size = size;
    };
    add(0, 1023);
    add(2, 1024);
    add(2, 512);
    add(1, std::uint64_t{5} << 30); // of a brick that is free
    add(4294967295, 7);             // no such brick
    add(3, 0xFFFFFFFFFFFFFFFF);
    add(3, 0xFFFFFFFFFFFFFFFF); // more than 64 bits can hold
    const SuperV1 sb = super_v1(4, 8, 9);
    std::vector<ExtentV1> extents;
    for (const std::uint32_t inode : {1U, 2U, 2U, 3U, 7U, 100U}) // 7 is free, 100 does not exist
        extents.push_back(extent_used(extents.size(), inode));
    const Device device = make_v1_device(sb, bricks, inodes, extents);
    EXPECT_EQ(rows_of(page_of(device), "Use by brick"),
              (Rows{{"2", "2", "1.5 KiB", "3", "", bricks[1].brickid},
                    {"other", "1", "7", "2", "", "not known"},
                    {"1", "1", "5.0 GiB", "1", "", "not in use, or damaged"},
                    {"3", "2", "16.0 EiB", "0", "", bricks[2].brickid},
                    {"0", "1", "1023", "0", "", bricks[0].brickid}}));
}

TEST_F(MapUse, MoreBricksThanALayoutHas)
{
    const Device device = make_v1_device(super_v1(302, 2, 2), {brick_used(299), brick_used(300)},
                                         {inode_used(0, 300), inode_used(1, 301)},
                                         {extent_used(0, 0), extent_used(1, 1)});
    EXPECT_EQ(rows_of(page_of(device), "Use by brick"),
              (Rows{{"other", "2", "16.0 EiB", "2", "", "not known"},
                    {"299", "0", "0", "0", "", brick_used(299).brickid}}));
}

TEST_F(MapUse, UseByBrickThroughShards)
{
    ShardBlockV3 shards;
    shards.shards = {{.slot = 1, .ino = 0}, {.slot = 2, .ino = 1}, {.slot = 3, .ino = 9}};
    ExtentBlockV3 extents;
    for (const std::uint32_t shard : {1U, 2U, 2U, 3U, 4U}) {
        const auto slot = static_cast<std::uint32_t>(extents.extents.size());
        extents.extents.push_back({.slot = slot, .lba = slot, .shard = shard});
    }
    const Device device =
        make_v3_device(super_v3(2, 3), {brick_v3_used(0), brick_v3_used(1)},
                       {inode_v3_used(0, 1), inode_v3_used(1, 0)}, {{0, shards}}, {{0, extents}});
    const Rows rows = rows_of(page_of(device), "Use by brick");
    ASSERT_EQ(rows.size(), 3U);
    for (const auto &[row, name, count] :
         {std::tuple{0, "0", "2"}, std::tuple{1, "other", "2"}, std::tuple{2, "1", "1"}}) {
        EXPECT_EQ(rows.at(static_cast<std::size_t>(row)).at(0), name);
        EXPECT_EQ(rows.at(static_cast<std::size_t>(row)).at(3), count);
    }
}

TEST_F(MapUse, AgesAreMeasuredFromTheNewestAccess)
{
    constexpr std::uint64_t HOUR = 3600 * std::uint64_t{1'000'000'000};
    constexpr std::uint64_t DAY = 24 * HOUR;
    const std::uint64_t newest = 1'700'000'000'000'000'000;
    std::vector<InodeV1> inodes;
    for (const std::uint64_t age :
         {std::uint64_t{0}, HOUR, HOUR + 1, DAY, DAY + 1, DAY + 2, 7 * DAY + 1, 30 * DAY, 40 * DAY,
          365 * DAY, 365 * DAY + 1, newest}) {
        inodes.push_back(inode_used(static_cast<std::uint32_t>(inodes.size()), 0));
        inodes.back().atime = newest - age;
    }
    const Device device = make_v1_device(super_v1(1, 20, 1), {brick_used(0)}, inodes);
    EXPECT_EQ(rows_of(page_of(device), AGES), (Rows{{"hour", "2", ""},
                                                    {"day", "2", ""},
                                                    {"week", "2", ""},
                                                    {"month", "2", ""},
                                                    {"year", "2", ""},
                                                    {"older", "2", ""}}));
}

TEST_F(MapUse, NothingInUse)
{
    const Device device = make_v1_device(super_v1(2, 3, 4));
    const pugi::xml_document page = page_of(device);
    EXPECT_EQ(rows_of(page, "Use by brick"), Rows{});
    for (const auto &row : rows_of(page, AGES))
        EXPECT_EQ(row.at(1), "0");
    EXPECT_EQ(texts_of(page, "//dd").size(), 4U); // no last access
}

} // namespace
