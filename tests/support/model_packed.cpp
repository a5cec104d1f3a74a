// The tables of V3 whose blocks hold words, and the hot table, whose blocks are opaque.

#include "model_tables.h"

#include <stdexcept>

namespace tier_test {

namespace {

using enum Conversion;
using enum Need;

// A table from the start that the super block has at one byte to that of the next area at another.
TableModel block_table(const std::string &name, std::size_t start, std::size_t end,
                       std::size_t count, std::uint64_t per_block)
{
    return {
        .version = 3,
        .name = name,
        .length = [](const Block &) { return BLOCK_SIZE; },
        .start = [start](const Block &super) { return get_u64(super, start); },
        .count = [=](const Block &super) { return get_u64(super, count) / per_block; },
        .end = [end](const Block &super) { return get_u64(super, end); },
        .dump = "dump_" + name,
        .formatter = "__dump_" + name + "_v3",
        .number_key = name + "_no",
        .repair = "repair_" + name,
        .takes_place = true,
    };
}

// Of the number of an item only the place in the block counts.
Key number_key(const std::string &name)
{
    return {.name = name, .field = {name, 0, 64}, .conversion = UNSIGNED_64};
}

Key word_key(const TableModel &table, const std::string &name, Need need = IN_USE)
{
    return {.name = name, .field = table.field(name), .need = need, .conversion = UNSIGNED_64};
}

Items items(const TableModel &table, const std::string &array, const std::string &item)
{
    return {
        .name = array,
        .invalid = array + "_json is invalid. shards_json:",
        .item_invalid = item + "_json index: %zu invalid",
        .room = SLOTS_V3 - table.first_slot,
        .too_many = array + "_cnt: %zu bigger than 512",
        .place = [](const Block &, std::uint64_t number) -> std::optional<std::size_t> {
            return 8 * (number % SLOTS_V3);
        },
        .refusal =
            [first = table.first_slot](const Block &, const Key &key, std::uint64_t value,
                                       std::size_t, std::uint64_t) {
                return key.name == "sno" && value % SLOTS_V3 < first
                           ? std::string("shards_json sno: 0 invalid")
                           : std::string();
            },
        .in_use = table.field("in_use"),
    };
}

// Of an entry whose word stands at the start. Its fields are shown as signed numbers.
std::function<std::string(std::uint64_t, const Block &)> ignored(const TableModel &table,
                                                                 const std::string &owner)
{
    return [=, name = table.name, use = table.field(table.use),
            of = table.field(table.owner)](std::uint64_t no, const Block &word) {
        return text("ignore %s:%lu, in_use:%d, %s:%d", name.c_str(), no,
                    static_cast<int>(get_number(word, use)), owner.c_str(),
                    static_cast<int>(get_number(word, of)));
    };
}

TableModel shard_table()
{
    TableModel table = block_table("shard", 168, 216, 184, SLOTS_V3);
    table.fields = {{"ino", 0, 18},
                    {"in_use", 0, 1, FieldForm::DECIMAL, 18},
                    {"reserved", 0, 13, FieldForm::DECIMAL, 19},
                    {"index", 0, 32, FieldForm::DECIMAL, 32}};
    table.magic = 0x2183BA9D;
    table.use = "in_use";
    table.owner = "ino";
    table.first_slot = 1;
    table.fault = [magic = table.magic](std::uint64_t no, const Block &block, std::uint32_t stored,
                                        std::uint32_t crc) {
        return text("shard no: %lu, magic_ondisk: 0x%x magic: 0x%x, crc_ondisk: 0x%x crc: 0x%x", no,
                    get_u32(block, 4), magic, stored, crc);
    };
    table.ignored = ignored(table, "inode_no");
    table.repair_code = 13;
    table.parser = "parse_shard_from_json_v3";
    table.without_super = "params && params->sb && ext_cfg && shards && shard";
    table.items = items(table, "shards", "shards");
    table.items->keys = {number_key("sno"), word_key(table, "ino"), word_key(table, "index"),
                         word_key(table, "reserved", OPTIONAL)};
    return table;
}

TableModel extent_table()
{
    TableModel table = block_table("extent", 192, 232, 208, SLOTS_V3);
    table.fields = {
        {"lba", 0, 19, FieldForm::DECIMAL, 1},    {"shard", 0, 19, FieldForm::DECIMAL, 20},
        {"dirty", 0, 1, FieldForm::DECIMAL, 39},  {"in_use", 0, 1, FieldForm::DECIMAL, 56},
        {"sense", 0, 4, FieldForm::DECIMAL, 57},  {"demote", 0, 1, FieldForm::DECIMAL, 61},
        {"dm_err", 0, 1, FieldForm::DECIMAL, 62}, {"reserved", 0, 1, FieldForm::DECIMAL, 63},
        {"bitmap", 0, 16, FieldForm::DECIMAL, 40}};
    table.checksum = Checksum::SPREAD;
    table.use = "in_use";
    table.owner = "shard";
    table.fault = [](std::uint64_t no, const Block &, std::uint32_t stored, std::uint32_t crc) {
        return text("extent no: %lu, crc_ondisk: 0x%x crc: 0x%x", no, stored, crc);
    };
    table.ignored = ignored(table, "shard_no");
    table.repair_code = 12;
    table.parser = "parse_extent_from_json_v3";
    table.without_super = "params && params->sb && ext_cfg && extent";
    table.items = items(table, "extents", "extent");
    table.items->keys = {number_key("eno"),
                         word_key(table, "lba"),
                         word_key(table, "shard"),
                         word_key(table, "dirty"),
                         word_key(table, "bitmap"),
                         word_key(table, "sense", OPTIONAL),
                         word_key(table, "demote", OPTIONAL),
                         word_key(table, "dm_err", OPTIONAL),
                         word_key(table, "reserved", OPTIONAL)};
    return table;
}

TableModel hot_table()
{
    TableModel table = block_table("hot", 216, 192, 224, BLOCK_SIZE);
    table.checksum = Checksum::NONE;
    table.repair_code = 14;
    table.parser = "parse_hot_table_from_json_v3";
    table.without_super = "params && params->sb && ext_cfg && m";
    table.unread_keys = {"checksum", "magic", "shards", "extents", "hot_no", "in_use"};
    return table;
}

} // namespace

std::vector<TableModel> packed_tables() { return {shard_table(), hot_table(), extent_table()}; }

const std::vector<const TableModel *> &models()
{
    static const std::vector<TableModel> TABLES = [] {
        std::vector<TableModel> all;
        for (const auto &part : {super_tables(), entry_tables(), packed_tables()})
            all.insert(all.end(), part.begin(), part.end());
        return all;
    }();
    static const std::vector<const TableModel *> POINTERS = [] {
        std::vector<const TableModel *> all;
        for (const TableModel &table : TABLES)
            all.push_back(&table);
        return all;
    }();
    return POINTERS;
}

const TableModel &model(int version, const std::string &table)
{
    for (const TableModel *each : models())
        if (each->version == version && each->name == table)
            return *each;
    throw std::invalid_argument(table);
}

} // namespace tier_test
