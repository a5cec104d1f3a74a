// The tables of SQL follow from those of the registered layouts, whatever these are.

#include "fourth_layout.h"
#include "v1_device.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/sql/database.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sqlite3.h>

using namespace tier_test;
using namespace tierctl;

namespace {

const SqlTable *find_sql_table(const std::vector<SqlTable> &tables, const std::string &name)
{
    const auto found = std::ranges::find(tables, name, &SqlTable::name);
    return found == tables.end() ? nullptr : &*found;
}

std::vector<std::string> names_of(const SqlTable &table)
{
    std::vector<std::string> names;
    for (const SqlColumn &column : table.columns)
        names.push_back(column.name);
    return names;
}

TEST(SqlTables, OfAnotherLayout)
{
    const tier_layout *const layouts[] = {&DEPOT_LAYOUT};
    const std::vector<SqlTable> tables = make_sql_tables(layouts);
    ASSERT_EQ(tables.size(), 3U);
    EXPECT_EQ(tables[0].name, "super");
    const SqlTable *shelf = find_sql_table(tables, "shelf");
    const SqlTable *box = find_sql_table(tables, "box");
    ASSERT_TRUE(shelf != nullptr && box != nullptr);
    EXPECT_EQ(names_of(*shelf),
              (std::vector<std::string>{"device", "no", "meta_offset", "state", "checksum", "magic",
                                        "use", "uuid", "label", "levels"}));
    EXPECT_EQ(names_of(*box),
              (std::vector<std::string>{"device", "no", "meta_offset", "state", "checksum", "magic",
                                        "shelf", "place", "use", "weight"}));
    for (const SqlColumn &column : box->columns)
        EXPECT_EQ(column.is_owner, column.name == "shelf") << column.name;
    EXPECT_EQ(box->of(DEPOT_LAYOUT)->row->name, "box");
    EXPECT_EQ(box->of(*tier_layouts().front()), nullptr);
}

TEST(SqlTables, RowsOfAnotherLayout)
{
    const tier_test::Device image = make_depot();
    const tier_layout *const layouts[] = {&DEPOT_LAYOUT};
    const std::vector<SqlTable> tables = make_sql_tables(layouts);
    SqlDevices devices;
    tierctl::Device device(image.path(), Access::read_only);
    const tierctl::Block super_block = read_super(device);
    Metadata metadata = make_metadata(DEPOT_LAYOUT, super_block, device);
    devices.push_back({image.path(), std::move(device), std::move(metadata)});
    SlotCaches caches(devices.size());
    for (const auto &[name, count] : {std::pair<std::string, std::uint64_t>{"super", 1},
                                      {"shelf", DEPOT.shelf_cnt},
                                      {"box", DEPOT.box_blocks * 511}}) {
        const SqlTable &table = *find_sql_table(tables, name);
        EXPECT_EQ(count_rows(devices, table), count);
        const auto rows = make_entry_rows(devices, table, caches, {});
        std::uint64_t found = 0;
        while (rows->next())
            found++;
        EXPECT_EQ(found, count);
        EXPECT_FALSE(rows->next());
    }
    const auto rows = make_entry_rows(devices, *find_sql_table(tables, "box"), caches,
                                      {.first = 510, .last = 514});
    std::vector<std::int64_t> ids;
    while (rows->next())
        ids.push_back(rows->id() & 0xFFFF);
    EXPECT_EQ(ids, (std::vector<std::int64_t>{510, 511, 513, 514})); // 512 is a head
}

// Slots that are asked for again and again are those of the device, whatever was kept.
TEST(SqlTables, SlotsAreKept)
{
    constexpr std::uint32_t INODES = 200;
    std::vector<InodeV1> inodes;
    for (std::uint32_t no = 0; no < INODES; ++no)
        inodes.push_back(inode_used(no, 0));
    SuperV1 sb = super_v1(1, INODES, 1);
    tier_test::Device image = make_v1_device(sb, {brick_used(0)}, inodes);
    image.truncate(static_cast<std::uint64_t>(inode_offset(sb, INODES)));
    const tierctl::Device device(image.path(), Access::read_only);
    const Metadata metadata = read_metadata(device);
    const Table &table = find_table(metadata.tables, "inode");
    for (const std::size_t memory : {std::size_t{0}, std::size_t{9'000}, std::size_t{1} << 20}) {
        SlotCache cache(device, table, memory);
        std::array<std::uint8_t, BLOCK_SIZE> slot{};
        for (std::uint32_t turn = 0; turn < 1000; ++turn) {
            const std::uint32_t no = turn * 77 % INODES;
            ASSERT_TRUE(cache.read(table.regions[0], 0, no, slot.data()));
            EXPECT_EQ(get_u32(slot, 68), no) << memory;
        }
    }
}

TEST(SqlTables, NamesAndTexts)
{
    EXPECT_EQ(sql_name("a\"b"), "\"a\"\"b\"");
    EXPECT_EQ(sql_text("a'b"), "'a''b'");
    const SqlColumn columns[] = {{"no", "INTEGER"}, {"at", "", true}};
    EXPECT_EQ(declaration(columns, "no"), "(\"no\" INTEGER PRIMARY KEY, \"at\" )");
    EXPECT_EQ(view_statement("main", "t", std::span(columns).first(1)), "");
    EXPECT_NE(view_statement("main", "t", columns).find("\"at\" / 1000000000"), std::string::npos);
}

} // namespace
