#pragma once

#include "zu_tier/format/v3.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/super.h"

#include <cstdint>
#include <tuple>

/* The V3 super block: the commands that read and rebuild it, and what the other tables need. */

constexpr auto TIER_SUPER_FIELDS_V3 = std::tuple{
    zutr_field{"checksum", &tier_super_block_v3_t::sb_checksum, zutr_form::hex},
    zutr_field{"magic", &tier_super_block_v3_t::sb_magic, zutr_form::hex},
    zutr_field{"sb_offset", &tier_super_block_v3_t::sb_sb_offset},
    zutr_field{"super block size", &tier_super_block_v3_t::sb_sb_size},
    zutr_field{"reserved_offset", &tier_super_block_v3_t::sb_reserved_offset},
    zutr_field{"reserved_size", &tier_super_block_v3_t::sb_reserved_size},
    zutr_field{"ctime", &tier_super_block_v3_t::sb_ctime, zutr_form::hex_and_time},
    zutr_field{"uuid", &tier_super_block_v3_t::sb_uuid},
    zutr_field{"ssd_uuid", &tier_super_block_v3_t::sb_cdev_uuid},
    zutr_field{"version", &tier_super_block_v3_t::sb_version, zutr_form::hex},
    zutr_field{"reserved", &tier_super_block_v3_t::sb_reserved},
    zutr_field{"brick_table_offset", &tier_super_block_v3_t::sb_brick_table_offset},
    zutr_field{"brick_table_size", &tier_super_block_v3_t::sb_brick_table_size},
    zutr_field{"brick_cnt", &tier_super_block_v3_t::sb_brick_table_cnt},
    zutr_field{"inode_table_offset", &tier_super_block_v3_t::sb_inode_table_offset},
    zutr_field{"inode_table_size", &tier_super_block_v3_t::sb_inode_table_size},
    zutr_field{"inode_cnt", &tier_super_block_v3_t::sb_inode_table_cnt},
    zutr_field{"shard_table_offset", &tier_super_block_v3_t::sb_shard_table_offset},
    zutr_field{"shard_table_size", &tier_super_block_v3_t::sb_shard_table_size},
    zutr_field{"shard_table_cnt", &tier_super_block_v3_t::sb_shard_table_cnt},
    zutr_field{"extent_table_offset", &tier_super_block_v3_t::sb_extent_table_offset},
    zutr_field{"extent_table_size", &tier_super_block_v3_t::sb_extent_table_size},
    zutr_field{"extent_table_cnt", &tier_super_block_v3_t::sb_extent_table_cnt},
    zutr_field{"hot_table_offset", &tier_super_block_v3_t::sb_hot_table_offset},
    zutr_field{"hot_table_size", &tier_super_block_v3_t::sb_hot_table_size},
    zutr_field{"data_offset", &tier_super_block_v3_t::sb_block_area_offset},
    zutr_field{"data_table_size", &tier_super_block_v3_t::sb_block_area_size},
    zutr_field{"block_size", &tier_super_block_v3_t::sb_block_size},
    zutr_field{"block_cnt", &tier_super_block_v3_t::sb_block_cnt},
};

/* The same fields as a repair file gives them, before, between and behind the two texts "ctime" and
 * "version". */
constexpr auto TIER_SUPER_AREA_KEYS_V3 = std::tuple{
    zutr_key{"sb_offset", &tier_super_block_v3_t::sb_sb_offset, zutr_to_u64},
    zutr_key{"super block size", &tier_super_block_v3_t::sb_sb_size, zutr_to_u64},
    zutr_key{"reserved_offset", &tier_super_block_v3_t::sb_reserved_offset, zutr_to_u64},
    zutr_key{"reserved_size", &tier_super_block_v3_t::sb_reserved_size, zutr_to_u64},
};

constexpr auto TIER_SUPER_IDENTITY_KEYS_V3 = std::tuple{
    zutr_key{"uuid", &tier_super_block_v3_t::sb_uuid},
    zutr_key{"ssd_uuid", &tier_super_block_v3_t::sb_cdev_uuid},
};

constexpr auto TIER_SUPER_TABLE_KEYS_V3 = std::tuple{
    zutr_key{"reserved", &tier_super_block_v3_t::sb_reserved, zutr_to_s64},
    zutr_key{"brick_table_offset", &tier_super_block_v3_t::sb_brick_table_offset, zutr_to_u64},
    zutr_key{"brick_table_size", &tier_super_block_v3_t::sb_brick_table_size, zutr_to_u64},
    zutr_key{"brick_cnt", &tier_super_block_v3_t::sb_brick_table_cnt, zutr_to_u64},
    zutr_key{"inode_table_offset", &tier_super_block_v3_t::sb_inode_table_offset, zutr_to_u64},
    zutr_key{"inode_table_size", &tier_super_block_v3_t::sb_inode_table_size, zutr_to_u64},
    zutr_key{"inode_cnt", &tier_super_block_v3_t::sb_inode_table_cnt, zutr_to_u64},
    zutr_key{"shard_table_offset", &tier_super_block_v3_t::sb_shard_table_offset, zutr_to_u64},
    zutr_key{"shard_table_size", &tier_super_block_v3_t::sb_shard_table_size, zutr_to_u64},
    zutr_key{"shard_table_cnt", &tier_super_block_v3_t::sb_shard_table_cnt, zutr_to_u64},
    zutr_key{"extent_table_offset", &tier_super_block_v3_t::sb_extent_table_offset, zutr_to_u64},
    zutr_key{"extent_table_size", &tier_super_block_v3_t::sb_extent_table_size, zutr_to_u64},
    zutr_key{"extent_table_cnt", &tier_super_block_v3_t::sb_extent_table_cnt, zutr_to_u64},
    zutr_key{"hot_table_offset", &tier_super_block_v3_t::sb_hot_table_offset, zutr_to_u64},
    zutr_key{"hot_table_size", &tier_super_block_v3_t::sb_hot_table_size, zutr_to_u64},
    zutr_key{"data_offset", &tier_super_block_v3_t::sb_block_area_offset, zutr_to_u64},
    zutr_key{"data_table_size", &tier_super_block_v3_t::sb_block_area_size, zutr_to_u64},
    zutr_key{"block_size", &tier_super_block_v3_t::sb_block_size, zutr_to_u64},
    zutr_key{"block_cnt", &tier_super_block_v3_t::sb_block_cnt, zutr_to_u64},
};

/* 0, or -EFAULT when `sb` is not a V3 super block. */
int32_t __check_super_v3(const void *sb);

int32_t zutr_dump_super_v3(zutr_params_t *params);
int32_t zutr_repair_super_v3(zutr_params_t *params);

/* The device's super block. */
inline const tier_super_block_v3_t &tier_super_v3(const zutr_params_t *params)
{
    return *static_cast<const tier_super_block_v3_t *>(params->sb);
}

/* What every command on a table relies on. */
void tier_assert_super_v3(const zutr_params_t *params);
