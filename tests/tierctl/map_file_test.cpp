// zu_tierctl map --html: hostile devices, and files that cannot be written.

#include "map_fixture.h"

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class MapFile : public MapTest {};

// Super blocks may be sealed and say anything.

TEST_F(MapFile, EmptyTables)
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

TEST_F(MapFile, TablesThatNoDeviceHolds)
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

TEST_F(MapFile, RecordsThatDoNotFitTheirSlots)
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

TEST_F(MapFile, OnlyDevicesOfAKnownLayout)
{
    Device device = make_v1_device(super_v1(1, 1, 1));
    device.write(SUPER_OFFSET, Block{});
    expect_refused(device.path(), no_super_block(device.path()));
}

TEST_F(MapFile, NothingIsOverwritten)
{
    const Cache cache = make_cache("v1");
    directory.write("map.html", "precious");
    expect_refused(cache.device.path(), file + " exists");
    EXPECT_EQ(read_file(file), "precious");
    fs::remove(file);
    fs::create_symlink("nowhere", file);
    expect_refused(cache.device.path(), file + " exists");
}

TEST_F(MapFile, FileThatMayNotBeSoLarge)
{
    const Cache cache = make_cache("v3");
    const std::vector<std::string> args{"-c",  "ulimit -f 100; exec \"$@\"", "sh",     ZU_TIERCTL,
                                        "map", cache.device.path(),          "--html", file};
    expect_complaint(run_program("/bin/sh", args), 1, "cannot write " + file + ": File too large");
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
}

TEST_F(MapFile, BadCommandLines)
{
    for (const auto &args :
         std::vector<std::vector<std::string>>{{"map", "a", "--html"}, {"map", "--json", "a"}}) {
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
