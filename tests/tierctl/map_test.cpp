// zu_tierctl map --html: what the page shows.

#include "map_fixture.h"

#include <algorithm>
#include <optional>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class Map : public MapTest {};

class MapLayouts : public MapTest, public testing::WithParamInterface<std::string> {
protected:
    const Cache cache = make_cache(GetParam());
    std::vector<MapTable> tables = map_of(cache);
};

INSTANTIATE_TEST_SUITE_P(Layout, MapLayouts, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(MapLayouts, EveryEntryIsInACell)
{
    const auto before = cache.device.bytes();
    expect_map(cache.device, tables);
    EXPECT_TRUE(cache.device.bytes() == before);
}

TEST_P(MapLayouts, DamageIsWhereItIs)
{
    for (std::size_t i = 1; i < tables.size(); ++i) {
        if (tables[i].name != "hot") { // opaque: its content has no checksum
            flip(cache.device, cache.offset(tables[i].name, 1) + 20);
            tables[i].set_slot(1, "damaged");
        }
    }
    expect_map(cache.device, tables);
}

TEST_P(MapLayouts, WhatDoesNotReachTheDeviceIsUnreadable)
{
    const CacheTable &extents = cache.table("extent");
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(extents.offset(2)));
    for (std::uint64_t slot = 2; slot < extents.count; ++slot)
        table_of(tables, "extent").set_slot(slot, "unreadable");
    expect_map(cache.device, tables);
}

// The looks of cells, by what the legend calls them.
TEST_F(Map, TheLegendShowsTheLooksOfCells)
{
    const Cache cache = make_cache("v1");
    const pugi::xml_document page = page_of(cache.device);
    std::map<std::string, std::string> shown;
    for (const pugi::xpath_node &entry : page.select_nodes("//ul[@class='legend']/li")) {
        const pugi::xpath_node_set cells = entry.node().select_nodes("span/i");
        if (cells.size() == 1)
            shown[entry.node().child("span").next_sibling().value()] =
                cells[0].node().attribute("class").value();
    }
    const std::map<std::string, std::string> looks = {{"dirty: not written back", "d"},
                                                      {"free", "u0"},
                                                      {"finding", "f"},
                                                      {"damaged", "x"},
                                                      {"unreadable", "q"}};
    EXPECT_EQ(shown, looks);
}

TEST_P(MapLayouts, HeadNamesTheDevice)
{
    const pugi::xml_document page = page_of(cache.device);
    EXPECT_EQ(texts_of(page, "//h1").at(0), cache.device.path());
    EXPECT_EQ(texts_of(page, "//title").at(0), "Map of " + cache.device.path());
    const std::string identity = uuid_text(numbered_uuid(GetParam() == "v3" ? 0x53 : 0x51));
    std::vector<std::string> facts = texts_of(page, "//dd");
    ASSERT_EQ(facts.size(), 5U);
    facts.pop_back();
    const std::uint64_t atime = inode_used(2, 1).atime;
    EXPECT_EQ(facts,
              (std::vector<std::string>{GetParam(), identity, time_text(1'600'000'000'123'456'789U),
                                        time_text(atime)}));
}

TEST_P(MapLayouts, FindingsWithTheCommandsThatShowThem)
{
    flip(cache.device, cache.offset("inode", 3) + 20);
    const Rows rows = rows_of(page_of(cache.device), "Findings");
    const std::string command =
        "zu_tier -l tier.log -p " + cache.device.path() + " -c dump_inode -n 3";
    const std::vector<std::string> row{"error", "inode 3",
                                       "its checksum does not match its content", command};
    EXPECT_EQ(std::ranges::count(rows, row), 1);
}

TEST_P(MapLayouts, GridsCanBeReachedByKeys)
{
    const pugi::xml_document page = page_of(cache.device);
    const pugi::xpath_node_set found = page.select_nodes("//div[starts-with(@class, 'grid')]");
    EXPECT_EQ(found.size(), tables.size());
    for (const pugi::xpath_node &grid : found) {
        const pugi::xml_node element = grid.node();
        EXPECT_EQ(element.attribute("tabindex").as_int(-1), 0);
        const std::string name = element.attribute("data-name").value();
        EXPECT_TRUE(std::string(element.attribute("aria-label").value()).starts_with(name + ": "));
    }
}

TEST_F(Map, CellsOfSeveralEntries)
{
    // 6001 inodes in cells of three.
    std::vector<InodeV1> inodes;
    MapTable table = free_table("inode", 6001);
    for (const std::uint32_t no : {0U, 1U, 2U, 3U, 100U, 101U, 2000U, 6000U}) {
        inodes.push_back(inode_used(no, 0));
        put_u32(inodes.back().uuid, 0, no);
        table.set(no, "in use");
    }
    const Device device = make_v1_device(super_v1(1, 6001, 1), {brick_used(0)}, inodes);
    std::vector<MapTable> tables{free_table("super", 1), free_table("brick", 1), table,
                                 free_table("extent", 1)};
    tables[0].set(0, "in use");
    tables[1].set(0, "in use");
    expect_map(device, tables);
}

TEST_F(Map, ExpansionInodesFollowTheOthers)
{
    SuperV2 sb = super_v2(1, 4, 2);
    set_expansion(sb, EXPANSION_UNIT, true);
    const Device device =
        make_v2_device(sb, {brick_used(0)}, {inode_v2_used(4 + 25599, 0)}, {}, Expansion::SPARSE);
    const std::vector<Grid> grids = grids_of(page_of(device));
    const Grid &inodes = grids.at(2);
    EXPECT_EQ(inodes.counts.at("free"), 4U);
    EXPECT_EQ(inodes.counts.at("in use"), 1U);
    EXPECT_EQ(inodes.counts.at("damaged"), 25599U);
    EXPECT_EQ(inodes.cells.back().last, 25603U);
    EXPECT_EQ(inodes.cells.back().counts.at("in use"), 1U);
    EXPECT_LE(inodes.cells.size(), 3000U);

    // No cell has entries of both.
    ASSERT_EQ(inodes.expansion, std::optional<std::size_t>(1));
    EXPECT_EQ(inodes.cells[0].last, 3U);
    EXPECT_EQ(inodes.cells[1].first, 4U);
    EXPECT_EQ(
        std::ranges::count_if(grids, [](const Grid &grid) { return grid.expansion.has_value(); }),
        1);
    CountsByWord sum;
    for (const Cell &cell : inodes.cells) {
        for (const auto &[word, count] : cell.counts)
            sum[word] += count;
    }
    EXPECT_EQ(sum, inodes.counts);
}

// Of a grid the cells in rows: the number at the row's start, then the cells.
TEST_P(MapLayouts, RowsBeginWithTheirFirstNumber)
{
    for (const Grid &grid : grids_of(page_of(cache.device))) {
        SCOPED_TRACE(grid.name);
        std::vector<std::pair<std::size_t, std::uint64_t>> expected;
        const std::size_t row = grid.cells.size() <= 600 ? 32 : 64;
        for (std::size_t at = 0; at < grid.cells.size(); at += row)
            expected.emplace_back(at, grid.cells[at].first);
        EXPECT_EQ(grid.axis, expected);
    }
}

TEST_F(Map, TheExpansionHasRowsOfItsOwn)
{
    SuperV2 sb = super_v2(1, 100, 2);
    set_expansion(sb, EXPANSION_UNIT, true);
    const Device device = make_v2_device(sb, {brick_used(0)}, {}, {}, Expansion::SPARSE);
    const Grid inodes = grids_of(page_of(device)).at(2);
    const std::uint64_t cell = (100 + EXPANSION_UNIT - 1) / 2999 + 1;
    const std::size_t before = (100 + cell - 1) / cell;
    ASSERT_EQ(inodes.expansion, std::optional(before));
    std::vector<std::pair<std::size_t, std::uint64_t>> expected;
    for (std::size_t at = 0; at < before; at += 64)
        expected.emplace_back(at, at * cell);
    for (std::size_t at = 0; at < inodes.cells.size() - before; at += 64)
        expected.emplace_back(before + at, 100 + at * cell);
    EXPECT_EQ(inodes.axis, expected);
}

TEST_F(Map, ACleanDeviceHasNoFindings)
{
    const Device device = make_sample({}, "v3");
    const std::string page = page_text(device);
    EXPECT_NE(page.find("There are none."), std::string::npos);
    EXPECT_EQ(rows_of(parse_page(page), "Findings"), Rows{});
}

TEST_F(Map, TextsOfDamagedEntriesAreOnlyText)
{
    const std::string path = "<script>alert(\"x\")</script>&amp;'\x1b[31m\xff\x80\n";
    BrickV1 brick = brick_used(0);
    brick.brickid = path;
    const Device device = make_v1_device(super_v1(1, 1, 1), {brick});
    const std::string page = page_text(device);
    EXPECT_EQ(page.find("<script>alert"), std::string::npos);
    EXPECT_EQ(page.find('\x1b'), std::string::npos);
    const std::string shown = R"("<script>alert(\"x\")</script>&amp;'\x1b[31m\xff\x80\x0a")";
    EXPECT_EQ(rows_of(parse_page(page), "Use by brick").at(0).at(5), shown);
}

TEST_F(Map, OddNamesOfDevices)
{
    const Cache cache = make_cache("v1");
    flip(cache.device, cache.offset("inode", 3) + 20);
    const TempDir odd;
    const std::string path = odd.path("a <b> & \"c\" 'd'\t\xC3\xA4\xFF");
    fs::copy_file(cache.device.path(), path);
    ASSERT_EQ(map(path).status, 0);
    const pugi::xml_document page = parse_page(read_file(file));
    const std::string directory_of = path.substr(0, path.find("a <b>"));
    EXPECT_EQ(texts_of(page, "//h1").at(0),
              '"' + directory_of + R"(a <b> & \"c\" 'd'\x09\xc3\xa4\xff")");
    const std::string command = "zu_tier -l tier.log -p $'" + directory_of +
                                R"(a <b> & "c" \'d\'\011\303\244\377' -c dump_inode -n 3)";
    EXPECT_EQ(std::ranges::count(texts_of(page, "//code"), command), 1);
}

TEST_F(Map, TheFirstThousandFindings)
{
    std::vector<ExtentV1> extents;
    for (std::uint64_t no = 0; no < 1010; ++no) {
        extents.push_back(extent_used(no, 0)); // which is free
        extents.back().size = 1;
    }
    Device device = make_v1_device(super_v1(1, 1, 1010), {}, {}, extents);
    const SuperV1 sb = super_v1(1, 1, 1010);
    device.truncate(sb.data_offset + std::uint64_t{sb.block_size} * sb.block_cnt);
    const Rows rows = rows_of(page_of(device), "Findings");
    ASSERT_EQ(rows.size(), 1001U);
    EXPECT_EQ(rows[0].at(1), "extent 0");
    EXPECT_EQ(rows[999].at(1), "extent 999");
    EXPECT_EQ(rows[1000], std::vector<std::string>{"and 10 more"});
}

TEST_F(Map, LargeTablesStaySmall)
{
    const Device device = make_sample({"--extents", "1048576"}, "v3");
    RunOptions options;
    options.timeout = std::chrono::seconds(20);
    ASSERT_EQ(map(device.path(), options).status, 0);
    EXPECT_LT(fs::file_size(file), MIB);
    const std::vector<Grid> grids = grids_of(parse_page(read_file(file)));
    const Grid &extents = grids.back();
    EXPECT_EQ(extents.name, "extent");
    EXPECT_EQ(extents.counts.at("in use") + extents.counts.at("free"), 1048576U);
    EXPECT_LE(extents.cells.size(), 3000U);
    CountsByWord sum;
    std::uint64_t next = 0;
    for (const Cell &cell : extents.cells) {
        EXPECT_EQ(cell.first, next);
        next = cell.last + 1;
        for (const auto &[word, count] : cell.counts)
            sum[word] += count;
    }
    EXPECT_EQ(next, 1048576U);
    EXPECT_EQ(sum, extents.counts);
}

} // namespace
