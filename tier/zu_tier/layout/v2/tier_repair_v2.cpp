#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/restore.h"
#include "zu_tier/layout/v2/extent.h"
#include "zu_tier/layout/v2/inode.h"
#include "zu_tier/layout/v2/super.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>

/* Layout V2: its brick and inode tables, the restore, its command map, its selector. */

namespace {

/* Brick table */

tier_brick_table brick_table(const zutr_params_t *params)
{
    return {TIER_BRICK_MAGIC_V2, tier_bricks(tier_super_v2(params)), zutr_need::optional};
}

int32_t __dump_brick_v2(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, brick_table(params), no, meta, delim, params);
}

int32_t zutr_dump_brick_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    return zutr_dump_table(params, "bi_no", tier_bricks(tier_super_v2(params)), __dump_brick_v2);
}

int64_t parse_brick_from_json_v2(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, brick_table(params),
                            static_cast<tier_brick_info_v2_t *>(m));
}

int32_t zutr_repair_brick_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_brick_from_json_v2);
}

/* Inode table */

void log_bad_inode(const char *func, const tier_inode_v2_t &inode, int32_t no, uint32_t crc)
{
    zutr_error(func, "inode no: %u no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.i_no,
               static_cast<uint32_t>(no), inode.i_magic, inode.i_checksum, crc);
}

int64_t inode_slot(const zutr_params_t *params, uint32_t no)
{
    return tier_inode_slot_v2(tier_super_v2(params), no);
}

constexpr tier_inode_table INODE_TABLE_V2 = {TIER_INODE_MAGIC_V2, __print_inode_v2, log_bad_inode,
                                             inode_slot};

int32_t __dump_inode_v2(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, INODE_TABLE_V2, no, meta, delim, params);
}

/* The expansion inodes, numbered on from the regular ones. For a walk the driver takes their count,
 * for one entry the bound of its number. */
int32_t dump_exp_inodes(zutr_params_t *params, uint32_t count)
{
    const tier_super_block_v2_t &sb = tier_super_v2(params);
    params->base_no = static_cast<int32_t>(sb.sb_inode_cnt);
    return zutr_dump_table(params, "no", {tier_exp_inodes_v2(sb).start, count}, __dump_inode_v2);
}

/* Both tables as the members of one object. */
int32_t dump_all_inodes(zutr_params_t *params)
{
    const tier_super_block_v2_t &sb = tier_super_v2(params);
    zutr_write(params->out_fp, "{ \"inode\":");
    int32_t ret = zutr_dump_table(params, "no", tier_inodes(sb), __dump_inode_v2);
    if (ret == 0 && sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        zutr_write(params->out_fp, ", \"exp_inode\":");
        zutr_assert(params->base_no == 0, "params->base_no == 0");
        ret = dump_exp_inodes(params, tier_exp_cnt_v2(sb));
    }
    zutr_write(params->out_fp, "}");
    return ret;
}

int32_t zutr_dump_inode_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    const tier_super_block_v2_t &sb = tier_super_v2(params);
    zutr_assert(tier_exp_inodes_v2(sb).start > 0, "exp_inode_off > 0");
    if (params->meta_no < 0) {
        return dump_all_inodes(params);
    }
    if (static_cast<uint32_t>(params->meta_no) < sb.sb_inode_cnt) {
        return zutr_dump_table(params, "no", tier_inodes(sb), __dump_inode_v2);
    }
    if (sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        return dump_exp_inodes(params, tier_inode_sum_v2(sb));
    }
    zutr_error(__func__, "exp inode not format, invalid inode %d", params->meta_no);
    return -EINVAL;
}

int64_t parse_inode_from_json_v2(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v2_t &sb = tier_super_v2(params);
    auto *inode = static_cast<tier_inode_v2_t *>(m);
    const int32_t ret = tier_read_inode({__func__, inode_cfg}, TIER_INODE_IN_USE_KEYS_V2, inode);
    if (ret != 0) {
        return ret;
    }
    if (inode->i_brick_no >= sb.sb_brick_cnt ||
        inode_is_valid(&sb, static_cast<int32_t>(inode->i_no)) == 0) {
        zutr_error(__func__,
                   "repiar_file i_no %u input ino: %d or brick_no %u is invalid, exp_magic :0x%x "
                   "exp exp_inuse: 0x%xmax i_cnt:%u, max b_cnt:%u",
                   inode->i_no, params->meta_no, inode->i_brick_no, sb.sb_inode_exp_magic,
                   sb.sb_inode_exp_inuse, sb.sb_inode_cnt, sb.sb_brick_cnt);
        return -EINVAL;
    }
    return tier_finish_inode(__func__, INODE_TABLE_V2, params, inode);
}

int32_t zutr_repair_inode_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_inode_from_json_v2);
}

/* Inode restore. No command of the command line names it. */

int32_t zutr_restore_inode_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    const tier_super_block_v2_t &sb = tier_super_v2(params);
    /* In this layout only a number that is not a usable inode's is restored. */
    if (inode_is_valid(&sb, params->meta_no) != 0) {
        return -EINVAL;
    }
    const int32_t ret =
        tier_check_size(__func__, "sb_extent_size", sb.sb_extent_size, TIER_CHECKSUM_SIZE, SIZE_4K);
    if (ret != 0) {
        return ret;
    }
    const auto no = static_cast<uint32_t>(params->meta_no);
    /* In the regular table the distance is a 32-bit product. */
    const int64_t offset = no < sb.sb_inode_cnt ? zutr_advance(tier_inodes(sb).start,
                                                               static_cast<int32_t>(no * SIZE_4K))
                                                : tier_inode_slot_v2(sb, no);
    const tier_region extents = tier_extents(sb);
    return tier_restore_inode({.func = __func__,
                               .inode_offset = offset,
                               .inode_magic = TIER_INODE_MAGIC_V2,
                               .extents = extents,
                               .extent_table_size = sb.sb_extent_table_size,
                               .extent_size = sb.sb_extent_size,
                               .failed_read_offset = extents.start,
                               .shows_write_offset = false},
                              params);
}

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
}

} // namespace
