#include "zu_tier/layout/v3/extent.h"

#include "common/zutr_utils.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/v3/super.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr char EXTENT_IGNORED_V3[] = "ignore extent:%d, in_use:%d, shard_no:%d";

/* The stored checksum of a block, gathered from a copy of it; all ones without memory. */
uint32_t get_extent_crc(const tier_packed_block_v3_t &extents)
{
    zutr_buffer copy;
    if (zutr_alloc_aligned(sizeof(extents), &copy) != 0) {
        zutr_error(__func__, "failed to alloc extent_4K");
        return UINT32_MAX;
    }
    memcpy(copy.get(), &extents, sizeof(extents));
    const auto *block = reinterpret_cast<const tier_packed_block_v3_t *>(copy.get());
    uint64_t crc = 0;
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        crc |= EXTENT_CHECKSUM_V3.get(block->word[i]) << i;
    }
    return static_cast<uint32_t>(crc);
}

/* The computed checksum of a block. Clears the stored one, which must have been read before. */
uint32_t crc_extent_v3(tier_packed_block_v3_t *extents)
{
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        extents->word[i] = EXTENT_CHECKSUM_V3.put(extents->word[i], 0);
    }
    return zutr_crc32(extents, sizeof(*extents));
}

void set_extent_crc(tier_packed_block_v3_t *extents, uint32_t crc)
{
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        extents->word[i] = EXTENT_CHECKSUM_V3.put(extents->word[i], crc >> i);
    }
}

int32_t __dump_extent_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    auto *block = static_cast<tier_packed_block_v3_t *>(meta);
    const uint32_t checksum = get_extent_crc(*block);
    const uint32_t crc = crc_extent_v3(block);
    if (checksum != crc) {
        zutr_error(__func__, "extent no: %u, crc_ondisk: 0x%x crc: 0x%x", static_cast<uint32_t>(no),
                   checksum, crc);
        return -EFAULT;
    }
    const int64_t offset = tier_extents_v3(tier_super_v3(params)).slot(static_cast<uint64_t>(no));
    return tier_dump_packed<TIER_EXTENT_TABLE_V3, TIER_EXTENT_FIELDS_V3, EXTENT_IGNORED_V3>(
        __func__, no, *block, checksum, offset, delim, params);
}

int64_t parse_extent_from_json_v3(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && extent");
    const tier_super_block_v3_t &sb = tier_super_v3(params);
    const zutr_json_reader in(__func__, ext_cfg);
    auto *block = static_cast<tier_packed_block_v3_t *>(m);
    int64_t offset = 0;
    int32_t ret =
        tier_read_meta_offset(in, sb.sb_extent_table_offset, sb.sb_block_area_offset, &offset);
    ret = ret == 0 ? tier_read_packed(in, TIER_EXTENT_TABLE_V3, block) : ret;
    if (ret != 0) {
        return ret;
    }
    set_extent_crc(block, crc_extent_v3(block));
    return tier_check_slot(__func__, offset) ? offset : -EFAULT;
}

} // namespace

int32_t zutr_dump_extent_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return zutr_dump_table(params, "extent_no", tier_extents_v3(tier_super_v3(params)),
                           __dump_extent_v3);
}

int32_t zutr_repair_extent_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_extent_from_json_v3);
}
