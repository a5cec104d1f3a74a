#include "super_keys.h"

#include <algorithm>

namespace tier_test {

namespace {

SuperKey number_key(std::string name, std::uint64_t value, std::string func)
{
    return {std::move(name), std::to_string(value), std::to_string(value), std::move(func)};
}

SuperKey text_key(std::string name, const std::string &value, std::size_t length, std::string func)
{
    return {std::move(name), json_string(value), value.substr(0, length), std::move(func)};
}

SuperKey ctime_key(std::uint64_t ctime, const std::string &func)
{
    return text_key("ctime", text("0x%lx(%s)", ctime, time_text(ctime).c_str()), 18, func);
}

std::vector<SuperKey> head_keys(const SuperHead &sb, const std::string &func)
{
    return {
        number_key("brick_table_size", sb.brick_table_size, func),
        number_key("inode_table_size", sb.inode_table_size, func),
        number_key("extent_table_size", sb.extent_table_size, func),
        number_key("data_offset", sb.data_offset, func),
        ctime_key(sb.ctime, func),
        text_key("uuid", uuid_text(sb.uuid), 36, func),
        text_key("ssd_uuid", sb.ssd_uuid, 47, func),
        text_key("version", text("0x%x", sb.version), 31, func),
        number_key("super block size", sb.size, func),
        number_key("brick_cnt", sb.brick_cnt, func),
        number_key("inode_cnt", sb.inode_cnt, func),
        number_key("block_size", sb.block_size, func),
        number_key("block_cnt", sb.block_cnt, func),
        number_key("extent_size", sb.extent_size, func),
    };
}

} // namespace

std::vector<SuperKey> super_keys(const SuperV1 &sb)
{
    return head_keys(sb, "parse_sb_from_json_v1");
}

std::vector<SuperKey> super_keys(const SuperV2 &sb)
{
    const std::string func = "parse_sb_from_json_v2";
    const std::string expansion = "__repair_super_exp_inode";
    std::vector<SuperKey> keys = head_keys(sb, func);
    if (sb.exp_magic != 0) {
        keys.push_back(number_key("exp_inode_cnt", expansion_count(sb), expansion));
        keys.push_back(text_key("exp_inode_magic", text("0x%x", sb.exp_magic), 31, expansion));
        keys.push_back(text_key("exp_inode_inuse", text("0x%x", sb.exp_inuse), 31, expansion));
    }
    keys.push_back(number_key("min_alloc_size", sb.min_alloc_size, func));
    keys.push_back(number_key("total_map_size", sb.total_map_size, func));
    keys.push_back(number_key("map_cnt", sb.map_cnt, func));
    keys.push_back(number_key("size_mapped_meta", sb.size_mapped_meta, func));
    keys.push_back(number_key("hot_size", sb.hot_size, func));
    return keys;
}

std::vector<SuperKey> super_keys(const SuperV3 &sb)
{
    const std::string func = "parse_sb_from_json_v3";
    return {
        number_key("sb_offset", sb.sb_offset, func),
        number_key("super block size", sb.size, func),
        number_key("reserved_offset", sb.reserved_offset, func),
        number_key("reserved_size", sb.reserved_size, func),
        ctime_key(sb.ctime, func),
        text_key("uuid", uuid_text(sb.uuid), 36, func),
        text_key("ssd_uuid", sb.ssd_uuid, 47, func),
        text_key("version", text("0x%x", sb.version), 31, func),
        number_key("reserved", sb.reserved, func),
        number_key("brick_table_offset", sb.brick_table_offset, func),
        number_key("brick_table_size", sb.brick_table_size, func),
        number_key("brick_cnt", sb.brick_cnt, func),
        number_key("inode_table_offset", sb.inode_table_offset, func),
        number_key("inode_table_size", sb.inode_table_size, func),
        number_key("inode_cnt", sb.inode_cnt, func),
        number_key("shard_table_offset", sb.shard_table_offset, func),
        number_key("shard_table_size", sb.shard_table_size, func),
        number_key("shard_table_cnt", sb.shard_cnt, func),
        number_key("extent_table_offset", sb.extent_table_offset, func),
        number_key("extent_table_size", sb.extent_table_size, func),
        number_key("extent_table_cnt", sb.extent_cnt, func),
        number_key("hot_table_offset", sb.hot_table_offset, func),
        number_key("hot_table_size", sb.hot_table_size, func),
        number_key("data_offset", sb.data_offset, func),
        number_key("data_table_size", sb.data_size, func),
        number_key("block_size", sb.block_size, func),
        number_key("block_cnt", sb.block_cnt, func),
    };
}

RepairFile file_of(const std::vector<SuperKey> &keys)
{
    RepairFile file;
    for (const SuperKey &key : keys)
        file.set(key.name, key.value);
    return file;
}

std::size_t keys_before(const std::vector<SuperKey> &keys, const std::string &name)
{
    return static_cast<std::size_t>(std::ranges::find(keys, name, &SuperKey::name) - keys.begin());
}

Log key_log(const std::vector<SuperKey> &keys, std::size_t count)
{
    Log log;
    for (std::size_t i = 0; i < count; ++i)
        log.push_back(debug_line(keys.at(i).func, keys.at(i).name + ": " + keys.at(i).logged));
    return log;
}

} // namespace tier_test
