// The tables of bricks, inodes and extents.

#include "model_tables.h"

namespace tier_test {

namespace {

using enum Conversion;
using enum Need;

constexpr std::uint32_t INODE_MAX = 500'000; // of V2

int as_int(std::uint32_t value) { return static_cast<int>(value); }

// A count of the super block: V1 and V2 have words where V3 has 64 bits.
auto count_at(int version, std::size_t head, std::size_t wide)
{
    return [=](const Block &super) {
        return version == 3 ? get_u64(super, wide) : std::uint64_t{get_u32(super, head)};
    };
}

std::uint64_t brick_count(int version, const Block &super)
{
    return count_at(version, 120, 136)(super);
}
std::uint64_t inode_count(int version, const Block &super)
{
    return count_at(version, 124, 160)(super);
}

// The head of V1 and V2: the super block area's size and its first block are added in 32 bits.
std::uint64_t bricks_start(const Block &super) { return get_u32(super, 116) + 4096U; }
std::uint64_t inodes_start(const Block &super) { return bricks_start(super) + get_u64(super, 8); }
std::uint64_t extents_start(const Block &super) { return inodes_start(super) + get_u64(super, 16); }

std::string plain_tail(const Block &, const Block &, std::int64_t offset)
{
    return text(",\"meta_offset\":%ld}", offset);
}

Key key(const TableModel &table, const std::string &name, const std::string &field,
        Conversion conversion = SIGNED_64, Need need = IN_USE)
{
    return {.name = name, .field = table.field(field), .need = need, .conversion = conversion};
}

TableModel brick_table(int version)
{
    const std::string suffix = "_v" + std::to_string(version);
    const std::string parser = "parse_brick_from_json" + suffix;
    TableModel table{
        .version = version,
        .name = "brick",
        .fields = {{"bi_checksum", 0, 32, FieldForm::HEX},
                   {"bi_magic", 4, 32, FieldForm::HEX},
                   {"bi_use", 8},
                   {"bi_no", 12},
                   {"bi_uuid", 16, 128, FieldForm::UUID},
                   {"bi_brickid", 32, 1024, FieldForm::TEXT},
                   {"bi_unlink", 160},
                   {"bi_reserved", 164}},
        .magic = version == 3 ? 0x42584B69U : 0x42524B49U,
        .number = "bi_no",
        .use = "bi_use",
        .id = "bi_brickid",
        .length = [](const Block &) { return std::size_t{168}; },
        .start =
            [version](const Block &super) {
                return version == 3 ? get_u64(super, 120) : bricks_start(super);
            },
        .count = count_at(version, 120, 136),
        .dump = "dump_brick",
        .formatter = "__dump_brick" + suffix,
        .number_key = "bi_no",
        .without_log = "brick && fp",
        .tail = plain_tail,
        .fault =
            [](std::uint64_t slot, const Block &b, std::uint32_t stored, std::uint32_t crc) {
                return text("no:%lu, brick no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", slot,
                            get_u32(b, 12), get_u32(b, 4), stored, crc);
            },
        .ignored =
            [](std::uint64_t slot, const Block &b) {
                return text("ignore brick %lu, bi_use=%d, bi_brickid=%s", slot,
                            as_int(get_u32(b, 8)),
                            get_text(b, {"", 32, 1024, FieldForm::TEXT}).c_str());
            },
        .repair = "repair_brick",
        .repair_code = 10,
        .parser = parser,
        .without_super = "params && params->sb && brick_cfg && brick",
        .unread_keys = {"bi_checksum", "bi_magic", "bi_reserved", "meta_offset"},
        .makes_uuid = true,
        .bounds = [=](const Block &super, const Block &b, int) -> Log {
            const std::uint64_t bricks = brick_count(version, super);
            if (get_u32(b, 12) < bricks)
                return {};
            return {
                error_line(parser, text("bi_no %u is invalid, max: %lu", get_u32(b, 12), bricks))};
        },
    };
    table.keys = {
        key(table, "bi_use", "bi_use", SIGNED_64, ALWAYS),
        key(table, "bi_no", "bi_no", SIGNED_64, ALWAYS), key(table, "bi_uuid", "bi_uuid"),
        key(table, "bi_brickid", "bi_brickid"),
        key(table, "bi_unlink", "bi_unlink", UNSIGNED_64, version == 3 ? IN_USE : OPTIONAL)};
    table.keys[3].most = 127;
    table.keys[3].length = 93;
    return table;
}

std::string inode_fault(std::uint64_t, const Block &b, std::uint32_t stored, std::uint32_t crc)
{
    return text("inode no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", get_u32(b, 68),
                get_u32(b, 4), stored, crc);
}

std::string inode_fault_v2(std::uint64_t slot, const Block &b, std::uint32_t stored,
                           std::uint32_t crc)
{
    return text("inode no: %u no: %lu magic: 0x%x, checksum: 0x%x crc32: 0x%x", get_u32(b, 68),
                slot, get_u32(b, 4), stored, crc);
}

// V1 and V3. In V3 the inode's number is signed, and compared with the count as one of 64 bits.
Log inode_bounds(int version, const Block &super, const Block &b)
{
    const std::uint32_t no = get_u32(b, 68);
    const std::uint32_t brick = get_u32(b, 72);
    const std::uint64_t inodes = inode_count(version, super);
    const std::uint64_t bricks = brick_count(version, super);
    const std::uint64_t compared =
        version == 3 ? static_cast<std::uint64_t>(std::int64_t{as_int(no)}) : no;
    if (compared < inodes && brick < bricks)
        return {};
    return {error_line("parse_inode_from_json_v" + std::to_string(version),
                       text("i_no %u or brick_no %u is invalid, max i_cnt:%lu, max b_cnt:%lu", no,
                            brick, inodes, bricks))};
}

// The message about an inode number that a V2 super block does not admit; empty if it does.
Log inode_number_errors(const Block &super, std::uint32_t no)
{
    const std::uint32_t inodes = get_u32(super, 124);
    const std::uint32_t sum = inodes + get_u8(super, 142) * EXPANSION_UNIT;
    const std::uint32_t magic = get_u16(super, 140);
    const std::uint32_t in_use = get_u8(super, 143);
    if (no < INODE_MAX && (no < inodes || (magic == 0x4558 && in_use == 0x53 && no < sum)))
        return {};
    return {error_line("inode_is_valid",
                       text("invalid inode no %d max inode_cnt:%u inode_max: %u inode_sum:%u "
                            "exp_magic: 0x%x exp_inuse: 0x%x",
                            as_int(no), inodes, INODE_MAX, sum, magic, in_use))};
}

// The inode's number is looked at only when the brick's is right.
Log inode_bounds_v2(const Block &super, const Block &b, int meta_no)
{
    const bool brick_is_right = get_u32(b, 72) < brick_count(2, super);
    Log log = brick_is_right ? inode_number_errors(super, get_u32(b, 68)) : Log{};
    if (!log.empty() || !brick_is_right)
        log.push_back(error_line(
            "parse_inode_from_json_v2",
            text("repiar_file i_no %u input ino: %d or brick_no %u is invalid, exp_magic :0x%x "
                 "exp exp_inuse: 0x%xmax i_cnt:%u, max b_cnt:%u",
                 get_u32(b, 68), meta_no, get_u32(b, 72), get_u16(super, 140), get_u8(super, 143),
                 get_u32(super, 124), get_u32(super, 120))));
    return log;
}

TableModel inode_table(int version)
{
    const std::string suffix = "_v" + std::to_string(version);
    TableModel table{
        .version = version,
        .name = "inode",
        .fields = {{"checksum", 0, 32, FieldForm::HEX},
                   {"magic", 4, 32, FieldForm::HEX},
                   {"atime", 8, 64, FieldForm::TIME},
                   {"ctime", 16, 64, FieldForm::TIME},
                   {"mtime", 24, 64, FieldForm::TIME},
                   {"dtime", 32, 64, FieldForm::TIME},
                   {"uuid", 40, 128, FieldForm::UUID},
                   {"size", 56, 64},
                   {"priority", 64},
                   {"no", 68},
                   {"brick_no", 72},
                   {"unlink", 76, 16},
                   {"use", 78, 16},
                   {version == 1 ? "reserved1" : "new_data", 80, 64},
                   {version == 1 ? "reserved2" : "blocks", 88, 64}},
        .magic = version == 3 ? 0x498E4F54U : 0x494E4F44U,
        .number = "no",
        .use = "use",
        .owner = "brick_no",
        .id = "uuid",
        .length = [](const Block &) { return std::size_t{96}; },
        .start =
            [version](const Block &super) {
                return version == 3 ? get_u64(super, 144) : inodes_start(super);
            },
        .count = count_at(version, 124, 160),
        .dump = "dump_inode",
        .formatter = "__dump_inode" + suffix,
        .number_key = "no",
        .without_log = "inode && fp",
        .before_walk = version == 2 ? "{ \"inode\":" : "",
        .after_walk = version == 2 ? "}" : "",
        .tail = plain_tail,
        .fault = version == 2 ? inode_fault_v2 : inode_fault,
        .ignored =
            [](std::uint64_t slot, const Block &b) {
                return text("ignore inode %lu, i_use:%d, i_uuid:%s, i_brick_no:%d", slot,
                            get_u16(b, 78), uuid_text(get_uuid(b, 40)).c_str(),
                            as_int(get_u32(b, 72)));
            },
        .repair = "repair_inode",
        .repair_code = 11,
        .parser = "parse_inode_from_json" + suffix,
        .without_super = "params && params->sb && inode_cfg && inode",
        .unread_keys = {"i_checksum", "i_magic", "no", "use", "brick_no", "meta_offset",
                        "i_reserved1", "i_reserved2"},
    };
    const Conversion narrow = version == 3 ? UNSIGNED_64 : SIGNED_32;
    table.keys = {
        key(table, "i_no", "no", SIGNED_64, ALWAYS),
        key(table, "i_use", "use", narrow, ALWAYS),
        key(table, "i_atime", "atime", UNSIGNED_64, OPTIONAL),
        key(table, "i_ctime", "ctime", UNSIGNED_64, OPTIONAL),
        key(table, "i_mtime", "mtime", UNSIGNED_64, OPTIONAL),
        key(table, "i_dtime", "dtime", UNSIGNED_64, OPTIONAL),
        key(table, "i_uuid", "uuid"),
        key(table, "i_size", "size", UNSIGNED_64),
        key(table, "i_priority", "priority", version == 3 ? UNSIGNED_64 : SIGNED_64),
        key(table, "i_brick_no", "brick_no", UNSIGNED_64),
        key(table, "i_unlink", "unlink", narrow, OPTIONAL),
    };
    table.keys[0].shows_sign = version == 3;
    if (version == 2)
        table.bounds = inode_bounds_v2;
    else
        table.bounds = [version](const Block &super, const Block &b, int) {
            return inode_bounds(version, super, b);
        };
    if (version == 1)
        return table;
    table.keys.push_back(key(table, "new_data", "new_data", UNSIGNED_64, OPTIONAL));
    table.keys.push_back(key(table, "i_blocks", "blocks", UNSIGNED_64, OPTIONAL));
    if (version == 3)
        table.keys.back().fallback = [](const Block &b) { return get_u64(b, 56) / 131072; };
    table.unread_keys.insert(table.unread_keys.end(), {"i_new_data", "blocks"});
    return table;
}

// V1: the words of the bitmap follow the record's head.
std::string bitmap_tail(const Block &super, const Block &b, std::int64_t offset)
{
    std::string bitmap;
    for (std::size_t at = 56; at + 8 <= get_u32(super, 136); at += 8)
        bitmap += text("0x%016lx ", get_u64(b, at));
    return text(",\"meta_offset\":%ld,\"te_bitmap\":\"%s\"}", offset, bitmap.c_str());
}

// The record of a mapped piece.
const std::vector<Field> PIECE{{"offset", 0, 64},
                               {"clean", 8, 1},
                               {"orig_len", 8, 31, FieldForm::DECIMAL, 1},
                               {"begin", 12, 16},
                               {"cnt", 14, 16}};

// V2: pieces that have a length.
std::string pieces_tail(const Block &super, const Block &b, std::int64_t offset)
{
    std::string pieces;
    for (std::uint32_t map = 0; map < get_u32(super, 152); ++map) {
        const std::size_t at = get_u32(super, 136) + PIECE_LENGTH * map;
        if (get_number(b, PIECE[2], at) == 0)
            continue;
        pieces += pieces.empty() ? "{" : ",{";
        for (const Field &field : PIECE)
            pieces += text("\"%s\":%lu,", field.name.c_str(), get_number(b, field, at));
        pieces += text("\"mapno\":%u,\"data_phy_offset\":%lu}", map,
                       get_u64(super, 32) + get_u64(b, 48) * get_u32(super, 128) +
                           get_number(b, PIECE[3], at) * 4096);
    }
    return text(",\"meta_offset\": %ld,\"te_mapped_meta\":[%s]}", offset, pieces.c_str());
}

std::string piece_refusal(const Block &super, const Key &key, std::uint64_t value,
                          std::size_t index, std::uint64_t map)
{
    const std::uint32_t maps = get_u32(super, 152);
    if (key.name == "mapno" && value >= maps)
        return text("te_mapped_meta mapno %d is invalid, index:%zu, map_cnt:%u",
                    as_int(static_cast<std::uint32_t>(value)), index, maps);
    if (key.name == "len" && value > get_u32(super, 128))
        return text("map %lu orig_len(%lu) is invalid, block_size:%u", map, value,
                    get_u32(super, 128));
    return {};
}

Items pieces()
{
    return {
        .name = "te_mapped_meta",
        .keys = {{.name = "mapno", .field = {"mapno", 0, 32}},
                 {.name = "offset", .field = PIECE[0], .conversion = UNSIGNED_64},
                 {.name = "clean", .field = PIECE[1], .conversion = UNSIGNED_64},
                 {.name = "len", .field = PIECE[2], .conversion = UNSIGNED_64},
                 {.name = "begin", .field = PIECE[3], .conversion = SIGNED_32},
                 {.name = "cnt", .field = PIECE[4], .conversion = SIGNED_32}},
        .invalid = "te_mapped_meta is invalid. te_mapped_meta:",
        .item_invalid = "te_mapped_meta index %zu is invalid, value:<address>",
        .place = [](const Block &super, std::uint64_t map) -> std::optional<std::size_t> {
            return get_u32(super, 136) + PIECE_LENGTH * map;
        },
        .refusal = piece_refusal,
    };
}

// V1 looks at both numbers at once, V2 at the inode's only when the extent's is right.
Log extent_bounds(int version, const Block &super, const Block &b)
{
    const std::uint64_t no = get_u64(b, 48);
    const std::uint32_t inode = get_u32(b, 16);
    const bool number_is_right = no < get_u32(super, 132);
    Log log;
    if (number_is_right && version == 1 && inode < get_u32(super, 124))
        return log;
    if (number_is_right && version == 2) {
        log = inode_number_errors(super, inode);
        if (log.empty())
            return log;
    }
    log.push_back(error_line("parse_extent_from_json_v" + std::to_string(version),
                             text("te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u", no,
                                  inode, get_u32(super, 132), get_u32(super, 124))));
    return log;
}

TableModel extent_table(int version)
{
    const std::string suffix = "_v" + std::to_string(version);
    TableModel table{
        .version = version,
        .name = "extent",
        .fields = {{"te_checksum", 0, 32, FieldForm::HEX},
                   {"te_block", 4},
                   {"te_size", 8, 64},
                   {"te_inode_no", 16},
                   {"te_sampling_low", 20, 32, FieldForm::REVERSED},
                   {"te_sampling_mid", 24},
                   {"te_sampling_high", 28},
                   {"te_use", 32, 16},
                   {"te_clean", 34, 16},
                   {"te_ntime", 36},
                   {"te_hot", 40, 64},
                   {"te_no", 48, 64}},
        .number = "te_no",
        .use = "te_use",
        .owner = "te_inode_no",
        .length =
            [version](const Block &super) {
                return std::size_t{get_u32(super, version == 1 ? 136 : 164)};
            },
        .start = extents_start,
        .count = [](const Block &super) { return std::uint64_t{get_u32(super, 132)}; },
        .dump = "dump_extent",
        .formatter = "__dump_extent" + suffix,
        .number_key = "te_no",
        .without_log = version == 1 ? "extent && sb && fp" : "extent && fp && sb",
        .tail = version == 1 ? bitmap_tail : pieces_tail,
        .fault =
            [](std::uint64_t, const Block &b, std::uint32_t stored, std::uint32_t crc) {
                return text("extent no: %lu, checksum: 0x%x crc32: 0x%x", get_u64(b, 48), stored,
                            crc);
            },
        .ignored =
            [](std::uint64_t slot, const Block &b) {
                return text("ignore extent %lu, te_use:%d, te_brick_no:%d", slot, get_u16(b, 32),
                            as_int(get_u32(b, 16)));
            },
        .repair = "repair_extent",
        .repair_code = 12,
        .parser = "parse_extent_from_json" + suffix,
        .without_super = "params && params->sb && ext_cfg && extent",
        .unread_keys = {"te_checksum", "te_reserved1", "meta_offset"},
        .bounds = [version](const Block &super, const Block &b,
                            int) { return extent_bounds(version, super, b); },
    };
    const auto add = [&table](const std::string &name, Conversion conversion = SIGNED_64,
                              Need need = IN_USE) {
        table.keys.push_back(key(table, name, name, conversion, need));
    };
    add("te_use", SIGNED_32, ALWAYS);
    add("te_no", UNSIGNED_64, ALWAYS);
    if (version == 1) {
        add("te_block");
        add("te_size", UNSIGNED_64);
    }
    add("te_inode_no");
    add("te_sampling_low");
    add("te_sampling_mid", SIGNED_64, OPTIONAL);
    add("te_sampling_high", SIGNED_64, OPTIONAL);
    if (version == 1) {
        add("te_clean", SIGNED_32);
        add("te_ntime", SIGNED_64, OPTIONAL);
        add("te_hot", UNSIGNED_64, OPTIONAL);
        return table;
    }
    table.items = pieces();
    table.unread_keys.insert(table.unread_keys.end(), {"te_block", "te_size", "te_clean",
                                                       "te_ntime", "te_hot", "te_bitmap"});
    return table;
}

} // namespace

std::vector<TableModel> entry_tables()
{
    std::vector<TableModel> tables;
    for (const int version : {1, 2, 3}) {
        tables.push_back(brick_table(version));
        tables.push_back(inode_table(version));
    }
    tables.push_back(extent_table(1));
    tables.push_back(extent_table(2));
    return tables;
}

} // namespace tier_test
