// zu_tierctl map --html: use by brick, and ages.

#include "map_fixture.h"

using namespace tier_test;

namespace {

constexpr char AGES[] = "inode ages: time from the last access to the newest one";

constexpr std::uint64_t HOUR = 3600 * std::uint64_t{1'000'000'000};
constexpr std::uint64_t DAY = 24 * HOUR;
constexpr std::uint64_t YEAR = 365 * DAY;
constexpr std::uint64_t NEWEST = 1'700'000'000'000'000'000;

using Texts = std::vector<std::string>;

class MapUse : public MapTest {
protected:
    // The counts beside the ages of inodes with these times of access, and what stands below them.
    std::pair<Texts, Texts> ages_of(const std::vector<std::uint64_t> &accesses) const
    {
        std::vector<InodeV1> inodes;
        for (const std::uint64_t access : accesses) {
            inodes.push_back(inode_used(static_cast<std::uint32_t>(inodes.size()), 0));
            inodes.back().atime = access;
        }
        const auto count = static_cast<std::uint32_t>(inodes.size());
        const Device device = make_v1_device(super_v1(1, count, 1), {brick_used(0)}, inodes);
        const pugi::xml_document page = page_of(device);
        Texts counts;
        for (const auto &row : rows_of(page, AGES))
            counts.push_back(row.at(1));
        const std::string notes = std::string("//section[h2='") + AGES + "']/p";
        return {counts, texts_of(page, notes.c_str())};
    }
};

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
    const std::string size = "15.0 EiB"; // 0xF000... bytes
    EXPECT_EQ(rows_of(page_of(device), "Use by brick"),
              (Rows{{"0", "1", size, "1", "2", "", brick_v3_used(0).brickid},
                    {"other", "0", "0", "1", "2", "", "not known"},
                    {"1", "1", size, "1", "1", "", brick_v3_used(1).brickid}}));
}

// Cells and bricks with data that was not written back, where there is any.
TEST_F(MapUse, DirtyExtents)
{
    std::vector<ExtentV1> extents;
    for (std::uint64_t no = 0; no < 300; ++no) {
        extents.push_back(extent_used(no, no < 200 ? 0 : 1));
        extents.back().clean = no == 7 || no > 200 ? 0 : 1; // 1 of 200, 99 of 100
    }
    const Device device =
        make_v1_device(super_v1(3, 3, 301), {brick_used(0), brick_used(1), brick_used(2)},
                       {inode_used(0, 0), inode_used(1, 1), inode_used(2, 2)}, extents);
    const pugi::xml_document page = page_of(device);
    std::map<std::string, std::string> shares;
    for (const auto &row : rows_of(page, "Use by brick"))
        shares[row.at(0)] = row.at(4);
    EXPECT_EQ(shares, (std::map<std::string, std::string>{{"0", "1%"}, {"1", "99%"}, {"2", "0%"}}));
    EXPECT_EQ(texts_of(page, "//table[preceding::h2[1]='Use by brick']//th").at(4), "dirty");
    const std::vector<Grid> grids = grids_of(page);
    const auto extents_grid = std::ranges::find(grids, "extent", &Grid::name);
    ASSERT_NE(extents_grid, grids.end());
    EXPECT_EQ(extents_grid->counts.at("dirty"), 100U);
    std::uint64_t dirty = 0;
    for (const Cell &cell : extents_grid->cells)
        dirty += cell.counts.contains("dirty") ? 1 : 0;
    EXPECT_EQ(dirty, 100U);
}

TEST_F(MapUse, AgesAreMeasuredFromTheNewestAccess)
{
    std::vector<InodeV1> inodes;
    for (const std::uint64_t age : {std::uint64_t{0}, HOUR, HOUR + 1, DAY, DAY + 1, DAY + 2,
                                    7 * DAY + 1, 30 * DAY, 40 * DAY, YEAR, YEAR + 1, NEWEST}) {
        inodes.push_back(inode_used(static_cast<std::uint32_t>(inodes.size()), 0));
        inodes.back().atime = NEWEST - age;
    }
    const Device device = make_v1_device(super_v1(1, 20, 1), {brick_used(0)}, inodes);
    EXPECT_EQ(rows_of(page_of(device), AGES), (Rows{{"hour", "2", ""},
                                                    {"day", "2", ""},
                                                    {"week", "2", ""},
                                                    {"month", "2", ""},
                                                    {"year", "2", ""},
                                                    {"older", "2", ""}}));
}

TEST_F(MapUse, OneOddStampDoesNotAgeTheOthers)
{
    const auto left_out = [](std::uint64_t count, std::uint64_t latest) {
        return Texts{text("%lu left out: more than a year later than all others, up to %s", count,
                          time_text(latest).c_str())};
    };
    const std::vector<std::uint64_t> sound{NEWEST, NEWEST - HOUR, NEWEST - DAY, NEWEST - 8 * DAY};
    const auto with = [&sound](const std::vector<std::uint64_t> &odd) {
        std::vector<std::uint64_t> all = sound;
        all.insert(all.begin() + 1, odd.begin(), odd.end());
        return all;
    };
    EXPECT_EQ(ages_of(sound), (std::pair{Texts{"2", "1", "0", "1", "0", "0"}, Texts{}}));
    for (const std::uint64_t odd : {~std::uint64_t{0}, std::uint64_t{1} << 63, NEWEST + YEAR + 1})
        EXPECT_EQ(ages_of(with({odd})),
                  (std::pair{Texts{"2", "1", "0", "1", "0", "0"}, left_out(1, odd)}));
    EXPECT_EQ(ages_of(with({0})), (std::pair{Texts{"2", "1", "0", "1", "0", "1"}, Texts{}}));
    // It may be as it seems: exactly a year, two of six, one of two.
    EXPECT_EQ(ages_of(with({NEWEST + YEAR})),
              (std::pair{Texts{"1", "0", "0", "0", "1", "3"}, Texts{}}));
    EXPECT_EQ(ages_of(with({NEWEST + 2 * YEAR, NEWEST + 2 * YEAR})),
              (std::pair{Texts{"2", "0", "0", "0", "0", "4"}, Texts{}}));
    EXPECT_EQ(ages_of({NEWEST, NEWEST + 2 * YEAR}),
              (std::pair{Texts{"1", "0", "0", "0", "0", "1"}, Texts{}}));
    EXPECT_EQ(ages_of({NEWEST, NEWEST, NEWEST + 2 * YEAR}),
              (std::pair{Texts{"2", "0", "0", "0", "0", "0"}, left_out(1, NEWEST + 2 * YEAR)}));
}

TEST_F(MapUse, OneInAHundredStampsMayBeOdd)
{
    std::vector<std::uint64_t> accesses(197, NEWEST);
    accesses.insert(accesses.end(), {NEWEST + 2 * YEAR, NEWEST + 9 * YEAR, NEWEST});
    const auto [counts, notes] = ages_of(accesses);
    EXPECT_EQ(counts, (Texts{"198", "0", "0", "0", "0", "0"}));
    EXPECT_EQ(notes.size(), 1U);
    EXPECT_TRUE(notes.at(0).starts_with("2 left out")) << notes.at(0);
    accesses.pop_back(); // of 199 only one may
    accesses[198] = accesses[197];
    EXPECT_EQ(ages_of(accesses).first, (Texts{"2", "0", "0", "0", "0", "197"}));
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
