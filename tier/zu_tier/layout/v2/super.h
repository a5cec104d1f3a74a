#pragma once

#include "zu_tier/format/v2.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/super.h"

#include <cstdint>
#include <tuple>

/* The V2 super block: the commands that read, rebuild and convert it, and what the other tables
 * need. */

constexpr auto TIER_SUPER_FIELDS_V2 = std::tuple_cat(
    TIER_SUPER_HEAD_FIELDS<tier_super_block_v2_t>,
    std::tuple{
        zutr_field{"exp_inode_magic", &tier_super_block_v2_t::sb_inode_exp_magic, zutr_form::hex},
        zutr_computed<tier_super_block_v2_t>{
            "exp_inode_cnt",
            [](const tier_super_block_v2_t &sb) { return uint64_t{tier_exp_cnt_v2(sb)}; }},
        zutr_field{"exp_inode_inuse", &tier_super_block_v2_t::sb_inode_exp_inuse, zutr_form::hex},
        zutr_field{"sb_inode_exp_area", &tier_super_block_v2_t::sb_inode_exp_area},
        zutr_field{"min_alloc_size", &tier_super_block_v2_t::sb_min_alloc_size},
        zutr_field{"total_map_size", &tier_super_block_v2_t::sb_total_map_size},
        zutr_field{"map_cnt", &tier_super_block_v2_t::sb_map_cnt},
        zutr_field{"size_mapped_meta", &tier_super_block_v2_t::sb_size_mapped_meta},
        zutr_field{"hot_size", &tier_super_block_v2_t::sb_hot_size},
        zutr_field{"total_extent_size", &tier_super_block_v2_t::sb_total_extent_size},
    });

/* Read from a description of a V2 super block, computed for an older one. */
constexpr auto TIER_SUPER_MAP_KEYS_V2 = std::tuple{
    zutr_key{"min_alloc_size", &tier_super_block_v2_t::sb_min_alloc_size, zutr_to_s64},
    zutr_key{"total_map_size", &tier_super_block_v2_t::sb_total_map_size, zutr_to_s64},
    zutr_key{"map_cnt", &tier_super_block_v2_t::sb_map_cnt, zutr_to_s64},
    zutr_key{"size_mapped_meta", &tier_super_block_v2_t::sb_size_mapped_meta, zutr_to_s64},
    zutr_key{"hot_size", &tier_super_block_v2_t::sb_hot_size, zutr_to_s64},
};

/* The expansion area as a repair file gives it: not as it is stored. */
struct tier_exp_config_v2 {
    uint32_t cnt;
    char magic[32];
    char inuse[32];
};
inline constexpr zutr_key TIER_EXP_CNT_KEY_V2 = {"exp_inode_cnt", &tier_exp_config_v2::cnt,
                                                 zutr_to_s64, zutr_need::optional};
inline constexpr zutr_key TIER_EXP_MAGIC_KEY_V2 = {"exp_inode_magic", &tier_exp_config_v2::magic};
inline constexpr zutr_key TIER_EXP_INUSE_KEY_V2 = {"exp_inode_inuse", &tier_exp_config_v2::inuse};

/* 0, or -EFAULT when `sb` is not a V2 super block. */
int32_t __check_super_v2(const void *sb);

int32_t zutr_dump_super_v2(zutr_params_t *params);
int32_t zutr_repair_super_v2(zutr_params_t *params);
int32_t zutr_convert_super_v2(zutr_params_t *params);

/* The device's super block. */
inline const tier_super_block_v2_t &tier_super_v2(const zutr_params_t *params)
{
    return *static_cast<const tier_super_block_v2_t *>(params->sb);
}

/* What every command on a table relies on. */
void tier_assert_super_v2(const zutr_params_t *params);
