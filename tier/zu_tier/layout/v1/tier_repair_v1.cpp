#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/inode.h"
#include "zu_tier/layout/restore.h"
#include "zu_tier/layout/super.h"
#include "zu_tier/layout/v1/v1.h"

#include <cerrno>

/* Layout V1: its brick and inode tables, the restore, the layout itself, its command map, its
 * selector. */

namespace {

extern const tier_table BRICK_TABLE;
extern const tier_table INODE_TABLE;

/* Brick table */

uint32_t crc_brick_v1(void *bi, uint32_t length) { return tier_crc(bi, length); }

void __print_brick_v1(void *brick, const void * /*sb*/, int64_t offset, FILE *fp)
{
    tier_print_brick(static_cast<tier_brick_info_v1_t *>(brick), offset, fp);
}

int32_t __dump_brick_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, BRICK_TABLE, no, meta, delim, params);
}

int32_t zutr_dump_brick_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    return tier_dump_table(params, BRICK_TABLE, __dump_brick_v1);
}

int64_t parse_brick_from_json_v1(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, BRICK_TABLE, zutr_need::optional, params->sb, m);
}

int32_t zutr_repair_brick_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, BRICK_TABLE.repair);
}

constexpr tier_table BRICK_TABLE =
    tier_brick_table(TIER_BRICK_MAGIC_V1,
                     [](const void *sb) { return tier_regions{tier_bricks(tier_super_v1(sb))}; },
                     crc_brick_v1, {parse_brick_from_json_v1, __print_brick_v1});

/* Inode table */

/* The last two words are unused. */
constexpr auto INODE_FIELDS = std::tuple_cat(
    TIER_INODE_HEAD_FIELDS, std::tuple{zutr_field{"reserved1", &tier_inode_v1_t::i_reserved1},
                                       zutr_field{"reserved2", &tier_inode_v1_t::i_reserved2}});

uint32_t crc_inode_v1(void *inode, uint32_t length) { return tier_crc(inode, length); }

void __print_inode_v1(void *inode, const void * /*sb*/, int64_t offset, FILE *fp)
{
    tier_print_inode<INODE_FIELDS>(inode, offset, fp);
}

int32_t __dump_inode_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, INODE_TABLE, tier_log_bad_inode, no, meta, delim, params);
}

int32_t zutr_dump_inode_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    return tier_dump_table(params, INODE_TABLE, __dump_inode_v1);
}

int64_t parse_inode_from_json_v1(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v1_t &sb = tier_super_v1(params->sb);
    auto *inode = static_cast<tier_inode_v1_t *>(m);
    inode->i_magic = TIER_INODE_MAGIC_V1;
    zutr_json_reader in(__func__, inode_cfg);
    tier_read_inode(in, TIER_INODE_IN_USE_KEYS, inode);
    if (inode->i_no >= sb.sb_inode_cnt || inode->i_brick_no >= sb.sb_brick_cnt) {
        in.refuse(__func__, "i_no %u or brick_no %u is invalid, max i_cnt:%u, max b_cnt:%u",
                  inode->i_no, inode->i_brick_no, sb.sb_inode_cnt, sb.sb_brick_cnt);
    }
    return tier_finish(in, INODE_TABLE, &sb, inode, inode->i_no);
}

int32_t zutr_repair_inode_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, INODE_TABLE.repair);
}

/* Inode restore. No command of the command line names it. */

constexpr const char *RESTORE_FUNC = "zutr_restore_inode_v1";

int32_t plan_restore(zutr_params_t *params, tier_restore *plan)
{
    const tier_super_block_v1_t &sb = tier_super_v1(params->sb);
    if (params->meta_no < 0 || static_cast<uint32_t>(params->meta_no) >= sb.sb_inode_cnt) {
        zutr_error(RESTORE_FUNC, "invalid inode no %d max inode cnt:%d", params->meta_no,
                   static_cast<int32_t>(sb.sb_inode_cnt));
        return -EINVAL;
    }
    const int32_t ret = tier_check_size(RESTORE_FUNC, "sb_extent_size", sb.sb_extent_size,
                                        TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX);
    if (ret != 0) {
        return ret;
    }
    /* The distance into the table is a 32-bit product. */
    const auto distance = static_cast<int32_t>(static_cast<uint32_t>(params->meta_no) * SIZE_4K);
    const int64_t offset = zutr_advance(tier_inodes(sb).start, distance);
    *plan = {.func = RESTORE_FUNC,
             .inode_offset = offset,
             .inode_magic = TIER_INODE_MAGIC_V1,
             .extents = tier_extents(sb),
             .extent_table_size = sb.sb_extent_table_size,
             .extent_size = sb.sb_extent_size,
             .failed_read_offset = offset,
             .shows_write_offset = true};
    return 0;
}

int32_t zutr_restore_inode_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    tier_restore plan = {};
    const int32_t ret = plan_restore(params, &plan);
    return ret != 0 ? ret : tier_restore_inode(plan, params);
}

constexpr tier_table INODE_TABLE = tier_inode_table(
    TIER_INODE_MAGIC_V1,
    [](const void *sb) { return tier_regions{tier_inodes(tier_super_v1(sb))}; }, crc_inode_v1,
    [] { return tier_make_columns(INODE_FIELDS); },
    [] { return tier_make_columns(std::tuple_cat(TIER_INODE_KEYS, TIER_INODE_IN_USE_KEYS)); },
    {parse_inode_from_json_v1, __print_inode_v1}, plan_restore);

/* The layout */

constexpr const tier_table *TABLES[] = {&TIER_SUPER_TABLE_V1, &BRICK_TABLE, &INODE_TABLE,
                                        &TIER_EXTENT_TABLE_V1};

constexpr tier_layout LAYOUT_V1 = {
    .name = "v1",
    .version = ZUTR_VER_CODE_V1,
    .version_number = tier_number_at(offsetof(tier_super_block_v1_t, sb_version), 4),
    .version_value = TIER_SB_VERSION_V1,
    .tables = TABLES,
    .areas = [](const void *sb) { return tier_head_areas(tier_super_v1(sb)); },
};

/* Indexed by zutr_cmd_t. */
constexpr zutr_cmd_map_t s_cmd_map = {
    zutr_dump_super_v1,
    zutr_dump_brick_v1,
    zutr_dump_inode_v1,
    zutr_dump_extent_v1,
    nullptr, /* dump_shard */
    nullptr, /* dump_hot */
    nullptr, /* restore brick */
    zutr_restore_inode_v1,
    nullptr, /* restore extent */
    zutr_repair_super_v1,
    zutr_repair_brick_v1,
    zutr_repair_inode_v1,
    zutr_repair_extent_v1,
    nullptr, /* repair_shard */
    nullptr, /* repair_hot */
    nullptr, /* convert_super */
};

int32_t zutr_func_selector_v1(int32_t cmd, const void *sb, zutr_cmd_func_t *func)
{
    return zutr_select(__check_super_v1, s_cmd_map, cmd, sb, func);
}

[[gnu::constructor]] void zutr_register_func_v1()
{
    zutr_func_register(ZUTR_VER_CODE_V1, zutr_func_selector_v1);
    tier_register_layout(&LAYOUT_V1);
}

} // namespace
