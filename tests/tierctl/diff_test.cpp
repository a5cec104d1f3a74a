// zu_tierctl diff: which entries of two devices differ, and in what.

#include "cache.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <sys/stat.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

RunResult diff(const std::string &a, const std::string &b,
               const std::vector<std::string> &options = {})
{
    std::vector<std::string> args{"diff", a, b};
    args.insert(args.end(), options.begin(), options.end());
    return run_ctl(args);
}

void expect_differences(const RunResult &run, const std::string &out)
{
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err, "");
}

// A field that differs, its values as JSON.
struct Field {
    std::string key;
    std::string a;
    std::string b;
};

// Entry `no` of the table differs in these fields, and nothing else does.
void expect_entry(const std::string &a, const std::string &b, const CacheTable &table,
                  std::uint64_t no, const std::vector<Field> &fields)
{
    std::string plain = text("%s %lu\n", table.name.c_str(), no);
    std::string json;
    for (const auto &[key, in_a, in_b] : fields) {
        plain += "  " + key + ": " + in_a + " -> " + in_b + "\n";
        json += (json.empty() ? "" : ",") +
                text(R"({"key":"%s","a":%s,"b":%s})", key.c_str(), in_a.c_str(), in_b.c_str());
    }
    expect_differences(diff(a, b), plain);
    const std::int64_t offset = table.offset(no);
    const std::string head =
        text(R"({"kind":"entry","table":"%s","no":%lu,"count":1,"offset_a":%ld,"offset_b":%ld,)",
             table.name.c_str(), no, offset, offset);
    const RunResult run = diff(a, b, {"--json"});
    const std::regex of_states(R"x("state_a":"(sound|damaged)","state_b":"(sound|damaged)",)x");
    EXPECT_TRUE(std::regex_search(run.out, of_states)) << run;
    const std::string states =
        run.out.substr(head.size(), run.out.find("\"fields\"") - head.size());
    expect_differences(run, head + states + "\"fields\":[" + json + "]}\n");
}

std::string in_quotes(const std::string &plain) { return '"' + plain + '"'; }

// One bit of an entry, and how diff shows its field when only that bit differs.
struct Bit {
    std::string layout;
    std::string table;
    std::uint64_t no;
    std::int64_t at;
    std::uint8_t mask;
    Field field;
};

std::string time_value(std::uint64_t nanoseconds)
{
    return in_quotes(text("0x%lx(%s)", nanoseconds, time_text(nanoseconds).c_str()));
}

std::string number(std::uint64_t value) { return std::to_string(value); }

std::vector<Bit> bits()
{
    const BrickV1 brick = brick_used(1);
    const InodeV1 inode = inode_used(2, 1);
    const ExtentV1 extent = extent_used(1, 2);
    const MappedMeta piece = extent_v2_used(1, 2).maps[0];
    std::string path = brick.brickid;
    path[0] = static_cast<char>(path[0] ^ 1);
    Uuid other_uuid = inode.uuid;
    other_uuid[0] = static_cast<std::uint8_t>(other_uuid[0] ^ 0x10);
    std::vector<Bit> result;
    for (const std::string layout : {"v1", "v2", "v3"}) {
        const std::vector<Bit> shared{
            {"", "brick", 1, 160, 1, {"bi_unlink", number(brick.unlink), number(brick.unlink ^ 1)}},
            {"", "brick", 1, 32, 1, {"bi_brickid", in_quotes(brick.brickid), in_quotes(path)}},
            {"", "brick", 1, 159, 0x41, {"bytes 159..159", "\"00\"", "\"41\""}},
            {"", "brick", 1, 4095, 0xFF, {"bytes 4095..4095", "\"00\"", "\"ff\""}},
            {"", "inode", 2, 8, 1, {"atime", time_value(inode.atime), time_value(inode.atime ^ 1)}},
            {"",
             "inode",
             2,
             63,
             0x80,
             {"size", number(inode.size), number(inode.size ^ 1UL << 63)}},
            {"", "inode", 2, 79, 0x01, {"use", "1", "257"}},
            {"",
             "inode",
             2,
             40,
             0x10,
             {"uuid", in_quotes(uuid_text(inode.uuid)), in_quotes(uuid_text(other_uuid))}},
            {"", "inode", 4, 96, 0xA0, {"bytes 96..96", "\"00\"", "\"a0\""}},
        };
        for (Bit bit : shared) {
            bit.layout = layout;
            result.push_back(bit);
        }
    }
    const std::vector<Bit> own{
        {"v1",
         "inode",
         2,
         80,
         2,
         {"reserved1", number(inode.reserved1), number(inode.reserved1 ^ 2)}},
        {"v2",
         "inode",
         2,
         80,
         2,
         {"new_data", number(inode_v2_used(2, 1).new_data),
          number(inode_v2_used(2, 1).new_data ^ 2)}},
        {"v3", "inode", 0, 88, 2, {"blocks", "0", "2"}},
        {"v1",
         "extent",
         1,
         20,
         0x80,
         {"te_sampling_low", in_quotes(text("%08x", extent.sampling_low)),
          in_quotes(text("%08x", extent.sampling_low ^ 0x80000000U))}},
        {"v1",
         "extent",
         1,
         64,
         0x10,
         {"te_bitmap[1]", "\"0x0000000000000001\"", "\"0x0000000000000011\""}},
        {"v1", "extent", 1, 72, 0x10, {"bytes 72..72", "\"00\"", "\"10\""}},
        {"v2", "extent", 1, 40, 1, {"te_hot", number(extent.hot), number(extent.hot ^ 1)}},
        {"v2",
         "extent",
         1,
         72,
         4,
         {"te_mapped_meta[0].offset", number(piece.offset), number(piece.offset ^ 4)}},
        {"v2", "extent", 1, 72 + 8, 1, {"te_mapped_meta[0].clean", "1", "0"}},
        {"v2", "extent", 1, 72 + 14, 1, {"te_mapped_meta[0].cnt", "8", "9"}},
        {"v2", "extent", 1, 72 + 16 + 12, 1, {"bytes 100..100", "\"00\"", "\"01\""}}, // piece 1 is
                                                                                      // empty
        {"v2", "extent", 1, 72 + 512, 3, {"bytes 584..584", "\"01\"", "\"02\""}},     // hot area
        {"v3", "shard", 1, 8, 1, {"sno[513].ino", "2", "3"}},
        {"v3", "shard", 1, 8 + 4, 8, {"sno[513].index", "7", "15"}},
        {"v3", "shard", 1, 511 * 8 + 2, 4, {"sno[1023].in_use", "1", "0"}},
        {"v3", "shard", 0, 7, 0x21, {"magic", "\"0x2183ba9d\"", "\"0x83ba9d\""}},
        {"v3", "extent", 2, 100 * 8, 2, {"eno[1124].lba", number(0x7FFFF), number(0x7FFFE)}},
        {"v3", "extent", 2, 100 * 8, 1, {"bytes 800..800", "\"fe\"", "\"ff\""}}, // no checksum's
                                                                                 // bit
        {"v3", "extent", 2, 7, 0x0A, {"eno[1024].sense", "5", "0"}},
        {"v3", "hot", 1, 17, 0xFF, {}},
    };
    result.insert(result.end(), own.begin(), own.end());
    return result;
}

class DiffLayouts : public testing::TestWithParam<std::string> {
protected:
    const Cache a = make_cache(GetParam());
    const Cache b = make_cache(GetParam());
    const TempDir directory;

    std::string save(const Cache &cache) const
    {
        const std::string file = directory.path("saved");
        run_ctl({"save", cache.device.path(), file});
        return file;
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, DiffLayouts, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(DiffLayouts, EqualDevices)
{
    flip(b.device, static_cast<std::int64_t>(b.data_offset)); // data
    flip(b.device, 0);
    const auto before = a.device.bytes();
    for (const std::string &other : {a.device.path(), b.device.path(), save(a)})
        for (const auto &options : {std::vector<std::string>{}, {"--json"}}) {
            const RunResult run = diff(a.device.path(), other, options);
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_EQ(run.out + run.err, "");
        }
    EXPECT_TRUE(a.device.bytes() == before);
}

TEST_P(DiffLayouts, EachBitIsShownInItsField)
{
    const std::string saved = save(a);
    for (const auto &[layout, table, no, at, mask, field] : bits()) {
        if (layout != GetParam())
            continue;
        SCOPED_TRACE(text("%s %lu, byte %ld", table.c_str(), no, at));
        const std::int64_t offset = b.offset(table, no) + at;
        Field expected = field;
        if (table == "hot") {
            const std::uint8_t byte = a.device.block(
                static_cast<std::uint64_t>(a.offset(table, no)))[static_cast<std::size_t>(at)];
            expected = {"bytes 17..17", text("\"%02x\"", byte), text("\"%02x\"", byte ^ 0xFFU)};
        }
        flip(b.device, offset, mask);
        expect_entry(saved, b.device.path(), b.table(table), no, {expected});
        expect_entry(b.device.path(), a.device.path(), b.table(table), no,
                     {{expected.key, expected.b, expected.a}});
        flip(b.device, offset, mask);
    }
}

TEST_P(DiffLayouts, LastEntryOfEachTable)
{
    std::string expected;
    for (const CacheTable &table : b.tables) {
        if (table.name == "super")
            continue;
        const std::uint64_t last = table.count - 1;
        flip(b.device, table.offset(last) + 3000);
        expected += text("%s %lu\n", table.name.c_str(), last);
    }
    const RunResult run = diff(a.device.path(), b.device.path());
    std::string entries;
    for (std::size_t at = 0; at < run.out.size(); at = run.out.find('\n', at) + 1)
        if (run.out[at] != ' ')
            entries += run.out.substr(at, run.out.find('\n', at) + 1 - at);
    EXPECT_EQ(entries, expected);
    EXPECT_EQ(run.status, 1);
}

TEST_P(DiffLayouts, WhatCannotBeReadIsADifference)
{
    const CacheTable &extents = b.table("extent");
    const auto cut = static_cast<std::uint64_t>(extents.offset(2));
    fs::resize_file(b.device.path(), cut);
    const std::string short_one = b.device.path();
    const std::string range = text("extent 2..%lu", extents.count - 1);
    expect_differences(diff(a.device.path(), short_one),
                       range + ": cannot be read in B: " + NO_DEVICE + "\n");
    expect_differences(diff(short_one, a.device.path()),
                       range + ": cannot be read in A: " + NO_DEVICE + "\n");
    expect_differences(diff(short_one, short_one), range + ": cannot be read in A: " + NO_DEVICE +
                                                       ", in B: " + NO_DEVICE + "\n");
    expect_differences(
        diff(a.device.path(), short_one, {"--json"}),
        text(R"({"kind":"unreadable","table":"extent","no":2,"count":%lu,"a":null,"b":"%s"})",
             extents.count - 2, NO_DEVICE) +
            "\n");
}

TEST_P(DiffLayouts, WhatASavedFileLacksIsADifference)
{
    // The whole device is there again when the file is compared with it.
    const CacheTable &extents = b.table("extent");
    const std::uint64_t size = b.device.size();
    const std::string saved = directory.path("saved");
    fs::resize_file(b.device.path(), static_cast<std::uint64_t>(extents.offset(extents.count - 1)));
    ASSERT_EQ(run_ctl({"save", b.device.path(), saved}).status, 1);
    fs::resize_file(saved, size);
    expect_differences(
        diff(saved, a.device.path()),
        text("extent %lu: cannot be read in A: not in the saved file\n", extents.count - 1));
}

std::vector<std::string> heads_of(const RunResult &run)
{
    std::vector<std::string> heads;
    for (const std::string &line : lines_of(run.out))
        if (!line.starts_with("  "))
            heads.push_back(line);
    return heads;
}

// The device with these inodes zeroed.
Cache zeroed_cache(const std::string &layout, std::initializer_list<std::uint64_t> inodes)
{
    Cache cache = make_cache(layout);
    for (const std::uint64_t no : inodes)
        put_block(cache.device, cache.offset("inode", no), Block{});
    return cache;
}

TEST_P(DiffLayouts, ZeroedNeighboursAreOne)
{
    const Cache zeroed = zeroed_cache(GetParam(), {1, 2, 4});
    const std::string whole = a.device.path();
    const std::string part = zeroed.device.path();
    const RunResult run = diff(whole, part);
    EXPECT_EQ(heads_of(run),
              (std::vector<std::string>{
                  "inode 1..2, 2 entries that differ alike, all zero in B, sound in A, the first:",
                  "inode 4, all zero in B, sound in A"}));
    EXPECT_NE(run.out.find("  no: 1 -> 0\n"), std::string::npos) << run;
    EXPECT_EQ(run.out.find("  no: 2 -> 0\n"), std::string::npos) << run;
    EXPECT_EQ(heads_of(diff(part, whole))[1], "inode 4, all zero in A, sound in B");

    const RunResult all = diff(whole, part, {"--all"});
    EXPECT_EQ(heads_of(all), (std::vector<std::string>{"inode 1, all zero in B, sound in A",
                                                       "inode 2, all zero in B, sound in A",
                                                       "inode 4, all zero in B, sound in A"}));
    EXPECT_NE(all.out.find("  no: 2 -> 0\n"), std::string::npos) << all;

    const RunResult json = diff(whole, part, {"--json"});
    EXPECT_EQ(lines_of(json.out).size(), 2U);
    EXPECT_TRUE(json.out.starts_with(
        text(R"({"kind":"entry","table":"inode","no":1,"count":2,"offset_a":%ld,"offset_b":%ld,)"
             R"("state_a":"sound","state_b":"zero","fields":[{"key":"checksum",)",
             a.offset("inode", 1), a.offset("inode", 1))))
        << json;

    expect_differences(diff(whole, part, {"--summary"}),
                       "inode 1..4: 3 differ, all zero in B, sound in A\n");
    expect_differences(diff(whole, part, {"--summary", "--json"}),
                       R"({"kind":"entry","table":"inode","no":1,"last":4,"count":3,)"
                       R"("text":"differ, all zero in B, sound in A"})"
                       "\n");
    EXPECT_EQ(diff(whole, part, {"--summary", "--all"}).status, 2);
    EXPECT_EQ(diff(part, part, {"--summary"}).out, "");
}

// One run where the same fields differ, whatever their values.
TEST_P(DiffLayouts, NeighboursWithTheSameFieldsAreOne)
{
    for (const std::uint64_t no : {0U, 1U, 2U})
        flip(b.device, b.offset("inode", no) + 8, static_cast<std::uint8_t>(1 + no)); // atime
    flip(b.device, b.offset("inode", 3) + 16);                                        // ctime
    const RunResult run = diff(a.device.path(), b.device.path());
    EXPECT_EQ(heads_of(run),
              (std::vector<std::string>{"inode 0..2, 3 entries that differ alike, the first:",
                                        "inode 3"}));
    EXPECT_EQ(heads_of(diff(a.device.path(), b.device.path(), {"--all"})),
              (std::vector<std::string>{"inode 0", "inode 1", "inode 2", "inode 3"}));
    expect_differences(diff(a.device.path(), b.device.path(), {"--summary"}),
                       "inode 0..3: 4 differ\n");
}

// What cannot be read, or is in one only, in the summary.
TEST_P(DiffLayouts, SummaryOfWhatCannotBeRead)
{
    const CacheTable &extents = b.table("extent");
    fs::resize_file(b.device.path(), static_cast<std::uint64_t>(extents.offset(2)));
    flip(a.device, a.offset("inode", 0) + 8);
    flip(b.device, b.offset("extent", 1) + 3);
    expect_differences(diff(a.device.path(), b.device.path(), {"--summary"}),
                       text("inode 0: 1 differ\nextent 1: 1 differ\nextent 2..%lu: %lu cannot be "
                            "read\n",
                            extents.count - 1, extents.count - 2));
}

TEST(Diff, SeveralFieldsOfARepairedEntry)
{
    const Cache cache = make_cache("v1");
    const TempDir directory;
    const std::string saved = directory.path("saved");
    ASSERT_EQ(run_ctl({"save", cache.device.path(), saved}).status, 0);
    const std::string conf = directory.write("inode.json", R"({"i_no":2,"i_use":0})");
    const LoggedRun repair = run_logged(cache.device, "repair_inode", {"-f", conf, "-y"});
    ASSERT_EQ(repair.status, 0) << repair;

    InodeV1 then = inode_used(2, 1);
    InodeV1 now;
    now.no = 2;
    const auto checksum = [](const InodeV1 &inode) {
        return in_quotes(text("0x%x", record_crc(encode(inode), InodeV1::LENGTH)));
    };
    const auto number_of = [](std::uint64_t value) { return std::to_string(value); };
    expect_entry(saved, cache.device.path(), cache.table("inode"), 2,
                 {{"checksum", checksum(then), checksum(now)},
                  {"atime", time_value(then.atime), time_value(0)},
                  {"ctime", time_value(then.ctime), time_value(0)},
                  {"mtime", time_value(then.mtime), time_value(0)},
                  {"dtime", time_value(then.dtime), time_value(0)},
                  {"uuid", in_quotes(uuid_text(then.uuid)), in_quotes(uuid_text(now.uuid))},
                  {"size", number_of(then.size), "0"},
                  {"priority", number_of(then.priority), "0"},
                  {"brick_no", "1", "0"},
                  {"unlink", number_of(then.unlink), "0"},
                  {"use", "1", "0"},
                  {"reserved1", number_of(then.reserved1), "0"},
                  {"reserved2", number_of(then.reserved2), "0"}});
}

TEST(Diff, PieceThatOnlyOneHas)
{
    const SuperV2 sb = super_v2(1, 2, 2);
    ExtentV2 more = extent_v2_used(1, 0);
    ExtentV2 fewer = more;
    fewer.maps.erase(3);
    const Device a = make_v2_device(sb, {}, {}, {fewer});
    const Device b = make_v2_device(sb, {}, {}, {more});
    const auto checksum = [&sb](const ExtentV2 &extent) {
        return in_quotes(text("0x%x", get_u32(encode(extent, sb), 0)));
    };
    const MappedMeta piece = more.maps[3];
    const std::uint64_t physical = sb.data_offset + sb.block_size + piece.begin * BLOCK_SIZE;
    const std::string prefix = "te_mapped_meta[3].";
    const CacheTable table{"extent", 2, [&](std::uint64_t no) { return extent_offset(sb, no); },
                           ""};
    expect_entry(a.path(), b.path(), table, 1,
                 {{"te_checksum", checksum(fewer), checksum(more)},
                  {prefix + "offset", "null", number(piece.offset)},
                  {prefix + "clean", "null", number(piece.clean)},
                  {prefix + "orig_len", "null", number(piece.orig_len)},
                  {prefix + "begin", "null", number(piece.begin)},
                  {prefix + "cnt", "null", number(piece.cnt)},
                  {prefix + "mapno", "null", "3"},
                  {prefix + "data_phy_offset", "null", number(physical)}});
}

TEST(Diff, RunsOfBytes)
{
    const Cache a = make_cache("v1");
    const Cache b = make_cache("v1");
    const std::int64_t slot = b.offset("brick", 0);
    for (const std::int64_t at : {200, 209, 219, 300})
        flip(b.device, slot + at);
    for (std::int64_t at = 400; at < 433; ++at)
        flip(b.device, slot + at, 0x12);
    std::string first32 = in_quotes([] {
        std::string digits;
        for (int i = 0; i < 32; ++i)
            digits += "12";
        return digits + "...";
    }());
    expect_entry(a.device.path(), b.device.path(), b.table("brick"), 0,
                 {{"bytes 200..209", in_quotes(std::string(20, '0')), "\"ff0000000000000000ff\""},
                  {"bytes 219..219", "\"00\"", "\"ff\""},
                  {"bytes 300..300", "\"00\"", "\"ff\""},
                  {"bytes 400..432", in_quotes(std::string(64, '0') + "..."), first32}});
}

TEST(Diff, TextsThatAreNoText)
{
    BrickV1 strange = brick_used(0);
    strange.brickid = "a\"b\\c\n\x01\xC3\xA4\xFF\xC0\x80\xED\xA0\x80z";
    BrickV1 alike = strange;
    alike.brickid[9] = static_cast<char>(0xFE);
    const SuperV1 sb = super_v1(1, 1, 1);
    BrickV1 plain = brick_used(0);
    plain.brickid = "plain";
    const Device a = make_v1_device(sb, {plain});
    const Device b = make_v1_device(sb, {strange});
    const Device c = make_v1_device(sb, {alike});
    const CacheTable table{"brick", 1, [&](std::uint64_t no) { return brick_offset(sb, no); }, ""};
    const auto checksum = [](const BrickV1 &brick) {
        return in_quotes(text("0x%x", get_u32(encode(brick), 0)));
    };
    const std::string replaced = "\ufffd";
    std::string shown = R"("a\"b\\c\u000a\u0001)";
    shown += "\xC3\xA4";
    for (int i = 0; i < 6; ++i)
        shown += replaced;
    shown += "z\"";
    expect_entry(
        a.path(), b.path(), table, 0,
        {{"bi_checksum", checksum(plain), checksum(strange)}, {"bi_brickid", "\"plain\"", shown}});
    // Values that look the same are shown as bytes.
    expect_entry(b.path(), c.path(), table, 0,
                 {{"bi_checksum", checksum(strange), checksum(alike)},
                  {"bytes 41..41", "\"ff\"", "\"fe\""}});
}

TEST(Diff, SuperBlocksAndTablesOfOtherSize)
{
    SuperV1 sb = super_v1(3, 5, 4);
    const Device a = make_v1_device(sb);
    SuperV1 more = sb;
    more.block_cnt = 6;
    more.brick_cnt = 2;
    more.extent_table_size = 6 * BLOCK_SIZE;
    const Device b = make_v1_device(more); // the extents lie where they lay
    const auto checksum = [](const SuperV1 &super) {
        return text("0x%x", get_u32(encode(super), 0));
    };
    const std::string expected =
        "super 0\n  checksum: \"" + checksum(sb) + "\" -> \"" + checksum(more) +
        text("\"\n  extent_table_size: %lu -> %lu\n", sb.extent_table_size,
             more.extent_table_size) +
        "  brick_cnt: 3 -> 2\n  block_cnt: 4 -> 6\nbrick 2: only in A\nextent 4..5: only in B\n";
    expect_differences(diff(a.path(), b.path()), expected);
    const std::string json = diff(a.path(), b.path(), {"--json"}).out;
    EXPECT_TRUE(json.ends_with(R"({"kind":"only","table":"brick","no":2,"count":1,"in":"a"})"
                               "\n"
                               R"({"kind":"only","table":"extent","no":4,"count":2,"in":"b"})"
                               "\n"))
        << json;
}

TEST(Diff, OtherLayouts)
{
    const Cache a = make_cache("v1");
    const Cache b = make_cache("v3");
    expect_differences(diff(a.device.path(), b.device.path()), "layout: v1 -> v3\n");
    expect_differences(diff(b.device.path(), a.device.path(), {"--json"}),
                       "{\"kind\":\"layout\",\"a\":\"v3\",\"b\":\"v1\"}\n");
}

TEST(Diff, HostileSuperBlocks)
{
    SuperV3 sb = super_v3(3, 5);
    Device a = make_v3_device(sb);
    sb.inode_table_offset = 0xFFFFFFFFFFFFF000;
    sb.inode_cnt = 0xFFFFFFFFFFFFFFFF;
    sb.hot_table_size = 0xFFFFFFFFFFFFFFFF;
    put_block(a, SUPER_OFFSET, encode(sb));
    const std::uint64_t there = (a.size() - sb.hot_table_offset) / BLOCK_SIZE;
    const std::string both = text(": cannot be read in A: %s, in B: %s\n", NO_DEVICE, NO_DEVICE);
    expect_differences(diff(a.path(), a.path()), "inode 0..18446744073709551614" + both +
                                                     text("hot %lu..4503599627370494", there) +
                                                     both);
}

TEST(Diff, RecordsThatDoNotFitTheirSlots)
{
    SuperV1 sb = super_v1(1, 2, 3);
    Device a = make_v1_device(sb);
    Device b = make_v1_device(sb);
    for (const std::uint32_t size : {0U, 3U, 4097U}) {
        sb.extent_size = size;
        put_block(a, SUPER_OFFSET, encode(sb));
        put_block(b, SUPER_OFFSET, encode(sb));
        const std::int64_t place = extent_offset(sb, 2) + 4;
        flip(b, place, 1);
        expect_differences(diff(a.path(), b.path()), "extent 2\n  bytes 4..4: \"00\" -> \"01\"\n");
        flip(b, place, 1);
    }
}

TEST(Diff, ListsThatAreNone)
{
    const Cache cache = make_cache("v1");
    const TempDir directory;
    const std::string device = cache.device.path();
    const std::string file = directory.path("file");
    for (const std::string list :
         {"{", "1", "[1]", R"([{"table":"inode"}])", R"([{"table":"inode","no":-1,"count":1}])",
          R"([{"table":"inode","no":1,"count":1e30}])"}) {
        fs::copy_file(device, file, fs::copy_options::overwrite_existing);
        const std::string path = directory.write("file.unreadable.json", list);
        const RunResult run = diff(device, file);
        EXPECT_EQ(run.status, 2) << run;
        EXPECT_TRUE(run.err.starts_with("zu_tierctl: " + path + " is no list of unreadable blocks"))
            << run;
    }
    fs::remove(directory.path("file.unreadable.json"));
    fs::create_directory(directory.path("file.unreadable.json"));
    expect_complaint(diff(device, file), 2,
                     "cannot read " + file + ".unreadable.json: Is a directory");
}

TEST(Diff, Help)
{
    const RunResult help = run_ctl({"diff", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string word : {"--json", "unreadable", "layout", "only", "Exit status"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

} // namespace
