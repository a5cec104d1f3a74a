// zu_tierctl sql: questions to the tables of devices. What a row must hold is read from the blocks
// of the device by the model of its layout.

#include "cache.h"
#include "check_run.h"
#include "pseudo_terminal.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sqlite3.h>

using namespace tier_test;
using Json = nlohmann::ordered_json;

namespace {

RunResult run_sql(const std::vector<std::string> &args, const RunOptions &options = {})
{
    std::vector<std::string> all{"sql"};
    all.insert(all.end(), args.begin(), args.end());
    return run_ctl(all, options);
}

Json rows_of(const std::vector<std::string> &devices, const std::string &query)
{
    std::vector<std::string> args{"--json"};
    args.insert(args.end(), devices.begin(), devices.end());
    args.push_back(query);
    const RunResult run = run_sql(args);
    EXPECT_EQ(run.status, 0) << run << query;
    EXPECT_EQ(run.err, "");
    return run.status == 0 ? Json::parse(run.out) : Json::array();
}

Json rows_of(const Device &device, const std::string &query)
{
    return rows_of(std::vector<std::string>{device.path()}, query);
}

// The only value of the only row.
Json value_of(const Device &device, const std::string &query)
{
    const Json rows = rows_of(device, query);
    EXPECT_EQ(rows.size(), 1U) << query;
    return rows.empty() ? Json() : rows.at(0).begin().value();
}

// A number: one of more than 63 bits is decimal text.
Json number_json(std::uint64_t number)
{
    return number >> 63 == 0 ? Json(number) : Json(std::to_string(number));
}

Json field_json(const Block &block, const Field &field, std::size_t base)
{
    switch (field.form) {
    case FieldForm::TEXT:
        return get_text(block, field);
    case FieldForm::UUID:
    case FieldForm::REVERSED:
        return Json::parse(shown_value(block, field));
    case FieldForm::UNITS:
        return number_json(get_number(block, field, base) * EXPANSION_UNIT);
    default:
        return number_json(get_number(block, field, base));
    }
}

class SqlOfLayout : public testing::TestWithParam<std::string> {
protected:
    const int version = GetParam().back() - '0';
    Cache cache = make_cache(GetParam());
    const Block super = cache.device.block(SUPER_OFFSET);

    // The fields of a row are those of the block, as the model has them.
    void expect_row(const Json &row, const TableModel &table, const Block &block,
                    std::size_t base) const
    {
        for (const Field &field : table.fields) {
            if (field.name == "no") {
                continue; // that of the slot
            }
            ASSERT_TRUE(row.contains(field.name)) << table.name << " " << field.name;
            EXPECT_EQ(row.at(field.name), field_json(block, field, base)) << field.name;
        }
    }
};

TEST_P(SqlOfLayout, EveryFieldOfEveryEntry)
{
    for (const CacheTable &place : cache.tables) {
        const TableModel &table = model(version, place.name);
        if (table.fields.empty())
            continue; // opaque
        SCOPED_TRACE(place.name);
        const Json rows = rows_of(cache.device, "select * from " + place.name);
        std::size_t at = 0;
        for (std::uint64_t slot = 0; slot < place.count; ++slot) {
            const std::int64_t offset = place.offset(slot);
            const Block block = cache.device.block(static_cast<std::uint64_t>(offset));
            const std::uint64_t end = table.is_packed() ? SLOTS_V3 : 1;
            for (std::uint64_t word = table.is_packed() ? table.first_slot : 0; word < end;
                 ++word) {
                ASSERT_LT(at, rows.size());
                const Json &row = rows[at++];
                EXPECT_EQ(row.at("device"), cache.device.path());
                EXPECT_EQ(row.at("no"), slot * end + word);
                EXPECT_EQ(row.at("meta_offset"), offset);
                EXPECT_EQ(row.at("state"), "ok");
                if (word % 100 == 0 || word == 511) {
                    expect_row(row, table, block, word * 8);
                }
            }
        }
        EXPECT_EQ(at, rows.size());
    }
}

TEST_P(SqlOfLayout, ColumnsThatTheLayoutLacksAreNull)
{
    const Json row = rows_of(cache.device, "select * from extent limit 1").at(0);
    EXPECT_EQ(row.at("lba").is_null(), version != 3);
    EXPECT_EQ(row.at("te_clean").is_null(), version == 3);
    EXPECT_EQ(row.at("te_bitmap").is_null(), version != 1);
    EXPECT_EQ(value_of(cache.device, "select count(*) from shard").get<int>() == 0, version != 3);
    EXPECT_EQ(value_of(cache.device, "select count(*) from piece").get<int>() == 0, version != 2);
}

TEST_P(SqlOfLayout, NumbersAndRanges)
{
    const std::vector<std::string> conditions{
        "no = 1",          "no = 3 or no = 1", "no in (4, 2, 2000)", "no > 2",     "no >= 2",
        "no < 3",          "no <= 3",          "no between 1 and 3", "no = -1",    "no < -1",
        "no > -5",         "no = 2.0",         "no = '2'",           "no = null",  "no > 1.5",
        "no > 1 and no<3", "no = 9999999999",  "no = 'x'",           "no is not 2"};
    for (const std::string table : {"inode", "extent"}) {
        const Json all = rows_of(cache.device, "select no, meta_offset from " + table);
        for (const std::string &condition : conditions) {
            // The cast hides the column from the plan.
            const std::string hidden =
                "select no, meta_offset from (select cast(no as integer) as no, meta_offset "
                "from " +
                table + ") where " + condition;
            EXPECT_EQ(rows_of(cache.device, "select no, meta_offset from " + table + " where " +
                                                condition + " order by no"),
                      rows_of(cache.device, hidden + " order by no"))
                << condition;
        }
        EXPECT_EQ(
            rows_of(cache.device, "select no, meta_offset from " + table + " order by no desc")
                .size(),
            all.size());
    }
}

TEST_P(SqlOfLayout, DamagedEntries)
{
    const std::int64_t inode = cache.offset("inode", 2);
    flip(cache.device, inode + 60);
    EXPECT_EQ(rows_of(cache.device, "select no, state, meta_offset from inode where state <> 'ok'"),
              (Json{{{"no", 2}, {"state", "damaged"}, {"meta_offset", inode}}}));
    EXPECT_EQ(value_of(cache.device, "select count(*) from inode where state = 'ok'"),
              cache.table("inode").count - 1);
    // It still has what its bytes say.
    const Block block = cache.device.block(static_cast<std::uint64_t>(inode));
    expect_row(rows_of(cache.device, "select * from inode where no = 2").at(0),
               model(version, "inode"), block, 0);
    const Json found = rows_of(cache.device, "select * from finding where kind = 'bad_checksum'");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].at("tbl_name"), "inode");
    EXPECT_EQ(found[0].at("no"), 2);
    EXPECT_EQ(found[0].at("state"), "damaged");
    EXPECT_EQ(found[0].at("meta_offset"), inode);
}

TEST_P(SqlOfLayout, FindingsAreThoseOfCheck)
{
    flip(cache.device, cache.offset("brick", 1) + 60);
    flip(cache.device, cache.offset("extent", 1) + 61);
    const auto report = Json::parse(run_ctl({"check", "--json", cache.device.path()}).out);
    const Json rows = rows_of(cache.device, "select * from finding");
    ASSERT_EQ(rows.size(), report.at("findings").size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Json &finding = report.at("findings").at(i);
        for (const char *key :
             {"kind", "severity", "unit", "no", "last", "count", "command", "text"})
            EXPECT_EQ(rows[i].at(key), finding.at(key)) << key;
        EXPECT_EQ(rows[i].at("tbl_name"), finding.at("table"));
        EXPECT_EQ(rows[i].at("meta_offset"), finding.at("offset"));
    }
}

// However often a query asks, the device is checked once.
TEST_P(SqlOfLayout, FindingsOfEachEntry)
{
    flip(cache.device, cache.offset("inode", 1) + 60);
    flip(cache.device, cache.offset("inode", 3) + 60);
    const std::string query = "select i.no, (select count(*) from finding f where f.no = i.no and "
                              "f.kind = 'bad_checksum') n from inode i order by no limit 5";
    const Json expected{{{"no", 0}, {"n", 0}},
                        {{"no", 1}, {"n", 1}},
                        {{"no", 2}, {"n", 0}},
                        {{"no", 3}, {"n", 1}},
                        {{"no", 4}, {"n", 0}}};
    EXPECT_EQ(rows_of(cache.device, query), expected);
}

TEST_P(SqlOfLayout, UnreadableBlocksAreNull)
{
    const TempDir directory;
    const std::string saved = directory.path("saved");
    ASSERT_EQ(run_ctl({"save", cache.device.path(), saved}).status, 0);
    const std::int64_t inode = cache.offset("inode", 2);
    directory.write("saved.unreadable.json",
                    text("[\n{\"table\":\"inode\",\"no\":2,\"count\":1,\"offset\":%ld,"
                         "\"error\":\"Input/output error\"}\n]\n",
                         inode));
    std::string content = read_file(saved);
    directory.write("saved", content.replace(static_cast<std::size_t>(inode), BLOCK_SIZE,
                                             std::string(BLOCK_SIZE, '\0')));
    const Json rows = rows_of({saved}, "select * from inode where state = 'unreadable'");
    ASSERT_EQ(rows.size(), 1U);
    for (const auto &[key, value] : rows[0].items()) {
        if (key == "no") {
            EXPECT_EQ(value, 2);
        } else if (key == "meta_offset") {
            EXPECT_EQ(value, inode);
        } else if (key != "device" && key != "state") {
            EXPECT_TRUE(value.is_null()) << key;
        }
    }
    EXPECT_EQ(rows_of({saved}, "select count(*) n from inode"),
              (Json{{{"n", cache.table("inode").count}}}));
}

INSTANTIATE_TEST_SUITE_P(All, SqlOfLayout, testing::ValuesIn(LAYOUTS));

TEST(Sql, PiecesOfExtentsInUse)
{
    WorldV2 world;
    world.extents[1].maps = {
        {31, {.offset = 7, .clean = 0, .orig_len = 5000, .begin = 9, .cnt = 2}},
        {2, {.offset = 1ULL << 63, .clean = 1, .orig_len = 4096, .begin = 0, .cnt = 1}}};
    const Device device = world.device();
    const std::uint64_t block = world.sb.data_offset + world.sb.block_size;
    EXPECT_EQ(rows_of(device, "select no, mapno, offset, clean, orig_len, begin, cnt, "
                              "data_phy_offset, meta_offset from piece where no = 1"),
              (Json{{{"no", 1},
                     {"mapno", 2},
                     {"offset", "9223372036854775808"},
                     {"clean", 1},
                     {"orig_len", 4096},
                     {"begin", 0},
                     {"cnt", 1},
                     {"data_phy_offset", block},
                     {"meta_offset", extent_offset(world.sb, 1)}},
                    {{"no", 1},
                     {"mapno", 31},
                     {"offset", 7},
                     {"clean", 0},
                     {"orig_len", 5000},
                     {"begin", 9},
                     {"cnt", 2},
                     {"data_phy_offset", block + 9 * BLOCK_SIZE},
                     {"meta_offset", extent_offset(world.sb, 1)}}}));
    std::uint64_t pieces = 0;
    for (const ExtentV2 &extent : world.extents)
        pieces += extent.maps.size();
    EXPECT_EQ(value_of(device, "select count(*) from piece"), pieces);
    // Of a damaged extent nothing is known but that.
    flip(device, extent_offset(world.sb, 1) + 9);
    EXPECT_EQ(rows_of(device, "select no, mapno, state from piece where no = 1"),
              (Json{{{"no", 1}, {"mapno", nullptr}, {"state", "damaged"}}}));
}

TEST(Sql, SeveralDevicesAreOneDatabase)
{
    const WorldV1 v1;
    const WorldV3 v3;
    const Device a = v1.device();
    const Device b = v3.device();
    EXPECT_EQ(
        rows_of({a.path(), b.path()}, "select device, count(*) n from inode group by 1 order by 1"),
        (Json{{{"device", std::min(a.path(), b.path())}, {"n", 5}},
              {{"device", std::max(a.path(), b.path())}, {"n", 5}}}));
    EXPECT_EQ(rows_of({a.path(), b.path()},
                      "select count(*) n from inode where device = '" + b.path() + "'"),
              (Json{{{"n", 5}}}));
    EXPECT_EQ(rows_of({a.path(), b.path()}, "select count(*) n from inode where device = 'X'"),
              (Json{{{"n", 0}}}));
    EXPECT_EQ(rows_of({a.path(), b.path()}, "select count(*) n from inode where upper(device) = "
                                            "device or device = 7 or device is null"),
              (Json{{{"n", 0}}}));
    EXPECT_EQ(rows_of({a.path(), b.path()}, "select count(*) n from inode where device = upper('" +
                                                b.path() + "') collate nocase"),
              (Json{{{"n", 5}}}));
    // Rows of several devices with one number are different ones.
    EXPECT_EQ(rows_of({a.path(), b.path()}, "select count(*) n from inode where no = 1 or no = 2"),
              (Json{{{"n", 4}}}));
}

// The number of a row is its own, whichever rows are asked for: SQLite joins the answers to both
// conditions by it.
TEST(Sql, FindingsOfOneDeviceOrNumber)
{
    const WorldV1 world;
    const Device a = world.device();
    const Device b = world.device();
    flip(a, brick_offset(world.sb, 1) + 20);
    flip(a, inode_offset(world.sb, 2) + 20);
    flip(b, inode_offset(world.sb, 0) + 20);
    flip(b, extent_offset(world.sb, 3) + 20);
    const std::string condition = " = 1 or device = '" + b.path() + "'";
    const Json expected = rows_of({a.path(), b.path()}, "select device, kind, no from finding "
                                                        "where +no" +
                                                            condition + " order by 1, 3, 2");
    EXPECT_GT(expected.size(), 4U);
    EXPECT_EQ(rows_of({a.path(), b.path()}, "select device, kind, no from finding where no" +
                                                condition + " order by 1, 3, 2"),
              expected);
}

TEST(Sql, JoinsFollowOwners)
{
    const WorldV3 world;
    std::map<std::string, std::uint64_t> extents;
    for (const auto &[block, content] : world.extents)
        for (const ExtentV3 &extent : content.extents)
            for (const ShardV3 &shard : world.shards.at(extent.shard / SLOTS_V3).shards)
                if (shard.slot == extent.shard % SLOTS_V3)
                    extents[uuid_text(world.inodes[shard.ino].uuid)]++;
    Json expected = Json::array();
    for (const auto &[uuid, count] : extents)
        expected.push_back({{"uuid", uuid}, {"n", count}});
    EXPECT_EQ(rows_of(world.device(),
                      "select i.uuid, count(*) n from extent e join shard s on s.no = e.shard "
                      "join inode i on i.no = s.ino where e.in_use group by 1 order by 1"),
              expected);
}

TEST(Sql, TimesAsText)
{
    const WorldV1 world;
    const Device device = world.device();
    const Json row = rows_of(device, "select t.*, i.atime ns from inode_text t join inode i using "
                                     "(no) where no = 1")
                         .at(0);
    EXPECT_EQ(row.at("atime"), time_text(world.inodes[1].atime));
    EXPECT_EQ(row.at("mtime"), time_text(world.inodes[1].mtime));
    EXPECT_EQ(row.at("ns"), world.inodes[1].atime);
    EXPECT_EQ(row.at("size"), world.inodes[1].size);
    EXPECT_EQ(value_of(device, "select ctime from super_text"), time_text(world.sb.ctime));
}

// The tables say themselves which columns they have.
TEST(Sql, Columns)
{
    const Device device = WorldV1().device();
    std::vector<std::string> names;
    for (const Json &row : rows_of(device, "select name from sqlite_schema where type = 'table'"))
        names.push_back(row.at("name"));
    EXPECT_EQ(names, (std::vector<std::string>{"super", "brick", "inode", "extent", "shard",
                                               "piece", "finding"}));
    EXPECT_EQ(value_of(device, "select group_concat(name) from pragma_table_info('brick') "
                               "where cid < 4"),
              "device,no,meta_offset,state");
    EXPECT_EQ(rows_of(device, "pragma table_info(inode)").at(1).at("name"), "no");
}

TEST(Sql, NothingCanBeWrittenOrLoaded)
{
    const WorldV1 world;
    const Device device = world.device();
    const TempDir directory;
    const std::vector<std::uint8_t> before = device.bytes();
    const std::string file = directory.path("file.db");
    for (const std::string &query : std::vector<std::string>{
             "attach '" + file + "' as x",
             "vacuum into '" + file + "'",
             "vacuum",
             "create table t (a)",
             "create temp table t (a)",
             "create temp view t as select 1",
             "create virtual table t using zu_inode",
             "drop table inode",
             "drop view inode_text",
             "insert into inode (no) values (1)",
             "update inode set size = 0",
             "delete from inode",
             "with a as (select 1) delete from extent",
             "alter table inode rename to x",
             "reindex",
             "analyze",
             "begin",
             "savepoint a",
             "pragma writable_schema = 1",
             "pragma journal_mode = wal",
             "pragma temp_store_directory = '/tmp'",
             "select load_extension('x')",
             "select fts3_tokenizer('simple')",
             "select writefile('" + file + "', 'x')",
             "select readfile('/etc/passwd')",
             "select * from fsdir('.')",
             "detach main",
         }) {
        const RunResult run =
            run_sql({device.path(), query}, {.working_directory = directory.path("")});
        EXPECT_EQ(run.status, 1) << query << run;
        EXPECT_EQ(run.out, "") << query;
        EXPECT_EQ(lines_of(run.err).size(), 1U) << query;
    }
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
    EXPECT_EQ(device.bytes(), before);
}

TEST(Sql, Mistakes)
{
    const Device device = WorldV1().device();
    expect_complaint(run_sql({device.path(), "select nix from inode"}), 1,
                     "no such column: nix; PRAGMA table_info(TABLE) shows those of a table");
    expect_complaint(run_sql({device.path(), "select * from files"}), 1,
                     "no such table: files; there are super, brick, inode, extent, shard, piece, "
                     "finding");
    expect_complaint(run_sql({device.path(), "selec 1"}), 1, "near \"selec\": syntax error");
    expect_complaint(run_sql({device.path(), "select 1; select 2"}), 2,
                     "QUERY must be one statement");
    expect_complaint(run_sql({device.path(), "select 1; nonsense"}), 2,
                     "QUERY must be one statement");
    expect_complaint(run_sql({device.path(), " -- nothing"}), 2, "QUERY must be one statement");
    EXPECT_EQ(run_sql({"--ndjson", device.path(), "select 1 a; -- done"}).out, "{\"a\":1}\n");
    expect_complaint(run_sql({"select 1"}), 2, "QUERY is required");
    expect_complaint(run_sql({device.path(), device.path(), "select 1", "--super", "x"}), 2,
                     "--super is for one DEVICE");
    expect_complaint(run_sql({device.path(), "select abs(-9223372036854775808)"}), 1,
                     "integer overflow");
    for (const std::vector<std::string> &formats : std::vector<std::vector<std::string>>{
             {"--json", "--csv"}, {"--ndjson", "--csv"}, {"--json", "--into", "x"}}) {
        std::vector<std::string> args = formats;
        args.insert(args.end(), {device.path(), "select 1"});
        EXPECT_EQ(run_sql(args).status, 2);
    }
}

TEST(Sql, Formats)
{
    const Device device = WorldV1().device();
    const std::string query =
        "select 1 as n, 'a,\"b\"' || char(10) || 'c' as \"odd, name\", null as "
        "nil, x'00ff' as blob, 1.5 as real union all select -22, 'ä', 'x', "
        "x'', 9e999";
    EXPECT_EQ(run_sql({"--json", device.path(), query}).out,
              "[\n{\"n\":1,\"odd, name\":\"a,\\\"b\\\"\\u000ac\",\"nil\":null,\"blob\":\"00ff\","
              "\"real\":1.5},\n{\"n\":-22,\"odd, name\":\"ä\",\"nil\":\"x\",\"blob\":\"\","
              "\"real\":\"Inf\"}\n]\n");
    EXPECT_EQ(run_sql({"--ndjson", device.path(), query}).out,
              "{\"n\":1,\"odd, name\":\"a,\\\"b\\\"\\u000ac\",\"nil\":null,\"blob\":\"00ff\","
              "\"real\":1.5}\n{\"n\":-22,\"odd, name\":\"ä\",\"nil\":\"x\",\"blob\":\"\","
              "\"real\":\"Inf\"}\n");
    EXPECT_EQ(run_sql({"--csv", device.path(), query}).out,
              "n,\"odd, name\",nil,blob,real\n1,\"a,\"\"b\"\"\nc\",,00ff,1.5\n-22,ä,x,,Inf\n");
    EXPECT_EQ(run_sql({device.path(), query}).out, "  n  odd, name   nil  blob  real\n"
                                                   "  1  a,\"b\"\\x0ac       00ff   1.5\n"
                                                   "-22  ä           x           Inf\n");
    EXPECT_EQ(run_sql({"--json", device.path(), "select no from inode where no < 0"}).out, "[]\n");
    EXPECT_EQ(run_sql({"--csv", device.path(), "select no from inode where no < 0"}).out, "no\n");
    EXPECT_EQ(run_sql({device.path(), "select no from inode where no < 0"}).out, "no\n");
    const RunResult terminal = run_on_terminal(ZU_TIERCTL, {"sql", device.path(), "select 1 as a"},
                                               80, {.environment = {{"NO_COLOR", ""}}});
    EXPECT_EQ(terminal.out, "\x1b[1ma\x1b[0m\n1\n");
}

// The first thousand rows tell how wide the columns are.
TEST(Sql, ManyRows)
{
    const Device device = WorldV1().device();
    const std::string query =
        "with recursive n(i) as (select 1 union all select i + 1 from n where "
        "i < 12345) select i, 'x' as x from n";
    const std::vector<std::string> lines = lines_of(run_sql({device.path(), query}).out);
    ASSERT_EQ(lines.size(), 12346U);
    EXPECT_EQ(lines[1], "   1  x");
    EXPECT_EQ(lines[1000], "1000  x");
    EXPECT_EQ(lines[12345], "12345  x");
}

TEST(Sql, EndlessQueryEndsWithAnInterrupt)
{
    const Device device = WorldV1().device();
    const RunResult run = run_program(
        "/bin/sh",
        {"-c", "timeout --preserve-status -s INT 0.5 " + ZU_TIERCTL + " sql " + device.path() +
                   " 'with recursive n(i) as (select 1 union all select i + 1 from n) "
                   "select count(*) from n'; echo $?"});
    EXPECT_EQ(run.out, "130\n") << run;
}

TEST(Sql, EntriesPastTheEndHaveNoRows)
{
    const WorldV1 world;
    Device device = world.device();
    device.truncate(static_cast<std::uint64_t>(extent_offset(world.sb, 2)));
    const RunResult run = run_sql({"--csv", device.path(), "select count(*) from extent"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "count(*)\n2\n");
    EXPECT_EQ(run.err, "zu_tierctl: " + device.path() +
                           ": 4 of 6 blocks of table extent do not lie on the device and have no "
                           "rows\n");
    EXPECT_EQ(Json::parse(run_sql({"--json", device.path(),
                                   "select no, last, state from finding where kind = 'past_end'"})
                              .out),
              (Json{{{"no", 2}, {"last", 5}, {"state", "unreadable"}}}));
}

// What a check finds is kept in memory: too much of it is refused.
TEST(Sql, TooManyFindings)
{
    SuperV3 sb = super_v3(1, 1);
    sb.extent_cnt = 257 * SLOTS_V3;
    set_geometry(sb);
    ExtentBlockV3 odd; // every second extent is dirty and free
    for (std::uint32_t slot = 0; slot < SLOTS_V3; slot += 2)
        odd.extents.push_back({.slot = slot, .dirty = 1, .in_use = 0});
    Device device = make_v3_device(sb);
    const Block block = encode(odd);
    for (std::uint64_t no = 0; no < 257; ++no)
        put_block(device, extent_offset(sb, no), block);
    expect_complaint(run_sql({device.path(), "select count(*) from finding"}), 1,
                     device.path() + " has more than 65536 findings: ask zu_tierctl check");
    EXPECT_EQ(value_of(device, "select count(*) from extent where dirty and not in_use"),
              257 * 256);
    // Those of two devices, which are too many to be kept, are found again.
    for (std::uint64_t no = 129; no < 257; ++no)
        put_block(device, extent_offset(sb, no), encode(ExtentBlockV3{}));
    Device other = make_v3_device(sb);
    for (std::uint64_t no = 0; no < 129; ++no)
        put_block(other, extent_offset(sb, no), block);
    EXPECT_EQ(rows_of({device.path(), other.path()},
                      "select (select count(*) from finding) a, (select count(*) from finding "
                      "where no >= 0) b"),
              (Json{{{"a", 2 * 129 * 256}, {"b", 2 * 129 * 256}}}));
}

// Names that a device gives: as they are in what programs read, and harmless to a terminal.
TEST(Sql, HostileNames)
{
    WorldV1 world;
    const std::string name = "a'b\"c,\n\\d\x1b[2J\x7f\u009b$(e)\u00e4";
    world.bricks[0].brickid = name;
    const Device device = world.device();
    const std::string query = "select bi_brickid from brick where no = 0";
    const std::string quoted = "\"a'b\"\"c,\n\\d\x1b[2J\x7f\u009b$(e)\u00e4\"";
    EXPECT_EQ(run_sql({"--csv", device.path(), query}).out, "bi_brickid\n" + quoted + "\n");
    const std::string json = run_sql({"--ndjson", device.path(), query}).out;
    EXPECT_EQ(Json::parse(json).at("bi_brickid"), name);
    EXPECT_EQ(json,
              "{\"bi_brickid\":\"a'b\\\"c,\\u000a\\\\d\\u001b[2J\\u007f\\u009b$(e)\u00e4\"}\n");
    EXPECT_EQ(value_of(device, "select count(*) from brick where bi_brickid = 'a''b\"c,' || "
                               "char(10) || '\\d' || char(27) || '[2J' || char(127, 155) || '$(e)' "
                               "|| char(228)"),
              1);
    for (const std::string format : {"--csv", "--ndjson", "--json"}) {
        const RunResult shown =
            run_on_terminal(ZU_TIERCTL, {"sql", format, device.path(), query}, 80);
        EXPECT_EQ(shown.out.find_first_of("\x1b\x7f"), std::string::npos) << shown;
        EXPECT_EQ(shown.out.find("\u009b"), std::string::npos) << shown;
    }
    const RunResult plain = run_sql({device.path(), query});
    EXPECT_EQ(lines_of(plain.out).at(1), "a'b\"c,\\x0a\\d\\x1b[2J\\x7f\\xc2\\x9b$(e)\u00e4");
    for (const RunResult &run :
         {run_ctl({"usage", device.path()}, {.environment = {{"COLUMNS", "300"}}}),
          run_ctl({"usage", "--json", device.path()})})
        EXPECT_EQ(run.out.find_first_of("\x1b\x7f"), std::string::npos) << run;
}

// What a database file holds, by the library itself.
class DatabaseFile {
public:
    explicit DatabaseFile(const std::string &path)
    {
        EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    }
    ~DatabaseFile() { sqlite3_close(db_); }
    DatabaseFile(const DatabaseFile &) = delete;
    DatabaseFile &operator=(const DatabaseFile &) = delete;

    // Names and values of all rows; nothing stands for NULL.
    std::vector<std::map<std::string, std::string>> rows(const std::string &query) const
    {
        std::vector<std::map<std::string, std::string>> rows;
        const auto take = [](void *to, int count, char **values, char **names) {
            auto &row = static_cast<decltype(rows) *>(to)->emplace_back();
            for (int i = 0; i < count; ++i)
                row[names[i]] = values[i] == nullptr ? "nothing" : values[i];
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(db_, query.c_str(), take, &rows, nullptr), SQLITE_OK)
            << query << ": " << sqlite3_errmsg(db_);
        return rows;
    }

private:
    sqlite3 *db_ = nullptr;
};

class SqlFile : public testing::Test {
protected:
    const TempDir directory;
    const std::string file = directory.path("caches.db");
};

TEST_F(SqlFile, HasAllRowsOfAllTables)
{
    const Cache caches[] = {make_cache("v1"), make_cache("v2"), make_cache("v3")};
    flip(caches[0].device, caches[0].offset("inode", 2) + 60);
    std::vector<std::string> devices;
    for (const Cache &cache : caches)
        devices.push_back(cache.device.path());
    std::vector<std::string> args{"--into", file};
    args.insert(args.end(), devices.begin(), devices.end());
    const RunResult run = run_sql(args);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_EQ(names_in(directory), std::vector<std::string>{"caches.db"});
    const DatabaseFile database(file);
    for (const std::string table :
         {"super", "brick", "inode", "extent", "shard", "piece", "finding", "inode_text"}) {
        SCOPED_TRACE(table);
        const Json expected = rows_of(devices, "select * from " + table);
        const auto rows = database.rows("select * from " + table + " order by rowid");
        ASSERT_EQ(rows.size(), expected.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            for (const auto &[name, value] : expected[i].items()) {
                EXPECT_EQ(rows[i].at(name), value.is_null()     ? "nothing"
                                            : value.is_string() ? value.get<std::string>()
                                                                : value.dump())
                    << name;
            }
        }
    }
    EXPECT_EQ(database.rows("pragma integrity_check").at(0).at("integrity_check"), "ok");
    EXPECT_GE(database.rows("select 1 from sqlite_schema where type = 'index'").size(), 7U);
    // An index is used.
    EXPECT_NE(database.rows("explain query plan select * from inode where no = 1")
                  .at(0)
                  .at("detail")
                  .find("SEARCH"),
              std::string::npos);
}

// SQLite would take the name for a URI, and write elsewhere.
TEST_F(SqlFile, NamesLikeUris)
{
    const Device device = WorldV1().device();
    std::filesystem::create_directory(directory.path("file:"));
    const RunResult run = run_sql({"--into", "file:/caches.db?mode=memory", device.path()},
                                  {.working_directory = directory.path("")});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(names_in(directory), std::vector<std::string>{"file:"});
    const DatabaseFile database(directory.path("file:/caches.db?mode=memory"));
    EXPECT_EQ(database.rows("select count(*) n from inode").at(0).at("n"), "5");
}

TEST_F(SqlFile, ExistingFilesStay)
{
    const Device device = WorldV1().device();
    directory.write("caches.db", "mine");
    expect_complaint(run_sql({"--into", file, device.path()}), 1, file + " exists");
    EXPECT_EQ(read_file(file), "mine");
}

TEST_F(SqlFile, AnInterruptLeavesNothing)
{
    const TempDir images;
    const std::string image = images.path("v3.img");
    ASSERT_EQ(run_ctl({"sample", "--layout", "v3", "--extents", "1048576", image}).status, 0);
    const RunResult run =
        run_program("/bin/sh", {"-c", "timeout --preserve-status -s INT 0.3 " + ZU_TIERCTL +
                                          " sql --into " + file + " " + image + "; echo $?"});
    EXPECT_EQ(run.out, "130\n") << run;
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
}

TEST_F(SqlFile, FullDisk)
{
    const Device device = WorldV1().device();
    const RunResult run =
        run_program("/bin/sh", {"-c", "ulimit -f 8; exec " + ZU_TIERCTL + " sql --into " + file +
                                          " " + device.path()});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_TRUE(run.err.starts_with("zu_tierctl: cannot write " + file + ": ")) << run;
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
}

} // namespace
