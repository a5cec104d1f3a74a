#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/format/v1.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/inode.h"
#include "zu_tier/layout/restore.h"
#include "zu_tier/layout/v1/extent.h"
#include "zu_tier/layout/v1/super.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>

/* Layout V1: its brick and inode tables, the restore, its command map, its selector. */

namespace {

/* Brick table */

tier_brick_table brick_table(const zutr_params_t *params)
{
    return {TIER_BRICK_MAGIC_V1, tier_bricks(tier_super_v1(params)), zutr_need::optional};
}

int32_t __dump_brick_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, brick_table(params), no, meta, delim, params);
}

int32_t zutr_dump_brick_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    return zutr_dump_table(params, "bi_no", tier_bricks(tier_super_v1(params)), __dump_brick_v1);
}

int64_t parse_brick_from_json_v1(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, brick_table(params),
                            static_cast<tier_brick_info_v1_t *>(m));
}

int32_t zutr_repair_brick_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_brick_from_json_v1);
}

/* Inode table */

void __print_inode_v1(const tier_inode_v1_t *inode, int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(inode != nullptr && fp != nullptr, "inode && fp");
    /* GCOVR_EXCL_BR_STOP */
    zutr_print_entry<TIER_INODE_FIELDS_V1>(*inode, offset, fp);
}

int64_t inode_slot(const zutr_params_t *params, uint32_t no)
{
    return tier_inodes(tier_super_v1(params)).slot(no);
}

constexpr tier_inode_table INODE_TABLE_V1 = {TIER_INODE_MAGIC_V1, __print_inode_v1,
                                             tier_log_bad_inode, inode_slot};

int32_t __dump_inode_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, INODE_TABLE_V1, no, meta, delim, params);
}

int32_t zutr_dump_inode_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    return zutr_dump_table(params, "no", tier_inodes(tier_super_v1(params)), __dump_inode_v1);
}

int64_t parse_inode_from_json_v1(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v1_t &sb = tier_super_v1(params);
    auto *inode = static_cast<tier_inode_v1_t *>(m);
    const int32_t ret = tier_read_inode({__func__, inode_cfg}, TIER_INODE_IN_USE_KEYS, inode);
    if (ret != 0) {
        return ret;
    }
    if (inode->i_no >= sb.sb_inode_cnt || inode->i_brick_no >= sb.sb_brick_cnt) {
        zutr_error(__func__, "i_no %u or brick_no %u is invalid, max i_cnt:%u, max b_cnt:%u",
                   inode->i_no, inode->i_brick_no, sb.sb_inode_cnt, sb.sb_brick_cnt);
        return -EINVAL;
    }
    return tier_finish_inode(__func__, INODE_TABLE_V1, params, inode);
}

int32_t zutr_repair_inode_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_inode_from_json_v1);
}

/* Inode restore. No command of the command line names it. */

int32_t zutr_restore_inode_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    const tier_super_block_v1_t &sb = tier_super_v1(params);
    if (params->meta_no < 0 || static_cast<uint32_t>(params->meta_no) >= sb.sb_inode_cnt) {
        zutr_error(__func__, "invalid inode no %d max inode cnt:%d", params->meta_no,
                   static_cast<int32_t>(sb.sb_inode_cnt));
        return -EINVAL;
    }
    const int32_t ret = tier_check_size(__func__, "sb_extent_size", sb.sb_extent_size,
                                        TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX);
    if (ret != 0) {
        return ret;
    }
    /* The distance into the table is a 32-bit product. */
    const auto distance = static_cast<int32_t>(static_cast<uint32_t>(params->meta_no) * SIZE_4K);
    const int64_t offset = zutr_advance(tier_inodes(sb).start, distance);
    return tier_restore_inode({.func = __func__,
                               .inode_offset = offset,
                               .inode_magic = TIER_INODE_MAGIC_V1,
                               .extents = tier_extents(sb),
                               .extent_table_size = sb.sb_extent_table_size,
                               .extent_size = sb.sb_extent_size,
                               .failed_read_offset = offset,
                               .shows_write_offset = true},
                              params);
}

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
}

} // namespace
