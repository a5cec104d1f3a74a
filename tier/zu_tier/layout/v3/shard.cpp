#include "zu_tier/layout/v3/shard.h"

#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/v3/super.h"

#include <cerrno>

namespace {

constexpr char SHARD_IGNORED_V3[] = "ignore shard:%d, in_use:%d, inode_no:%d";

uint32_t crc_shard_v3(const tier_packed_block_v3_t &block)
{
    return zutr_record_crc(block);
}

int32_t __dump_shard_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    const auto &block = *static_cast<const tier_packed_block_v3_t *>(meta);
    const auto magic = static_cast<uint32_t>(SHARD_MAGIC_V3.get(block.word[0]));
    const auto checksum = static_cast<uint32_t>(SHARD_CHECKSUM_V3.get(block.word[0]));
    const uint32_t crc = crc_shard_v3(block);
    if (magic != TIER_SHARD_MAGIC_V3 || checksum != crc) {
        zutr_error(__func__,
                   "shard no: %u, magic_ondisk: 0x%x magic: 0x%x, crc_ondisk: 0x%x crc: 0x%x",
                   static_cast<uint32_t>(no), magic, TIER_SHARD_MAGIC_V3, checksum, crc);
        return -EFAULT;
    }
    const int64_t offset = tier_shards_v3(tier_super_v3(params)).slot(static_cast<uint64_t>(no));
    return tier_dump_packed<TIER_SHARD_TABLE_V3, TIER_SHARD_FIELDS_V3, SHARD_IGNORED_V3>(
        __func__, no, block, checksum, offset, delim, params);
}

int64_t parse_shard_from_json_v3(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && shards && shard");
    const tier_super_block_v3_t &sb = tier_super_v3(params);
    const zutr_json_reader in(__func__, ext_cfg);
    auto *block = static_cast<tier_packed_block_v3_t *>(m);
    block->word[0] = SHARD_MAGIC_V3.put(0, TIER_SHARD_MAGIC_V3);
    int64_t offset = 0;
    int32_t ret =
        tier_read_meta_offset(in, sb.sb_shard_table_offset, sb.sb_hot_table_offset, &offset);
    ret = ret == 0 ? tier_read_packed(in, TIER_SHARD_TABLE_V3, block) : ret;
    if (ret != 0) {
        return ret;
    }
    block->word[0] = SHARD_CHECKSUM_V3.put(block->word[0], crc_shard_v3(*block));
    return tier_check_slot(__func__, offset) ? offset : -EFAULT;
}

} // namespace

int32_t zutr_dump_shard_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return zutr_dump_table(params, "shard_no", tier_shards_v3(tier_super_v3(params)),
                           __dump_shard_v3);
}

int32_t zutr_repair_shard_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_shard_from_json_v3);
}
