// The super blocks of the layouts.

#include "model_tables.h"

namespace tier_test {

namespace {

bool within(std::uint64_t value, std::uint64_t first, std::uint64_t last)
{
    return value >= first && value <= last;
}

// The head of V1 and V2.

std::uint64_t inodes_start(const Block &b) { return get_u32(b, 116) + 4096U + get_u64(b, 8); }

std::uint64_t padded_inodes(const Block &b)
{
    return round_up(inodes_start(b) + get_u32(b, 124) * std::uint64_t{4096}, MIB) - inodes_start(b);
}

std::uint64_t data_offset(const Block &b)
{
    return round_up(inodes_start(b) + get_u64(b, 16) + get_u64(b, 24) + 2 * MIB, MIB);
}

const SuperRule SIZE{[](const Block &b) { return get_u32(b, 116) == MIB; },
                     [](const Block &b) {
                         return text("sb size is invalid. expect:1048576, real:%u",
                                     get_u32(b, 116));
                     }};
const SuperRule BRICKS_OF_HEAD{
    [](const Block &b) {
        return within(get_u32(b, 120), 1, 300) && get_u64(b, 8) == get_u32(b, 120) * 4096U;
    },
    [](const Block &b) {
        return text("brick params is invalid. brick_cnt:%u, brick_table_size:%lu, expect "
                    "brick_cnt:[1-300]",
                    get_u32(b, 120), get_u64(b, 8));
    }};
const SuperRule INODES_OF_HEAD{
    [](const Block &b) {
        return within(get_u32(b, 124), 1, 100000) && get_u64(b, 16) == padded_inodes(b);
    },
    [](const Block &b) {
        return text("inode params is invalid. inode_cnt:%u, itable_size:%lu, expect "
                    "inode_cnt:[1-100000]",
                    get_u32(b, 124), get_u64(b, 16));
    }};
const SuperRule BLOCKS_OF_HEAD{
    [](const Block &b) {
        return within(get_u32(b, 128), 262144, 4194304) && get_u32(b, 128) % 4096 == 0;
    },
    [](const Block &b) {
        return text("block size(%u) is invalid. expect block_size:[262144-4194304] and must 4k "
                    "aligned",
                    get_u32(b, 128));
    }};
const SuperRule EXTENTS_V1{[](const Block &b) { return within(get_u32(b, 136), 56, 4096); },
                           [](const Block &b) {
                               return text("extent size(%u) is invalid. expect size:[56-4096]",
                                           get_u32(b, 136));
                           }};
const SuperRule EXTENTS_V2{
    [](const Block &b) { return within(get_u32(b, 136), 56, 4096) && get_u32(b, 164) <= 4096; },
    [](const Block &b) {
        return text("extent size(%u) is invalid. totoal extent_size:%u, expect size:[56-4096]",
                    get_u32(b, 136), get_u32(b, 164));
    }};
const SuperRule EXTENT_TABLE{
    [](const Block &b) { return get_u64(b, 24) == get_u32(b, 132) * std::uint64_t{4096}; },
    [](const Block &b) {
        return text("extent table size(%lu) is invalid. block_cnt:%u", get_u64(b, 24),
                    get_u32(b, 132));
    }};
const SuperRule PIECES_V2{[](const Block &b) { return get_u32(b, 144) <= get_u32(b, 128); },
                          [](const Block &b) {
                              return text("min_alloc_size(%u) is invalid. block_size:%u",
                                          get_u32(b, 144), get_u32(b, 128));
                          }};
const SuperRule MAPS_V2{
    [](const Block &b) {
        return get_u32(b, 152) <= 64 &&
               get_u32(b, 148) == std::uint64_t{get_u32(b, 156)} * get_u32(b, 152);
    },
    [](const Block &b) {
        return text("map params is invalid. map_cnt:%u, map_size:%u, total_map_size:%u",
                    get_u32(b, 152), get_u32(b, 156), get_u32(b, 148));
    }};
const SuperRule DATA{[](const Block &b) { return get_u64(b, 32) == data_offset(b); },
                     [](const Block &b) {
                         return text("data offset(%lu) is invalid. expect:%lu", get_u64(b, 32),
                                     data_offset(b));
                     }};

// Of all layouts.
const SuperRule SSD_UUID{[](const Block &b) { return get_text(b, 64).size() == 38; },
                         [](const Block &b) {
                             return text("ssd uuid(%s) length(%zu) is invalid. expect:38",
                                         get_text(b, 64).c_str(), get_text(b, 64).size());
                         }};

// V3.

const SuperRule SIZE_V3{[](const Block &b) { return get_u64(b, 16) == MIB; },
                        [](const Block &b) {
                            return text("sb size is invalid. expect:1048576, real:%lu",
                                        get_u64(b, 16));
                        }};
const SuperRule BLOCKS_V3{
    [](const Block &b) {
        return within(get_u64(b, 248), 8192, 65536) && get_u64(b, 248) % 4096 == 0;
    },
    [](const Block &b) {
        return text("block size(%lu) is invalid. expect block_size:[8192-65536] and must 4k "
                    "aligned",
                    get_u64(b, 248));
    }};
const SuperRule BRICKS_V3{
    [](const Block &b) {
        return within(get_u64(b, 136), 1, 300) && get_u64(b, 128) >= get_u64(b, 136) * 4096;
    },
    [](const Block &b) {
        return text("brick params is invalid. brick_cnt:%lu, brick_table_size:%lu, expect "
                    "brick_cnt:[1-300]",
                    get_u64(b, 136), get_u64(b, 128));
    }};

// A table whose size follows its offset, and its count the size.
SuperRule table_v3(const char *label, std::size_t size, std::uint64_t entry, std::uint64_t most)
{
    return {[=](const Block &b) {
                return within(get_u64(b, size + 8), 1, most) &&
                       get_u64(b, size) == get_u64(b, size + 8) * entry;
            },
            [=](const Block &b) {
                return text("%s params is invalid. %s_cnt:%lu, itable_size:%lu, expect "
                            "%s_cnt:[1-%lu]",
                            label, label, get_u64(b, size + 8), get_u64(b, size), label, most);
            }};
}

const SuperRule DATA_V3{
    [](const Block &b) { return get_u64(b, 240) == get_u64(b, 248) * get_u64(b, 256); },
    [](const Block &b) {
        return text("data params is invalid. sb_block_size:%lu, sb_block_cnt:%lu", get_u64(b, 248),
                    get_u64(b, 256));
    }};

std::vector<Field> head_fields(const std::vector<Field> &more)
{
    std::vector<Field> fields{
        {"checksum", 0, 32, FieldForm::HEX},
        {"magic", 4, 32, FieldForm::HEX},
        {"brick_table_size", 8, 64},
        {"inode_table_size", 16, 64},
        {"extent_table_size", 24, 64},
        {"data_offset", 32, 64},
        {"ctime", 40, 64, FieldForm::HEX_AND_TIME},
        {"uuid", 48, 128, FieldForm::UUID},
        {"ssd_uuid", 64, 384, FieldForm::TEXT},
        {"version", 112, 32, FieldForm::HEX},
        {"super block size", 116},
        {"brick_cnt", 120},
        {"inode_cnt", 124},
        {"block_size", 128},
        {"block_cnt", 132},
        {"extent_size", 136},
    };
    fields.insert(fields.end(), more.begin(), more.end());
    return fields;
}

// The keys of the fields from the first to the last of these names.
void add_keys(TableModel &table, const std::string &first, const std::string &last,
              std::uint32_t version = 0)
{
    bool between = false;
    for (const Field &field : table.fields) {
        between = between || field.name == first;
        if (between) {
            Key key{.name = field.name,
                    .field = field,
                    .need = Need::ALWAYS,
                    .conversion =
                        field.width == 64 ? Conversion::UNSIGNED_64 : Conversion::SIGNED_64};
            if (field.name == "ctime")
                key.most = 18;
            if (field.name == "ssd_uuid")
                key.most = 47;
            if (field.name == "version") {
                key.most = 31;
                key.exactly = version;
            }
            table.keys.push_back(key);
        }
        between = between && field.name != last;
    }
}

TableModel super_table(int version, std::size_t length, std::vector<Field> fields)
{
    const std::string suffix = "_v" + std::to_string(version);
    return {
        .version = version,
        .name = "super",
        .fields = std::move(fields),
        .magic = version == 3 ? 0xCACBDCBDU : 0xCACBCCCDU,
        .length = [length](const Block &) { return length; },
        .start = [](const Block &) { return SUPER_OFFSET; },
        .count = [](const Block &) { return std::uint64_t{1}; },
        .dump = "dump_super",
        .tail = [](const Block &, const Block &, std::int64_t) { return "}"; },
        .repair = "repair_super",
        .repair_code = 9,
        .parser = "parse_sb_from_json" + suffix,
        .checker = "__check_sb_params" + suffix,
    };
}

TableModel super_v1_table()
{
    TableModel table = super_table(1, 144, head_fields({{"sb_reserved", 140}}));
    add_keys(table, "brick_table_size", "extent_size", 0x10000);
    table.unread_keys = {"checksum", "magic", "sb_reserved"};
    table.rules = {SIZE,       BRICKS_OF_HEAD, INODES_OF_HEAD, BLOCKS_OF_HEAD,
                   EXTENTS_V1, EXTENT_TABLE,   DATA,           SSD_UUID};
    return table;
}

TableModel super_v2_table()
{
    TableModel table = super_table(2, 168,
                                   head_fields({{"exp_inode_magic", 140, 16, FieldForm::HEX},
                                                {"exp_inode_cnt", 142, 8, FieldForm::UNITS},
                                                {"exp_inode_inuse", 143, 8, FieldForm::HEX},
                                                {"sb_inode_exp_area", 142, 8},
                                                {"min_alloc_size", 144},
                                                {"total_map_size", 148},
                                                {"map_cnt", 152},
                                                {"size_mapped_meta", 156},
                                                {"hot_size", 160},
                                                {"total_extent_size", 164}}));
    const std::string expansion = "__repair_super_exp_inode";
    add_keys(table, "brick_table_size", "extent_size");
    table.keys.push_back({.name = "exp_inode_cnt",
                          .field = {"exp_inode_cnt", 142, 8, FieldForm::UNITS},
                          .need = Need::OPTIONAL,
                          .func = expansion});
    for (const char *name : {"exp_inode_magic", "exp_inode_inuse"})
        table.keys.push_back({.name = name,
                              .field = {name, 0, 8, FieldForm::TEXT},
                              .need = Need::ALWAYS,
                              .most = 31,
                              .func = expansion});
    add_keys(table, "min_alloc_size", "hot_size");
    table.unread_keys = {"checksum", "magic", "sb_inode_exp_area", "total_extent_size"};
    table.rules = {SIZE,         BRICKS_OF_HEAD, INODES_OF_HEAD, BLOCKS_OF_HEAD, EXTENTS_V2,
                   EXTENT_TABLE, PIECES_V2,      MAPS_V2,        DATA,           SSD_UUID};
    return table;
}

TableModel super_v3_table()
{
    TableModel table = super_table(3, 264,
                                   {{"checksum", 0, 32, FieldForm::HEX},
                                    {"magic", 4, 32, FieldForm::HEX},
                                    {"sb_offset", 8, 64},
                                    {"super block size", 16, 64},
                                    {"reserved_offset", 24, 64},
                                    {"reserved_size", 32, 64},
                                    {"ctime", 40, 64, FieldForm::HEX_AND_TIME},
                                    {"uuid", 48, 128, FieldForm::UUID},
                                    {"ssd_uuid", 64, 384, FieldForm::TEXT},
                                    {"version", 112, 32, FieldForm::HEX},
                                    {"reserved", 116},
                                    {"brick_table_offset", 120, 64},
                                    {"brick_table_size", 128, 64},
                                    {"brick_cnt", 136, 64},
                                    {"inode_table_offset", 144, 64},
                                    {"inode_table_size", 152, 64},
                                    {"inode_cnt", 160, 64},
                                    {"shard_table_offset", 168, 64},
                                    {"shard_table_size", 176, 64},
                                    {"shard_table_cnt", 184, 64},
                                    {"extent_table_offset", 192, 64},
                                    {"extent_table_size", 200, 64},
                                    {"extent_table_cnt", 208, 64},
                                    {"hot_table_offset", 216, 64},
                                    {"hot_table_size", 224, 64},
                                    {"data_offset", 232, 64},
                                    {"data_table_size", 240, 64},
                                    {"block_size", 248, 64},
                                    {"block_cnt", 256, 64}});
    add_keys(table, "sb_offset", "block_cnt", 0x30000);
    table.unread_keys = {"checksum", "magic"};
    table.rules = {SIZE_V3,
                   BLOCKS_V3,
                   BRICKS_V3,
                   table_v3("inode", 152, 4096, 262144),
                   table_v3("shard", 176, 8, 524288),
                   table_v3("extent", 200, 8, 1073741824),
                   DATA_V3,
                   SSD_UUID};
    return table;
}

} // namespace

std::vector<TableModel> super_tables()
{
    return {super_v1_table(), super_v2_table(), super_v3_table()};
}

} // namespace tier_test
