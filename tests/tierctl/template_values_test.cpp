// Numbers at the ends of their ranges, and odd texts.

#include "template_run.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr std::uint64_t TOP = std::uint64_t{1} << 63;
const std::vector<std::uint64_t> VALUES{
    0,       1,       UINT64_MAX, UINT64_MAX - 1, 1U << 31,         TOP,
    TOP - 1, TOP + 1, TOP - 512,  TOP + 1025,     (1ULL << 53) + 1, 0x8000800080008000};

void put_number(Block &block, const StoredField &field, std::uint64_t value)
{
    for (std::size_t i = 0; i < field.width; ++i)
        put_u8(block, field.at + i, static_cast<std::uint8_t>(value >> (8 * i)));
}

// Entry 1 with a value in all of its numbers but `left_out`, and in what is behind its fields.
void check_value(Device &device, const SlotTable &table, std::uint64_t value,
                 std::vector<std::string> left_out)
{
    SCOPED_TRACE(text("%s 0x%lx", table.name.c_str(), value));
    const auto offset = static_cast<std::uint64_t>(table.offset(1));
    Block block = device.block(offset);
    for (const StoredField &field : table.shown) {
        const bool identifies = field.at == 4 && !table.constants.empty();
        if (field.form != Form::TEXT && field.form != Form::UUID && !identifies &&
            field.at != table.number.at &&
            std::ranges::find(left_out, field.name) == left_out.end())
            put_number(block, field, value);
    }
    seal(block, table.length);
    device.write(offset, block);
    expect_template(device, {table.name, 1, offset}, table.expect(1, block));
}

const std::vector<std::string> OWNERS{"brick_no", "te_inode_no"};

template <class Super>
void check_values(Device &device, const Super &sb)
{
    for (const SlotTable &table : slot_tables(sb)) {
        const Block good = device.block(static_cast<std::uint64_t>(table.offset(1)));
        for (const std::uint64_t value : VALUES) {
            device.write(static_cast<std::uint64_t>(table.offset(1)), good);
            check_value(device, table, value, OWNERS);
        }
    }
}

TEST(TemplateOfValues, V1)
{
    const SuperV1 sb = super_v1(2, 2, 2);
    Device device = make_v1_device(sb, {brick_used(1)}, {inode_used(1, 1)}, {extent_used(1, 1)});
    check_values(device, sb);
}

TEST(TemplateOfValues, V2)
{
    const SuperV2 sb = super_v2(2, 2, 2);
    Device device =
        make_v2_device(sb, {brick_used(1)}, {inode_v2_used(1, 1)}, {extent_v2_used(1, 1)});
    check_values(device, sb);
}

TEST(TemplateOfValues, V3)
{
    const SuperV3 sb = super_v3(2, 2);
    Device device = make_v3_device(sb, {brick_v3_used(1)}, {inode_v3_used(1, 1)});
    check_values(device, sb);
}

TEST(TemplateOfValues, BitmapWords)
{
    SuperV1 sb = super_v1(1, 1, 1);
    sb.extent_size = static_cast<std::uint32_t>(56 + 8 * VALUES.size());
    ExtentV1 extent = extent_used(0, 0);
    extent.bitmap = VALUES;
    Device device = make_v1_device(sb, {}, {}, {extent});
    const auto offset = static_cast<std::uint64_t>(extent_offset(sb, 0));
    expect_template(device, {"extent", 0, offset},
                    slot_tables(sb)[2].expect(0, encode(extent, sb.extent_size)));
}

// A piece without a length is carried, too.
TEST(TemplateOfValues, Pieces)
{
    SuperV2 sb = super_v2(1, 1, 1);
    ExtentV2 extent = extent_v2_used(0, 0);
    extent.maps.clear();
    for (std::uint32_t i = 0; i < VALUES.size(); ++i)
        extent.maps[i] = {.offset = VALUES[i],
                          .clean = i & 1U,
                          .orig_len = i == 0 ? sb.block_size : 0,
                          .begin = static_cast<std::uint16_t>(VALUES[i]),
                          .cnt = static_cast<std::uint16_t>(VALUES[VALUES.size() - 1 - i] >> 16)};
    extent.maps[31] = {.offset = 0, .clean = 0, .orig_len = 0, .begin = 0, .cnt = 1};
    Device device = make_v2_device(sb, {}, {}, {extent});
    const auto offset = static_cast<std::uint64_t>(extent_offset(sb, 0));
    expect_template(device, {"extent", 0, offset},
                    slot_tables(sb)[2].expect(0, encode(extent, sb)));
}

// Numbers of a super block that no rule ties to others.
template <class Super>
void check_super(Device &device, const Super &sb, const std::vector<std::string> &names)
{
    const SlotTable table = super_slots(sb);
    for (const std::uint64_t value : VALUES) {
        SCOPED_TRACE(value);
        Block block = encode(sb);
        for (const StoredField &field : table.shown)
            if (std::ranges::find(names, field.name) != names.end())
                put_number(block, field, value);
        seal(block, Super::LENGTH);
        device.write(4096, block);
        expect_template(device, {"super", 0, 4096}, table.expect(0, block));
    }
}

TEST(TemplateOfValues, SuperBlocks)
{
    const SuperV1 v1 = super_v1(1, 1, 1);
    Device first = make_v1_device(v1);
    check_super(first, v1, {"ctime", "sb_reserved"});
    const SuperV2 v2 = super_v2(1, 1, 1);
    Device second = make_v2_device(v2);
    check_super(second, v2, {"ctime"});
    const SuperV3 v3 = super_v3(1, 1);
    Device third = make_v3_device(v3);
    check_super(third, v3,
                {"ctime", "reserved", "sb_offset", "reserved_offset", "reserved_size",
                 "brick_table_offset", "inode_table_offset", "shard_table_offset",
                 "extent_table_offset", "hot_table_offset", "hot_table_size", "data_offset"});
}

// All bits of the words that an expansion area has no use for, and an area that is none.
TEST(TemplateOfValues, SuperBlocksWithoutAnExpansionArea)
{
    for (const std::uint32_t word : {0xFFFFFFFFU, 0x00004558U, 0x53004558U, 0x53060000U}) {
        const SuperV2 sb = super_v2(1, 1, 1);
        Device device = make_v2_device(sb);
        Block block = encode(sb);
        put_u32(block, 140, word);
        put_u32(block, 164, 123);
        seal(block, SuperV2::LENGTH);
        device.write(4096, block);
        expect_template(device, {"super", 0, 4096}, super_slots(sb).expect(0, block));
    }
}

TEST(TemplateOfValues, ExpansionAreaInAnUnknownState)
{
    SuperV2 sb = super_v2(1, 1, 1);
    set_expansion(sb, 153600, true);
    sb.exp_inuse = 0x35;
    Device device = make_v2_device(sb, {}, {inode_v2(1), inode_v2(153600)});
    expect_template(device, {"super", 0, 4096}, super_slots(sb).expect(0, encode(sb)));
}

// Texts. Each is brought to 93 bytes by what goes in front of it.

struct OddText {
    std::string stored;
    std::string json;
};

const std::vector<OddText> ODD_TEXTS{
    {"\"\\/", R"(\"\\/)"},
    {"\x01\x1f\t\n", R"(\u0001\u001f\u0009\u000a)"},
    {"\x7f", R"(\u007f)"},
    {"\u00e4\u20ac\U0001F600", "\u00e4\u20ac\U0001F600"},
    {"\u0080\u07ff\u0800\uffff\U00010000\U0010ffff\ud7ff\ue000",
     "\u0080\u07ff\u0800\uffff\U00010000\U0010ffff\ud7ff\ue000"},
};

std::string padding(std::size_t length)
{
    return std::string(93 - length, '/');
}

// The file with another path.
void set_path(std::string &file, const std::string &json)
{
    const std::string key = "\"bi_brickid\": ";
    const std::size_t begin = file.find(key) + key.size();
    const std::size_t end = file.find(",\n  \"bi_unlink\"", begin);
    file.replace(begin, end - begin, '"' + json + '"');
}

TEST(TemplateOfTexts, AreCarried)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    for (const auto &[stored, json] : ODD_TEXTS) {
        SCOPED_TRACE(json);
        BrickV1 brick = brick_used(0);
        brick.brickid = padding(stored.size()) + stored;
        brick.reserved = 0;
        Device device = make_v1_device(sb, {brick});
        ExpectedTemplate expected{.repaired = encode(brick)};
        expected.file = slot_tables(sb)[0].expect(0, encode(brick)).file;
        set_path(expected.file, padding(stored.size()) + json);
        const auto offset = static_cast<std::uint64_t>(brick_offset(sb, 0));
        expect_template(device, {"brick", 0, offset}, expected);
    }
}

// What no JSON text can have is replaced, three bytes for each.
const std::vector<OddText> INVALID_TEXTS{
    {"\x80", "\ufffd"},
    {"\xff\xfe", "\ufffd\ufffd"},
    {"\xc3", "\ufffd"},
    {"\xe2\x82", "\ufffd\ufffd"},
    {"\xf0\x9f\x98", "\ufffd\ufffd\ufffd"},
    {"\xe2\x82x", "\ufffd\ufffdx"},
    {"\xc0\xaf", "\ufffd\ufffd"},
    {"\xc1\xbf", "\ufffd\ufffd"},
    {"\xe0\x9f\xbf", "\ufffd\ufffd\ufffd"},
    {"\xed\xa0\x80", "\ufffd\ufffd\ufffd"},
    {"\xf0\x8f\xbf\xbf", "\ufffd\ufffd\ufffd\ufffd"},
    {"\xf4\x90\x80\x80", "\ufffd\ufffd\ufffd\ufffd"},
    {"\xf5\x80\x80\x80", "\ufffd\ufffd\ufffd\ufffd"},
    {"\xc3\xc3\xa4", "\ufffd\u00e4"},
};

std::string as_quoted(const std::string &bytes)
{
    std::string result = "\"";
    for (const char byte : bytes)
        result += byte >= ' ' && byte <= '~' ? std::string(1, byte)
                                             : text("\\x%02x", static_cast<unsigned char>(byte));
    return result + '"';
}

TEST(TemplateOfTexts, AreReplacedWhereTheyAreInvalid)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    for (const auto &[stored, json] : INVALID_TEXTS) {
        SCOPED_TRACE(as_quoted(stored));
        BrickV1 brick = brick_used(0);
        brick.brickid = padding(json.size()) + stored;
        brick.reserved = 0;
        const Block before = encode(brick);
        Device device = make_v1_device(sb, {brick});
        brick.brickid = padding(json.size()) + json;
        ExpectedTemplate expected{.repaired = encode(brick)};
        expected.file = slot_tables(sb)[0].expect(0, before).file;
        set_path(expected.file, brick.brickid);
        expected.changes = {change_note("bi_checksum", text("0x%x", get_u32(before, 0)),
                                        text("0x%x", get_u32(expected.repaired, 0))),
                            change_note("bi_brickid", as_quoted(padding(json.size()) + stored),
                                        as_quoted(brick.brickid))};
        const auto offset = static_cast<std::uint64_t>(brick_offset(sb, 0));
        expect_template(device,
                        {"brick",
                         0,
                         offset,
                         {"bi_brickid is not valid UTF-8: the file has U+FFFD for what is not"}},
                        expected);
    }
}

TEST(TemplateOfTexts, RestBehindTheTerminatorIsLost)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    Block block = encode(brick_used(0));
    put_text(block, 32 + 100, "old\"\\");
    seal(block, BrickV1::LENGTH);
    Device device = make_v1_device(sb);
    const auto offset = static_cast<std::uint64_t>(brick_offset(sb, 0));
    device.write(offset, block);
    const ExpectedTemplate expected = slot_tables(sb)[0].expect(0, block);
    EXPECT_NE(std::ranges::find_if(expected.changes,
                                   [](const std::string &note) {
                                       return note.find("\\x00old\\\"\\\\\"") != std::string::npos;
                                   }),
              expected.changes.end());
    expect_template(device, {"brick", 0, offset}, expected);
}

} // namespace
