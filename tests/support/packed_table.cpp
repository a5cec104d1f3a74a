#include "packed_table.h"

namespace tier_test {

namespace {

std::uint32_t first_word(const Block &block)
{
    return get_u32(block, 0);
}

int as_int(std::uint32_t value)
{
    return static_cast<int>(value);
}

std::string shard_block_text(std::uint32_t checksum, std::int64_t offset, const std::string &shards)
{
    return text("{\"checksum\":\"0x%x\",\"magic\":\"0x%x\",\"meta_offset\": %ld,\"shards\":%s}",
                checksum, 0x2183BA9D, offset, shards.c_str());
}

std::string extent_block_text(std::uint32_t checksum, std::int64_t offset,
                              const std::string &extents)
{
    return text("{\"checksum\":\"0x%x\",\"meta_offset\": %ld,\"extents\":%s}", checksum, offset,
                extents.c_str());
}

std::string shard_line(const ShardV3 &shard, std::uint64_t no)
{
    return text("{\"ino\":%u,\"in_use\":%u,\"reserved\":%u,\"sno\":%lu,\"index\":%u}", shard.ino,
                shard.in_use, shard.reserved, no, shard.index);
}

std::string extent_line(const ExtentV3 &extent, std::uint64_t no)
{
    return text("{\"lba\":%u,\"shard\":%u,\"dirty\":%u,\"in_use\":%u,\"sense\":%u,\"demote\":%u,"
                "\"dm_err\":%u,\"reserved\":%u,\"eno\":%lu,\"bitmap\":%u}",
                extent.lba, extent.shard, extent.dirty, extent.in_use, extent.sense, extent.demote,
                extent.dm_err, extent.reserved, no, extent.bitmap);
}

std::string shard_fault(std::uint64_t no, const Block &block)
{
    return text("shard no: %lu, magic_ondisk: 0x%x magic: 0x2183ba9d, crc_ondisk: 0x%x crc: 0x%x",
                no, get_u32(block, 4), get_u32(block, 0), record_crc(block, BLOCK_SIZE));
}

std::string extent_fault(std::uint64_t no, const Block &block)
{
    return text("extent no: %lu, crc_ondisk: 0x%x crc: 0x%x", no, extent_block_checksum(block),
                extent_block_crc(block));
}

std::string shard_ignored(std::uint64_t no, const ShardV3 &shard)
{
    return text("ignore shard:%lu, in_use:%d, inode_no:%d", no, as_int(shard.in_use),
                as_int(shard.ino));
}

std::string extent_ignored(std::uint64_t no, const ExtentV3 &extent)
{
    return text("ignore extent:%lu, in_use:%d, shard_no:%d", no, as_int(extent.in_use),
                as_int(extent.shard));
}

} // namespace

template <>
const ShardTable &block_table()
{
    static const ShardTable TABLE{
        .name = "Shards",
        .first_slot = 1,
        .entries = &ShardBlockV3::shards,
        .owner = &ShardV3::ino,
        .fields =
            {
                {"ino", &ShardV3::ino, 0, 18},
                {"index", &ShardV3::index, 32, 32},
                {"reserved", &ShardV3::reserved, 19, 13, InRepair::OPTIONAL},
                {"in_use", &ShardV3::in_use, 18, 1, InRepair::UNREAD},
            },
        .start = &SuperV3::shard_table_offset,
        .end = &SuperV3::hot_table_offset,
        .count = &SuperV3::shard_cnt,
        .offset = shard_offset,
        .dump = "dump_shard",
        .formatter = "__dump_shard_v3",
        .block_key = "shard_no",
        .stored_checksum = first_word,
        .block_text = shard_block_text,
        .line = shard_line,
        .fault = shard_fault,
        .ignored = shard_ignored,
        .repair = "repair_shard",
        .repair_code = 13,
        .parser = "parse_shard_from_json_v3",
        .without_super = "params && params->sb && ext_cfg && shards && shard",
        .entries_key = "shards",
        .item = "shards",
        .number_key = "sno",
    };
    return TABLE;
}

template <>
const ExtentTable &block_table()
{
    static const ExtentTable TABLE{
        .name = "Extents",
        .first_slot = 0,
        .entries = &ExtentBlockV3::extents,
        .owner = &ExtentV3::shard,
        .fields =
            {
                {"lba", &ExtentV3::lba, 1, 19},
                {"shard", &ExtentV3::shard, 20, 19},
                {"dirty", &ExtentV3::dirty, 39, 1},
                {"bitmap", &ExtentV3::bitmap, 40, 16},
                {"sense", &ExtentV3::sense, 57, 4, InRepair::OPTIONAL},
                {"demote", &ExtentV3::demote, 61, 1, InRepair::OPTIONAL},
                {"dm_err", &ExtentV3::dm_err, 62, 1, InRepair::OPTIONAL},
                {"reserved", &ExtentV3::reserved, 63, 1, InRepair::OPTIONAL},
                {"in_use", &ExtentV3::in_use, 56, 1, InRepair::UNREAD},
            },
        .start = &SuperV3::extent_table_offset,
        .end = &SuperV3::data_offset,
        .count = &SuperV3::extent_cnt,
        .offset = extent_offset,
        .dump = "dump_extent",
        .formatter = "__dump_extent_v3",
        .block_key = "extent_no",
        .stored_checksum = extent_block_checksum,
        .block_text = extent_block_text,
        .line = extent_line,
        .fault = extent_fault,
        .ignored = extent_ignored,
        .repair = "repair_extent",
        .repair_code = 12,
        .parser = "parse_extent_from_json_v3",
        .without_super = "params && params->sb && ext_cfg && extent",
        .entries_key = "extents",
        .item = "extent",
        .number_key = "eno",
    };
    return TABLE;
}

template <>
const HotTable &block_table()
{
    static const HotTable TABLE;
    return TABLE;
}

SuperV3 packed_super(std::uint64_t blocks)
{
    SuperV3 super = super_v3(1, 1);
    super.shard_cnt = super.extent_cnt = blocks * SLOTS_V3;
    super.hot_table_size = blocks * BLOCK_SIZE;
    set_geometry(super);
    return super;
}

} // namespace tier_test
