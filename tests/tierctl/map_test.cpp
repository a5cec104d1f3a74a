// zu_tierctl map --html: what the page shows.

#include "map_model.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

using Rows = std::vector<std::vector<std::string>>;

constexpr char AGES[] = "Inodes by the time from their last access to the newest one";

class Map : public testing::Test {
protected:
    const TempDir directory;
    const std::string file = directory.path("map.html");

    RunResult map(const std::string &device, const RunOptions &options = {}) const
    {
        return run_ctl({"map", device, "--html", file}, options);
    }

    // The text of a page that needs nothing else; it must be written without a word.
    std::string page_text(const Device &device) const
    {
        fs::remove(file);
        const RunResult run = map(device.path());
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out + run.err, "");
        EXPECT_EQ(names_in(directory), std::vector<std::string>{"map.html"});
        std::string page = read_file(file);
        for (const std::string word : {"http", "src=", "@import", "url(", "href="})
            EXPECT_EQ(page.find(word), std::string::npos) << word;
        return page;
    }

    Element page_of(const Device &device) const { return parse_page(page_text(device)); }

    void expect_map(const Device &device, std::vector<MapTable> tables) const
    {
        add_findings(tables, device.path());
        expect_grids(page_of(device), tables);
    }

    void expect_refused(const std::string &device, const std::string &complaint) const
    {
        const std::vector<std::string> before = names_in(directory);
        expect_complaint(map(device), 1, complaint);
        EXPECT_EQ(names_in(directory), before);
    }
};

class MapLayouts : public Map, public testing::WithParamInterface<std::string> {
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
        if (tables[i].name != "hot") { // whose content nobody knows
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

TEST_P(MapLayouts, HeadNamesTheDevice)
{
    const Element page = page_of(cache.device);
    EXPECT_EQ(page.all("h1").at(0)->text, cache.device.path());
    EXPECT_EQ(page.all("title").at(0)->text, "Map of " + cache.device.path());
    const std::string identity = uuid_text(numbered_uuid(GetParam() == "v3" ? 0x53 : 0x51));
    std::vector<std::string> facts;
    for (const Element *fact : page.all("dd"))
        facts.push_back(fact->text);
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
    const std::string command = "zu_tier -p " + cache.device.path() + " -c dump_inode -n 3";
    const std::vector<std::string> row{"error", "inode 3",
                                       "its checksum is not that of its content", command};
    EXPECT_EQ(std::ranges::count(rows, row), 1);
}

TEST_P(MapLayouts, GridsCanBeReachedByKeys)
{
    const Element page = page_of(cache.device);
    for (const Element *element : page.all("div")) {
        if (element->attribute("class").starts_with("grid")) {
            EXPECT_EQ(element->attribute("tabindex"), "0");
            EXPECT_TRUE(element->attribute("aria-label")
                            .starts_with(element->attribute("data-name") + ": "));
        }
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
}

TEST_F(Map, UseByBrick)
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
    add(3, 0xFFFFFFFFFFFFFFFF); // more than can be told
    const SuperV1 sb = super_v1(4, 8, 9);
    std::vector<ExtentV1> extents;
    for (const std::uint32_t inode : {1U, 2U, 2U, 3U, 7U, 100U}) // 7 is free, 100 does not exist
        extents.push_back(extent_used(extents.size(), inode));
    const Device device = make_v1_device(sb, bricks, inodes, extents);
    EXPECT_EQ(rows_of(page_of(device), "Use by brick"),
              (Rows{{"2", "2", "1.5 KiB", "3", "", bricks[1].brickid},
                    {"other", "1", "7", "2", "", "not known"},
                    {"1", "1", "5.0 GiB", "1", "", "not in use"},
                    {"3", "2", "16.0 EiB", "0", "", bricks[2].brickid},
                    {"0", "1", "1023", "0", "", bricks[0].brickid}}));
}

TEST_F(Map, MoreBricksThanALayoutHas)
{
    const Device device = make_v1_device(super_v1(302, 2, 2), {brick_used(299), brick_used(300)},
                                         {inode_used(0, 300), inode_used(1, 301)},
                                         {extent_used(0, 0), extent_used(1, 1)});
    EXPECT_EQ(rows_of(page_of(device), "Use by brick"),
              (Rows{{"other", "2", "16.0 EiB", "2", "", "not known"},
                    {"299", "0", "0", "0", "", brick_used(299).brickid}}));
}

TEST_F(Map, UseByBrickThroughShards)
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

TEST_F(Map, AgesAreMeasuredFromTheNewestAccess)
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

TEST_F(Map, NothingInUse)
{
    const Device device = make_v1_device(super_v1(2, 3, 4));
    const Element page = page_of(device);
    EXPECT_EQ(rows_of(page, "Use by brick"), Rows{});
    for (const auto &row : rows_of(page, AGES))
        EXPECT_EQ(row.at(1), "0");
    EXPECT_EQ(page.all("dd").size(), 4U); // no last access
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
    const Element page = parse_page(read_file(file));
    const std::string directory_of = path.substr(0, path.find("a <b>"));
    EXPECT_EQ(page.all("h1").at(0)->text,
              '"' + directory_of + R"(a <b> & \"c\" 'd'\x09\xc3\xa4\xff")");
    // What no page can hold is replaced by U+FFFD.
    const std::string command = "zu_tier -p '" + directory_of +
                                "a <b> & \"c\" '\\''d'\\''\xEF\xBF\xBD\xC3\xA4\xEF\xBF\xBD'"
                                " -c dump_inode -n 3";
    bool found = false;
    for (const Element *code : page.all("code"))
        found = found || code->text == command;
    EXPECT_TRUE(found);
}

TEST_F(Map, TheFirstThousandFindings)
{
    std::vector<ExtentV1> extents;
    for (std::uint64_t no = 0; no < 1010; ++no)
        extents.push_back(extent_used(no, 0)); // which is free
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

// Super blocks may be sealed and say anything.

TEST_F(Map, EmptyTables)
{
    SuperV3 sb = super_v3(3, 5);
    Device device = make_v3_device(sb);
    sb.brick_cnt = sb.inode_cnt = sb.shard_cnt = sb.extent_cnt = sb.hot_table_size = 0;
    put_block(device, SUPER_OFFSET, encode(sb));
    std::vector<MapTable> tables{free_table("super", 1)};
    tables[0].set(0, "in use");
    for (const std::string name : {"brick", "inode", "shard", "hot", "extent"})
        tables.push_back(free_table(name, 0));
    expect_map(device, tables);
}

TEST_F(Map, TablesThatNoDeviceHolds)
{
    SuperV3 sb = super_v3(3, 5);
    Device device = make_v3_device(sb);
    sb.inode_table_offset = 0xFFFFFFFFFFFFF000;
    sb.inode_cnt = 0xFFFFFFFFFFFFFFFF;
    sb.shard_cnt = 0xFFFFFFFFFFFFFFFF;
    sb.hot_table_offset = std::uint64_t{1} << 50;
    sb.hot_table_size = 0xFFFFFFFFFFFFFFFF;
    put_block(device, SUPER_OFFSET, encode(sb));
    for (const Grid &grid : grids_of(page_of(device))) {
        CountsByWord sum;
        for (const Cell &cell : grid.cells) {
            for (const auto &[word, count] : cell.counts)
                sum[word] += count;
        }
        EXPECT_EQ(sum, grid.counts) << grid.name;
        EXPECT_LE(grid.cells.size(), 3000U);
        if (grid.name == "inode") {
            EXPECT_EQ(grid.counts.at("unreadable"), 0xFFFFFFFFFFFFFFFF);
            EXPECT_EQ(grid.cells.back().last, 0xFFFFFFFFFFFFFFFE);
        }
    }
}

TEST_F(Map, RecordsThatDoNotFitTheirSlots)
{
    for (const std::uint32_t blocks : {3U, 0U}) {
        SuperV1 sb = super_v1(1, 2, 3);
        Device device = make_v1_device(sb);
        sb.extent_size = 4097;
        sb.block_cnt = blocks;
        put_block(device, SUPER_OFFSET, encode(sb));
        const std::vector<Grid> grids = grids_of(page_of(device));
        const Grid &extents = grids.at(3);
        EXPECT_EQ(extents.counts.at("findings"), 1U);
        EXPECT_EQ(extents.counts.contains("damaged"), blocks != 0);
        EXPECT_EQ(extents.cells.size(), blocks);
    }
}

TEST_F(Map, OnlyDevicesOfAKnownLayout)
{
    const Device device = make_v1_device(super_v1(1, 1, 1));
    flip(device, SUPER_OFFSET + 20);
    expect_refused(device.path(), device.path() + " has no super block of a known layout");
    const std::string none = directory.path("none");
    expect_refused(none, "cannot open " + none + ": No such file or directory");
}

TEST_F(Map, NothingIsOverwritten)
{
    const Cache cache = make_cache("v1");
    directory.write("map.html", "precious");
    expect_refused(cache.device.path(), file + " exists");
    EXPECT_EQ(read_file(file), "precious");
    fs::remove(file);
    fs::create_symlink("nowhere", file);
    expect_refused(cache.device.path(), file + " exists");
}

TEST_F(Map, DirectoriesThatCannotBeWritten)
{
    const Cache cache = make_cache("v1");
    for (const std::string &target : {directory.path("none/map"), std::string("/proc/map")}) {
        expect_complaint(run_ctl({"map", cache.device.path(), "--html", target}), 1,
                         "cannot create " + target + ": No such file or directory");
    }
}

TEST_F(Map, FileThatMayNotBeSoLarge)
{
    const Cache cache = make_cache("v3");
    const std::vector<std::string> args{"-c",  "ulimit -f 1; exec \"$@\"", "sh",     ZU_TIERCTL,
                                        "map", cache.device.path(),        "--html", file};
    expect_complaint(run_program("/bin/sh", args), 1, "cannot write " + file + ": File too large");
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
}

TEST_F(Map, BadCommandLines)
{
    for (const auto &args : std::vector<std::vector<std::string>>{
             {"map"}, {"map", "a", "b"}, {"map", "a", "--html"}, {"map", "--json", "a"}}) {
        const RunResult run = run_ctl(args);
        EXPECT_EQ(run.status, 2) << run;
        EXPECT_TRUE(run.err.starts_with("zu_tierctl: ")) << run;
    }
    const RunResult help = run_ctl({"map", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string word : {"DEVICE", "--html", "NO_COLOR", "COLUMNS", "Example"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

} // namespace
