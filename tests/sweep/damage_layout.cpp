#include "damage_layout.h"

#include "v3_device.h"

#include <algorithm>
#include <ostream>

namespace tier_test {

namespace {

const ConfigTable *config(const std::string &name)
{
    return &*std::ranges::find(config_tables(), name, &ConfigTable::name);
}

// The numbers among the keys of a repair file, and the fields that no key fills.
std::vector<SuperField> fields_of(const ConfigTable &table, const std::vector<SuperField> &others)
{
    std::vector<SuperField> fields = others;
    fields.push_back({"magic", 4, 4});
    for (const ConfigKey &key : table.keys)
        if ((key.holds == Holds::NUMBER || key.holds == Holds::HEX) && key.byte != 0)
            fields.push_back({key.name, key.byte, key.width / 8});
    return fields;
}

using SuperValue = std::function<std::uint64_t(const Block &)>;

SuperValue word_at(std::size_t byte)
{
    return [byte](const Block &super) { return std::uint64_t{get_u32(super, byte)}; };
}
SuperValue wide_at(std::size_t byte, std::uint64_t divisor = 1)
{
    return [=](const Block &super) { return get_u64(super, byte) / divisor; };
}

// The head of V1 and V2: its size and the block in front of it are added in 32 bits.
std::uint64_t bricks_start(const Block &super)
{
    return get_u32(super, 116) + 4096U;
}
std::uint64_t inode_table_start(const Block &super)
{
    return bricks_start(super) + get_u64(super, 8);
}
std::uint64_t extents_start(const Block &super)
{
    return inode_table_start(super) + get_u64(super, 16);
}

// The record of an extent must have room in its slot.
bool is_no_extent_v1(const Block &super)
{
    const std::uint32_t size = get_u32(super, 136);
    return (size != 0 && size < 56) || size > BLOCK_SIZE;
}
bool is_no_extent_v2(const Block &super)
{
    const std::uint32_t size = get_u32(super, 136);
    const std::uint32_t total = get_u32(super, 164);
    return size > BLOCK_SIZE || get_u32(super, 152) > (BLOCK_SIZE - size) / 16 ||
           (total != 0 && total < 4) || total > BLOCK_SIZE;
}

// Without a size there is no checksum.
bool has_no_size_v1(const Block &super)
{
    return get_u32(super, 136) == 0;
}
bool has_no_size_v2(const Block &super)
{
    return get_u32(super, 164) == 0;
}

bool has_no_expansion_start(const Block &super)
{
    const std::uint64_t start =
        get_u64(super, 32) + std::uint64_t{get_u32(super, 128)} * get_u32(super, 132) + MIB;
    return static_cast<std::int64_t>(start) <= 0;
}

DamagedTable bricks(const std::string &version, const SuperValue &start, const SuperValue &count,
                    const FieldNames &uses)
{
    return {.dump = "dump_brick",
            .repair = config("BrickV" + version),
            .number_key = "bi_no",
            .entry = 2,
            .magic_at = 4,
            .number_at = 12,
            .assertion = "brick && fp",
            .start = start,
            .count = count,
            .dump_uses = uses,
            .repair_uses = uses};
}

DamagedTable inodes(const std::string &version, const SuperValue &start, const SuperValue &count,
                    const FieldNames &uses)
{
    DamagedTable table{.dump = "dump_inode",
                       .repair = config("InodeV" + version),
                       .number_key = "no",
                       .entry = 2,
                       .magic_at = 4,
                       .number_at = 68,
                       .assertion = "inode && fp",
                       .start = start,
                       .count = count,
                       .dump_uses = uses,
                       .repair_uses = uses};
    table.repair_uses.emplace_back("brick_cnt");
    return table;
}

DamagedTable extents(const std::string &version, const std::string &assertion,
                     bool (*refuses)(const Block &), bool (*has_no_size)(const Block &),
                     const FieldNames &uses, const FieldNames &repair_uses)
{
    return {.dump = "dump_extent",
            .repair = config("ExtentV" + version),
            .number_key = "te_no",
            .entry = 2,
            .number_at = 48,
            .assertion = assertion,
            .start = extents_start,
            .count = word_at(132),
            .refuses = refuses,
            .has_no_size = has_no_size,
            .dump_uses = uses,
            .repair_uses = repair_uses};
}

// Blocks of layout version 3. The file names the place, which the areas' starts bound.
DamagedTable packed(const std::string &what, const std::string &repair, std::size_t start,
                    std::size_t count, std::uint64_t per_block, const FieldNames &uses,
                    const FieldNames &bounds)
{
    return {.dump = "dump_" + what,
            .repair = config(repair),
            .number_key = what + "_no",
            .entry = 1,
            .start = wide_at(start),
            .count = wide_at(count, per_block),
            .dump_uses = uses,
            .repair_uses = bounds};
}

DamagedLayout layout_v1()
{
    return {
        .name = "V1",
        .device = config("BrickV1")->device,
        .super = config("SuperV1"),
        .length = SuperV1::LENGTH,
        .fields = fields_of(*config("SuperV1"), {{"sb_reserved", 140, 4}}),
        .tables =
            {
                bricks("1", bricks_start, word_at(120), {"super block size", "brick_cnt"}),
                inodes("1", inode_table_start, word_at(124),
                       {"super block size", "brick_table_size", "inode_cnt"}),
                extents("1", "extent && sb && fp", is_no_extent_v1, has_no_size_v1,
                        {"super block size", "brick_table_size", "inode_table_size", "block_cnt",
                         "extent_size"},
                        {"super block size", "brick_table_size", "inode_table_size", "block_cnt",
                         "extent_size", "inode_cnt"}),
            },
        .others = {"dump_shard", "dump_hot", "repair_shard", "repair_hot", "convert_super"},
    };
}

DamagedLayout layout_v2()
{
    // Where the expansion area lies, should there be one.
    const FieldNames expansion{"data_offset",        "block_size",        "block_cnt",
                               "sb_inode_exp_magic", "sb_inode_exp_area", "sb_inode_exp_inuse"};
    FieldNames inode_uses{"super block size", "brick_table_size", "inode_cnt"};
    inode_uses.insert(inode_uses.end(), expansion.begin(), expansion.end());
    const FieldNames extent_uses{"super block size", "brick_table_size", "inode_table_size",
                                 "data_offset",      "block_size",       "block_cnt",
                                 "extent_size",      "total_map_size",   "map_cnt",
                                 "total_extent_size"};
    FieldNames extent_repair_uses = extent_uses;
    extent_repair_uses.insert(
        extent_repair_uses.end(),
        {"inode_cnt", "sb_inode_exp_magic", "sb_inode_exp_area", "sb_inode_exp_inuse"});
    DamagedTable inode_table = inodes("2", inode_table_start, word_at(124), inode_uses);
    inode_table.aborts = has_no_expansion_start;
    inode_table.bounds_first = true;
    inode_table.before_walk = "{ \"inode\":";
    inode_table.behind_walk = "}";
    return {
        .name = "V2",
        .device = config("BrickV2")->device,
        .super = config("SuperV2"),
        .length = SuperV2::LENGTH,
        .fields = fields_of(*config("SuperV2"), {{"sb_inode_exp_magic", 140, 2},
                                                 {"sb_inode_exp_area", 142, 1},
                                                 {"sb_inode_exp_inuse", 143, 1},
                                                 {"total_extent_size", 164, 4}}),
        .tables =
            {
                bricks("2", bricks_start, word_at(120), {"super block size", "brick_cnt"}),
                inode_table,
                extents("2", "extent && fp && sb", is_no_extent_v2, has_no_size_v2, extent_uses,
                        extent_repair_uses),
            },
        .others = {"dump_shard", "dump_hot", "repair_shard", "repair_hot"},
    };
}

DamagedLayout layout_v3()
{
    DamagedTable shards =
        packed("shard", "ShardBlockV3", 168, 184, 512, {"shard_table_offset", "shard_table_cnt"},
               {"shard_table_offset", "hot_table_offset"});
    shards.magic_at = 4;
    return {
        .name = "V3",
        .device = config("BrickV3")->device,
        .super = config("SuperV3"),
        .length = SuperV3::LENGTH,
        .fields = fields_of(*config("SuperV3"), {}),
        .tables =
            {
                bricks("3", wide_at(120), wide_at(136), {"brick_table_offset", "brick_cnt"}),
                inodes("3", wide_at(144), wide_at(160), {"inode_table_offset", "inode_cnt"}),
                shards,
                packed("extent", "ExtentBlockV3", 192, 208, 512,
                       {"extent_table_offset", "extent_table_cnt"},
                       {"extent_table_offset", "data_offset"}),
                packed("hot", "HotV3", 216, 224, 4096, {"hot_table_offset", "hot_table_size"},
                       {"hot_table_offset", "extent_table_offset"}),
            },
        .others = {"convert_super"},
    };
}

} // namespace

std::vector<const DamagedLayout *> layouts_to_damage()
{
    static const DamagedLayout V1 = layout_v1();
    static const DamagedLayout V2 = layout_v2();
    static const DamagedLayout V3 = layout_v3();
    return {&V1, &V2, &V3};
}

std::string sound_file(const ConfigTable &table)
{
    return table.before + object_of(sample_members(table)) + table.behind;
}

std::ostream &operator<<(std::ostream &out, const SuperField &field)
{
    return out << field.name;
}

std::ostream &operator<<(std::ostream &out, const DamagedLayout *layout)
{
    return out << layout->name;
}

} // namespace tier_test
