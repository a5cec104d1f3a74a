#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/restore.h"
#include "zu_tier/layout/super.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tier/layout/v2/v2.h"

#include <cerrno>

/* Layout V2: its brick table, the restore, the layout itself, its command map, its selector. */

namespace {

extern const tier_table BRICK_TABLE;

/* Brick table */

uint32_t crc_brick_v2(void *bi, uint32_t length) { return tier_crc(bi, length); }

void __print_brick_v2(void *brick, const void * /*sb*/, int64_t offset, FILE *fp)
{
    tier_print_brick(static_cast<tier_brick_info_v2_t *>(brick), offset, fp);
}

int32_t __dump_brick_v2(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, BRICK_TABLE, no, meta, delim, params);
}

int32_t zutr_dump_brick_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    return tier_dump_table(params, BRICK_TABLE, __dump_brick_v2);
}

int64_t parse_brick_from_json_v2(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, BRICK_TABLE, zutr_need::optional, params->sb, m);
}

int32_t zutr_repair_brick_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, BRICK_TABLE.repair);
}

constexpr tier_table BRICK_TABLE =
    tier_brick_table(TIER_BRICK_MAGIC_V2,
                     [](const void *sb) { return tier_regions{tier_bricks(tier_super_v2(sb))}; },
                     crc_brick_v2, {parse_brick_from_json_v2, __print_brick_v2});

/* Inode restore. No command of the command line names it. */

int32_t zutr_restore_inode_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    tier_restore plan = {};
    const int32_t ret = tier_plan_restore_v2(params, &plan);
    return ret != 0 ? ret : tier_restore_inode(plan, params);
}

/* The layout */

constexpr const tier_table *TABLES[] = {&TIER_SUPER_TABLE_V2, &BRICK_TABLE, &TIER_INODE_TABLE_V2,
                                        &TIER_EXTENT_TABLE_V2};

std::vector<tier_area> areas(const void *p)
{
    const tier_super_block_v2_t &sb = tier_super_v2(p);
    std::vector<tier_area> found = tier_head_areas(sb);
    if (sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        const uint64_t data = uint64_t{sb.sb_block_size} * sb.sb_block_cnt;
        found.push_back(tier_table_area("expansion inode area",
                                        tier_add(tier_add(sb.sb_data_offset, data), SIZE_1M),
                                        tier_exp_cnt_v2(sb), 0));
    }
    return found;
}

constexpr tier_layout LAYOUT_V2 = {
    .name = "v2",
    .version = ZUTR_VER_CODE_V2,
    .version_number = tier_number_at(offsetof(tier_super_block_v2_t, sb_version), 4),
    .version_value = TIER_SB_VERSION_V2,
    .tables = TABLES,
    .areas = areas,
    .conversion = "convert_super",
    .has_tables = tier_has_tables_v2,
};

/* Indexed by zutr_cmd_t. */
constexpr zutr_cmd_map_t s_cmd_map = {
    zutr_dump_super_v2,
    zutr_dump_brick_v2,
    zutr_dump_inode_v2,
    zutr_dump_extent_v2,
    nullptr, /* dump_shard */
    nullptr, /* dump_hot */
    nullptr, /* restore brick */
    zutr_restore_inode_v2,
    nullptr, /* restore extent */
    zutr_repair_super_v2,
    zutr_repair_brick_v2,
    zutr_repair_inode_v2,
    zutr_repair_extent_v2,
    nullptr, /* repair_shard */
    nullptr, /* repair_hot */
    zutr_convert_super_v2,
};

int32_t zutr_func_selector_v2(int32_t cmd, const void *sb, zutr_cmd_func_t *func)
{
    return zutr_select(__check_super_v2, s_cmd_map, cmd, sb, func);
}

[[gnu::constructor]] void zutr_register_func_v2()
{
    zutr_func_register(ZUTR_VER_CODE_V2, zutr_func_selector_v2);
    tier_register_layout(&LAYOUT_V2);
}

} // namespace
