#include "damage_layout.h"

#include "v3_device.h"

#include <algorithm>
#include <ostream>

namespace tier_test {

namespace {

// The numbers among the keys of a repair file, and the fields that no key fills.
std::vector<SuperField> fields_of(const TableModel &table, const std::vector<SuperField> &others)
{
    std::vector<SuperField> fields = others;
    fields.push_back({"magic", 4, 4});
    for (const Key &key : table.keys)
        if (key.field.is_number() && key.func.empty())
            fields.push_back({key.name, key.field.byte, key.field.width / 8});
    return fields;
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
bool has_no_size_v1(const Block &super) { return get_u32(super, 136) == 0; }
bool has_no_size_v2(const Block &super) { return get_u32(super, 164) == 0; }

bool has_no_expansion_start(const Block &super)
{
    const std::uint64_t start =
        get_u64(super, 32) + std::uint64_t{get_u32(super, 128)} * get_u32(super, 132) + MIB;
    return static_cast<std::int64_t>(start) <= 0;
}

// The table of that name, as large as the sample devices have it.
DamagedTable damaged(const std::string &name, const FieldNames &dump_uses,
                     const FieldNames &repair_uses)
{
    const RepairSample &sample = repair_sample(name);
    DamagedTable table{*sample.table, &sample, sample.table->takes_place ? 1U : 2U};
    table.dump_uses = dump_uses;
    table.repair_uses = repair_uses;
    return table;
}

DamagedTable bricks(const std::string &version, const FieldNames &uses)
{
    return damaged("BrickV" + version, uses, uses);
}

DamagedTable inodes(const std::string &version, const FieldNames &uses)
{
    DamagedTable table = damaged("InodeV" + version, uses, uses);
    table.repair_uses.emplace_back("brick_cnt");
    return table;
}

DamagedTable extents(const std::string &version, bool (*refuses)(const Block &),
                     bool (*has_no_size)(const Block &), const FieldNames &uses,
                     const FieldNames &repair_uses)
{
    DamagedTable table = damaged("ExtentV" + version, uses, repair_uses);
    table.refuses = refuses;
    table.has_no_size = has_no_size;
    return table;
}

DamagedLayout layout_v1()
{
    return {
        .name = "V1",
        .device = repair_sample("BrickV1").device,
        .super = &repair_sample("SuperV1"),
        .length = SuperV1::LENGTH,
        .fields = fields_of(model(1, "super"), {{"sb_reserved", 140, 4}}),
        .tables =
            {
                bricks("1", {"super block size", "brick_cnt"}),
                inodes("1", {"super block size", "brick_table_size", "inode_cnt"}),
                extents("1", is_no_extent_v1, has_no_size_v1,
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
    DamagedTable inode_table = inodes("2", inode_uses);
    inode_table.aborts = has_no_expansion_start;
    inode_table.bounds_first = true;
    return {
        .name = "V2",
        .device = repair_sample("BrickV2").device,
        .super = &repair_sample("SuperV2"),
        .length = SuperV2::LENGTH,
        .fields = fields_of(model(2, "super"), {{"sb_inode_exp_magic", 140, 2},
                                                {"sb_inode_exp_area", 142, 1},
                                                {"sb_inode_exp_inuse", 143, 1},
                                                {"total_extent_size", 164, 4}}),
        .tables =
            {
                bricks("2", {"super block size", "brick_cnt"}),
                inode_table,
                extents("2", is_no_extent_v2, has_no_size_v2, extent_uses, extent_repair_uses),
            },
        .others = {"dump_shard", "dump_hot", "repair_shard", "repair_hot"},
    };
}

DamagedLayout layout_v3()
{
    return {
        .name = "V3",
        .device = repair_sample("BrickV3").device,
        .super = &repair_sample("SuperV3"),
        .length = SuperV3::LENGTH,
        .fields = fields_of(model(3, "super"), {}),
        .tables =
            {
                bricks("3", {"brick_table_offset", "brick_cnt"}),
                inodes("3", {"inode_table_offset", "inode_cnt"}),
                damaged("ShardBlockV3", {"shard_table_offset", "shard_table_cnt"},
                        {"shard_table_offset", "hot_table_offset"}),
                damaged("ExtentBlockV3", {"extent_table_offset", "extent_table_cnt"},
                        {"extent_table_offset", "data_offset"}),
                damaged("HotV3", {"hot_table_offset", "hot_table_size"},
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

std::ostream &operator<<(std::ostream &out, const SuperField &field) { return out << field.name; }

std::ostream &operator<<(std::ostream &out, const DamagedLayout *layout)
{
    return out << layout->name;
}

} // namespace tier_test
