#include "template_model.h"

#include "repair_file.h"

#include <algorithm>

namespace tier_test {

namespace {

std::uint64_t get_number(const Block &block, const StoredField &field)
{
    std::uint64_t value = 0;
    for (std::size_t i = field.width; i-- > 0;)
        value = value << 8 | get_u8(block, field.at + i);
    return value;
}

std::string field_bytes(const Block &block, const StoredField &field)
{
    const auto *begin = block.begin() + field.at;
    return {begin, begin + field.width};
}

// Byte for byte, without the zeros at the end.
std::string quoted(std::string bytes)
{
    bytes.erase(bytes.find_last_not_of('\0') + 1);
    std::string result = "\"";
    for (const char byte : bytes) {
        if (byte == '"' || byte == '\\')
            result += '\\';
        result += byte >= ' ' && byte <= '~' ? std::string(1, byte)
                                             : text("\\x%02x", static_cast<unsigned char>(byte));
    }
    return result + '"';
}

std::string shown_value(const Block &block, const StoredField &field)
{
    const std::uint64_t number = field.width <= 8 ? get_number(block, field) : 0;
    switch (field.form) {
    case Form::HEX:
    case Form::HEX_AND_TIME:
        return text("0x%lx", number);
    case Form::TIME:
        return text("%lu (%s)", number, time_text(number).c_str());
    case Form::TEXT:
        return quoted(field_bytes(block, field));
    case Form::UUID:
        return uuid_text(get_uuid(block, field.at));
    case Form::REVERSED:
        return text("%02x%02x%02x%02x", block[field.at], block[field.at + 1], block[field.at + 2],
                    block[field.at + 3]);
    default:
        return std::to_string(number);
    }
}

// The value of a key. Texts are plain here.
std::string key_value(const Block &block, const StoredField &key)
{
    switch (key.form) {
    case Form::TEXT:
        return json_string(field_bytes(block, key).c_str());
    case Form::HEX:
    case Form::HEX_AND_TIME:
    case Form::UUID:
        return json_string(shown_value(block, key));
    case Form::REVERSED:
        return std::to_string(std::stoul(shown_value(block, key), nullptr, 16));
    case Form::EXPANSION:
        return std::to_string(get_number(block, key) * EXPANSION_UNIT);
    default:
        return std::to_string(get_number(block, key));
    }
}

void copy_field(const Block &from, const StoredField &field, Block &to)
{
    const std::string bytes = field_bytes(from, field);
    put_text(to, field.at, field.form == Form::TEXT ? bytes.c_str() : bytes);
}

std::string member(const std::string &key, const std::string &value)
{
    return "  \"" + key + "\": " + value + ",\n";
}

// The members as a document.
std::string document(std::string members)
{
    members.erase(members.size() - 2); // the last comma
    return "{\n" + members + "\n}\n";
}

std::string hex_bytes(ConstByteSpan bytes)
{
    std::string result;
    for (const std::uint8_t byte : bytes.first(std::min<std::size_t>(bytes.size(), 256)))
        result += text("%02x", byte);
    return bytes.size() > 256 ? result + "..." : result;
}

std::vector<StoredField> joined_fields(std::vector<StoredField> first,
                                       const std::vector<StoredField> &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The fields of those names, each as a key of another name.
std::vector<StoredField> keys_of(const std::vector<StoredField> &fields,
                                 const std::vector<std::pair<std::string, std::string>> &names)
{
    std::vector<StoredField> keys;
    for (const auto &[key, name] : names) {
        StoredField field = *std::ranges::find(fields, name, &StoredField::name);
        field.name = key;
        keys.push_back(field);
    }
    return keys;
}

const std::vector<StoredField> HEAD{
    {"checksum", 0, 4, Form::HEX},
    {"magic", 4, 4, Form::HEX},
    {"brick_table_size", 8, 8},
    {"inode_table_size", 16, 8},
    {"extent_table_size", 24, 8},
    {"data_offset", 32, 8},
    {"ctime", 40, 8, Form::HEX_AND_TIME},
    {"uuid", 48, 16, Form::UUID},
    {"ssd_uuid", 64, 48, Form::TEXT},
    {"version", 112, 4, Form::HEX},
    {"super block size", 116, 4},
    {"brick_cnt", 120, 4},
    {"inode_cnt", 124, 4},
    {"block_size", 128, 4},
    {"block_cnt", 132, 4},
    {"extent_size", 136, 4},
};

const std::vector<StoredField> BRICK{
    {"bi_checksum", 0, 4, Form::HEX},
    {"bi_magic", 4, 4, Form::HEX},
    {"bi_use", 8, 4},
    {"bi_no", 12, 4},
    {"bi_uuid", 16, 16, Form::UUID},
    {"bi_brickid", 32, 128, Form::TEXT},
    {"bi_unlink", 160, 4},
    {"bi_reserved", 164, 4},
};

std::vector<StoredField> inode_fields(const std::string &word80, const std::string &word88)
{
    return {{"checksum", 0, 4, Form::HEX},
            {"magic", 4, 4, Form::HEX},
            {"atime", 8, 8, Form::TIME},
            {"ctime", 16, 8, Form::TIME},
            {"mtime", 24, 8, Form::TIME},
            {"dtime", 32, 8, Form::TIME},
            {"uuid", 40, 16, Form::UUID},
            {"size", 56, 8},
            {"priority", 64, 4},
            {"no", 68, 4},
            {"brick_no", 72, 4},
            {"unlink", 76, 2},
            {"use", 78, 2},
            {word80, 80, 8},
            {word88, 88, 8}};
}

const std::vector<StoredField> EXTENT{
    {"te_checksum", 0, 4, Form::HEX},
    {"te_block", 4, 4},
    {"te_size", 8, 8},
    {"te_inode_no", 16, 4},
    {"te_sampling_low", 20, 4, Form::REVERSED},
    {"te_sampling_mid", 24, 4},
    {"te_sampling_high", 28, 4},
    {"te_use", 32, 2},
    {"te_clean", 34, 2},
    {"te_ntime", 36, 4},
    {"te_hot", 40, 8},
    {"te_no", 48, 8},
};

std::vector<std::pair<std::string, std::string>> same_names(const std::vector<std::string> &names)
{
    std::vector<std::pair<std::string, std::string>> result;
    for (const std::string &name : names)
        result.emplace_back(name, name);
    return result;
}

// The names of all fields but those.
std::vector<std::string> names_but(const std::vector<StoredField> &fields,
                                   const std::vector<std::string> &left_out)
{
    std::vector<std::string> names;
    for (const StoredField &field : fields)
        if (std::ranges::find(left_out, field.name) == left_out.end())
            names.push_back(field.name);
    return names;
}

SlotTable super_table(std::size_t length, const std::vector<StoredField> &fields,
                      const std::vector<std::string> &left_out, std::uint32_t magic,
                      std::uint32_t version)
{
    const std::vector<StoredField> keys = keys_of(fields, same_names(names_but(fields, left_out)));
    return {.name = "super",
            .length = length,
            .shown = fields,
            .keys = keys,
            .always = keys.size(),
            .areas = {{"", BLOCK_SIZE}},
            .constants = {{4, magic}, {112, version}},
            .offset = [](std::uint64_t) { return std::int64_t{4096}; }};
}

template <class Super>
SlotTable brick_slots(const Super &sb, std::uint32_t magic)
{
    return {.name = "brick",
            .length = BrickV1::LENGTH,
            .shown = BRICK,
            .keys = keys_of(BRICK,
                            same_names({"bi_use", "bi_no", "bi_uuid", "bi_brickid", "bi_unlink"})),
            .always = 2,
            .areas = {{"", BLOCK_SIZE}},
            .use = {"", 8, 4},
            .number = {"", 12, 4},
            .constants = {{4, magic}},
            .offset = [sb](std::uint64_t no) { return brick_offset(sb, no); }};
}

template <class Super>
SlotTable inode_slots(const Super &sb, std::uint32_t magic, const std::vector<StoredField> &fields,
                      const std::vector<std::pair<std::string, std::string>> &more_keys)
{
    std::vector<std::pair<std::string, std::string>> names{{"i_no", "no"},
                                                           {"i_use", "use"},
                                                           {"i_atime", "atime"},
                                                           {"i_ctime", "ctime"},
                                                           {"i_mtime", "mtime"},
                                                           {"i_dtime", "dtime"},
                                                           {"i_uuid", "uuid"},
                                                           {"i_size", "size"},
                                                           {"i_priority", "priority"},
                                                           {"i_brick_no", "brick_no"},
                                                           {"i_unlink", "unlink"}};
    names.insert(names.end(), more_keys.begin(), more_keys.end());
    return {.name = "inode",
            .length = InodeV1::LENGTH,
            .shown = fields,
            .keys = keys_of(fields, names),
            .always = 2,
            .areas = {{"", BLOCK_SIZE}},
            .use = {"", 78, 2},
            .number = {"", 68, 4},
            .constants = {{4, magic}},
            .offset = [sb](std::uint64_t no) {
                return inode_offset(sb, static_cast<std::uint32_t>(no));
            }};
}

SlotTable extent_slots(const SuperHead &sb, std::size_t length,
                       const std::vector<std::string> &keys)
{
    return {.name = "extent",
            .length = length,
            .shown = EXTENT,
            .keys = keys_of(EXTENT, same_names(keys)),
            .always = 2,
            .areas = {},
            .use = {"", 32, 2},
            .number = {"", 48, 8},
            .offset = [sb](std::uint64_t no) { return extent_offset(sb, no); }};
}

// "te_bitmap", and the words of it.
std::string bitmap_rest(std::size_t words, const Block &from, bool in_use, Block &to)
{
    std::string list;
    for (std::size_t at = 56; at < 56 + 8 * words; at += 8) {
        list += (list.empty() ? "" : ", ") + std::to_string(get_u64(from, at));
        if (in_use)
            put_u64(to, at, get_u64(from, at));
    }
    return member("te_bitmap", "[" + list + "]");
}

// "te_mapped_meta": the pieces that are not all zero.
std::string pieces_rest(const SuperV2 &sb, const Block &from, bool in_use, Block &to)
{
    std::string list;
    for (std::uint32_t mapno = 0; mapno < sb.map_cnt; ++mapno) {
        const std::size_t at = sb.extent_size + 16 * mapno;
        if (get_u64(from, at) == 0 && get_u64(from, at + 8) == 0)
            continue;
        list +=
            text("%s    {\n      \"mapno\": %u,\n      \"offset\": %lu,\n      \"clean\": %u,\n"
                 "      \"len\": %u,\n      \"begin\": %hu,\n      \"cnt\": %hu\n    }",
                 list.empty() ? "\n" : ",\n", mapno, get_u64(from, at), get_u32(from, at + 8) & 1U,
                 get_u32(from, at + 8) >> 1, get_u16(from, at + 12), get_u16(from, at + 14));
        if (in_use)
            copy_field(from, {"", at, 16}, to);
    }
    return member("te_mapped_meta", list.empty() ? "[]" : "[" + list + "\n  ]");
}

} // namespace

std::string change_note(const std::string &what, const std::string &before,
                        const std::string &after)
{
    return "a repair changes " + what + ": " + before + " -> " + after;
}

void add_cleared(std::vector<std::string> &notes, const Block &before, const Block &after,
                 std::size_t begin, const std::vector<StoredArea> &areas)
{
    for (const auto &[name, end] : areas) {
        std::vector<std::size_t> lost;
        for (std::size_t at = begin; at < end; ++at)
            if (before[at] != after[at])
                lost.push_back(at);
        if (!lost.empty())
            notes.push_back(
                text("a repair clears %sbytes %zu..%zu: ",
                     name.empty() ? "" : (name + ", ").c_str(), lost.front(), lost.back()) +
                hex_bytes(
                    ConstByteSpan(before).subspan(lost.front(), lost.back() - lost.front() + 1)));
        begin = end;
    }
}

ExpectedTemplate SlotTable::expect(std::uint64_t no, const Block &block) const
{
    ExpectedTemplate expected;
    Block from = block; // but for what the file corrects
    for (std::size_t i = 0; i < number.width; ++i)
        from[number.at + i] = static_cast<std::uint8_t>(no >> (8 * i));
    Block &to = expected.repaired;
    for (const auto &[at, value] : constants) {
        put_u32(from, at, value);
        put_u32(to, at, value);
    }
    const bool in_use = use.width == 0 || get_number(block, use) != 0;
    std::string members;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        members += member(keys[i].name, key_value(from, keys[i]));
        if (in_use || i < always)
            copy_field(from, keys[i], to);
    }
    if (rest)
        members += rest(from, in_use, to);
    if (derive)
        derive(from, to);
    seal(to, length);
    expected.random_uuid = name == "brick" && !in_use;
    if (expected.random_uuid) {
        expected.changes = {
            change_note("bi_uuid", shown_value(block, BRICK[4]), "a new random one"),
            change_note("bi_checksum", shown_value(block, BRICK[0]), "the one that belongs to it")};
        copy_field(block, BRICK[0], to);
        copy_field(block, BRICK[4], to);
    }
    expected.file = document(members);
    for (const StoredField &field : shown)
        if (field_bytes(block, field) != field_bytes(to, field))
            expected.changes.push_back(
                change_note(field.name, shown_value(block, field), shown_value(to, field)));
    const StoredField &last = *std::ranges::max_element(shown, {}, &StoredField::at);
    add_cleared(expected.changes, block, to, last.at + last.width, areas);
    return expected;
}

std::string packed_document(std::int64_t offset, const std::string &entries_key,
                            const std::vector<std::string> &entries)
{
    std::string list;
    for (const std::string &entry : entries)
        list += (list.empty() ? "\n" : ",\n") + entry;
    return document(member("meta_offset", std::to_string(offset)) +
                    member(entries_key, list.empty() ? "[]" : "[" + list + "\n  ]"));
}

void seal_packed(const ShardTable &, Block &block)
{
    put_u32(block, 4, 0x2183BA9D);
    seal(block, BLOCK_SIZE);
}

void seal_packed(const ExtentTable &, Block &block)
{
    const std::uint32_t crc = extent_block_crc(block);
    for (unsigned i = 0; i < 32; ++i)
        block[8 * i] = static_cast<std::uint8_t>((block[8 * i] & 0xFE) | (crc >> i & 1));
}

ExpectedTemplate expect_hot(const SuperV3 &sb, std::uint64_t no, const Block &block)
{
    ExpectedTemplate expected;
    expected.file = document(member("meta_offset", std::to_string(hot_offset(sb, no))));
    add_cleared(expected.changes, block, Block{}, 0, {{"", BLOCK_SIZE}});
    return expected;
}

SlotTable super_slots(const SuperV1 &)
{
    return super_table(SuperV1::LENGTH, joined_fields(HEAD, {{"sb_reserved", 140, 4}}),
                       {"checksum", "magic", "sb_reserved"}, 0xCACBCCCD, 0x10000);
}

SlotTable super_slots(const SuperV2 &)
{
    const std::vector<StoredField> fields =
        joined_fields(HEAD, {
                                {"exp_inode_magic", 140, 2, Form::HEX},
                                {"exp_inode_inuse", 143, 1, Form::HEX},
                                {"sb_inode_exp_area", 142, 1},
                                {"min_alloc_size", 144, 4},
                                {"total_map_size", 148, 4},
                                {"map_cnt", 152, 4},
                                {"size_mapped_meta", 156, 4},
                                {"hot_size", 160, 4},
                                {"total_extent_size", 164, 4},
                            });
    SlotTable table = super_table(SuperV2::LENGTH, fields,
                                  {"checksum", "magic", "exp_inode_magic", "exp_inode_inuse",
                                   "sb_inode_exp_area", "total_extent_size"},
                                  0xCACBCCCD, 0x20000);
    const auto behind_the_head =
        std::ranges::find(table.keys, "min_alloc_size", &StoredField::name);
    table.keys.insert(behind_the_head, {{"exp_inode_cnt", 142, 1, Form::EXPANSION},
                                        {"exp_inode_magic", 140, 2, Form::HEX},
                                        {"exp_inode_inuse", 143, 1, Form::HEX}});
    table.always = table.keys.size();
    table.derive = [](const Block &from, Block &to) {
        const bool kept = get_u16(from, 140) == 0x4558 && get_u8(from, 142) != 0;
        if (!kept)
            put_u32(to, 140, 0);
        else if (get_u8(from, 143) != 0x53)
            put_u8(to, 143, 0);
        put_u32(to, 164, get_u32(to, 136) + get_u32(to, 148) + get_u32(to, 160));
    };
    return table;
}

SlotTable super_slots(const SuperV3 &)
{
    std::vector<StoredField> fields{{"checksum", 0, 4, Form::HEX},
                                    {"magic", 4, 4, Form::HEX},
                                    {"sb_offset", 8, 8},
                                    {"super block size", 16, 8},
                                    {"reserved_offset", 24, 8},
                                    {"reserved_size", 32, 8},
                                    {"ctime", 40, 8, Form::HEX_AND_TIME},
                                    {"uuid", 48, 16, Form::UUID},
                                    {"ssd_uuid", 64, 48, Form::TEXT},
                                    {"version", 112, 4, Form::HEX},
                                    {"reserved", 116, 4}};
    const std::vector<std::string> words{
        "brick_table_offset",  "brick_table_size",  "brick_cnt",
        "inode_table_offset",  "inode_table_size",  "inode_cnt",
        "shard_table_offset",  "shard_table_size",  "shard_table_cnt",
        "extent_table_offset", "extent_table_size", "extent_table_cnt",
        "hot_table_offset",    "hot_table_size",    "data_offset",
        "data_table_size",     "block_size",        "block_cnt"};
    for (std::size_t i = 0; i < words.size(); ++i)
        fields.push_back({words[i], 120 + 8 * i, 8});
    return super_table(SuperV3::LENGTH, fields, {"checksum", "magic"}, 0xCACBDCBD, 0x30000);
}

std::vector<SlotTable> slot_tables(const SuperV1 &sb)
{
    SlotTable extents =
        extent_slots(sb, sb.extent_size,
                     {"te_use", "te_no", "te_block", "te_size", "te_inode_no", "te_sampling_low",
                      "te_sampling_mid", "te_sampling_high", "te_clean", "te_ntime", "te_hot"});
    const std::size_t words = (sb.extent_size - 56) / 8;
    extents.areas = {{"bitmap", 56 + 8 * words}, {"", BLOCK_SIZE}};
    extents.rest = [words](const Block &from, bool in_use, Block &to) {
        return bitmap_rest(words, from, in_use, to);
    };
    return {brick_slots(sb, BrickV1{}.magic),
            inode_slots(sb, InodeV1{}.magic, inode_fields("reserved1", "reserved2"), {}), extents};
}

std::vector<SlotTable> slot_tables(const SuperV2 &sb)
{
    SlotTable extents = extent_slots(sb, sb.total_extent_size,
                                     {"te_use", "te_no", "te_inode_no", "te_sampling_low",
                                      "te_sampling_mid", "te_sampling_high"});
    const std::size_t pieces_end = sb.extent_size + 16 * sb.map_cnt;
    extents.areas = {{"bitmap", sb.extent_size},
                     {"mapped pieces", pieces_end},
                     {"hot area", std::max<std::size_t>(pieces_end, sb.total_extent_size)},
                     {"", BLOCK_SIZE}};
    extents.rest = [sb](const Block &from, bool in_use, Block &to) {
        return pieces_rest(sb, from, in_use, to);
    };
    return {brick_slots(sb, BrickV2{}.magic),
            inode_slots(sb, InodeV2{}.magic, inode_fields("new_data", "blocks"),
                        {{"new_data", "new_data"}, {"i_blocks", "blocks"}}),
            extents};
}

std::vector<SlotTable> slot_tables(const SuperV3 &sb)
{
    return {brick_slots(sb, BrickV3{}.magic),
            inode_slots(sb, InodeV3{}.magic, inode_fields("new_data", "blocks"),
                        {{"new_data", "new_data"}, {"i_blocks", "blocks"}})};
}

} // namespace tier_test
