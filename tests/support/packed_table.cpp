#include "packed_table.h"

namespace tier_test {

template <>
const ShardTable &block_table()
{
    static const ShardTable TABLE{
        {model(3, "shard"), &SuperV3::shard_table_offset, &SuperV3::hot_table_offset,
         &SuperV3::shard_cnt},
        &ShardBlockV3::shards,
        &ShardV3::ino,
        {&ShardV3::ino, &ShardV3::in_use, &ShardV3::reserved, &ShardV3::index}};
    return TABLE;
}

template <>
const ExtentTable &block_table()
{
    static const ExtentTable TABLE{{model(3, "extent"), &SuperV3::extent_table_offset,
                                    &SuperV3::data_offset, &SuperV3::extent_cnt},
                                   &ExtentBlockV3::extents,
                                   &ExtentV3::shard,
                                   {&ExtentV3::lba, &ExtentV3::shard, &ExtentV3::dirty,
                                    &ExtentV3::in_use, &ExtentV3::sense, &ExtentV3::demote,
                                    &ExtentV3::dm_err, &ExtentV3::reserved, &ExtentV3::bitmap}};
    return TABLE;
}

template <>
const HotTable &block_table()
{
    static const HotTable TABLE{{model(3, "hot"), &SuperV3::hot_table_offset,
                                 &SuperV3::extent_table_offset, &SuperV3::hot_table_size}};
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
