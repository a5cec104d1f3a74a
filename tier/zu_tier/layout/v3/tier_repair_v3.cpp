#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/v3/extent.h"
#include "zu_tier/layout/v3/inode.h"
#include "zu_tier/layout/v3/packed.h"
#include "zu_tier/layout/v3/shard.h"
#include "zu_tier/layout/v3/super.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>

/* Layout V3: its brick, inode and hot tables, its command map, its selector. */

namespace {

/* Brick table */

tier_brick_table brick_table(const zutr_params_t *params)
{
    return {TIER_BRICK_MAGIC_V3, tier_bricks_v3(tier_super_v3(params)), zutr_need::required};
}

int32_t __dump_brick_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, brick_table(params), no, meta, delim, params);
}

int32_t zutr_dump_brick_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return zutr_dump_table(params, "bi_no", tier_bricks_v3(tier_super_v3(params)), __dump_brick_v3);
}

int64_t parse_brick_from_json_v3(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, brick_table(params),
                            static_cast<tier_brick_info_v3_t *>(m));
}

int32_t zutr_repair_brick_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_brick_from_json_v3);
}

/* Inode table */

void __print_inode_v3(const tier_inode_v3_t *inode, int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(inode != nullptr && fp != nullptr, "inode && fp");
    /* GCOVR_EXCL_BR_STOP */
    zutr_print_entry<TIER_INODE_FIELDS_V2>(*inode, offset, fp);
}

/* The number as this layout has it: signed, of 64 bits. */
constexpr uint64_t wide_no(uint32_t no)
{
    return static_cast<uint64_t>(int64_t{static_cast<int32_t>(no)});
}

int64_t inode_slot(const zutr_params_t *params, uint32_t no)
{
    return tier_inodes_v3(tier_super_v3(params)).slot(wide_no(no));
}

constexpr tier_inode_table INODE_TABLE_V3 = {TIER_INODE_MAGIC_V3, __print_inode_v3,
                                             tier_log_bad_inode, inode_slot};

int32_t __dump_inode_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, INODE_TABLE_V3, no, meta, delim, params);
}

int32_t zutr_dump_inode_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return zutr_dump_table(params, "no", tier_inodes_v3(tier_super_v3(params)), __dump_inode_v3);
}

int32_t read_inode(const zutr_json_reader &in, tier_inode_v3_t *inode)
{
    int32_t ret = in.read(TIER_INODE_KEYS_V3, inode);
    if (ret == 0 && inode->i_use != 0) {
        ret = in.read(TIER_INODE_IN_USE_KEYS_V3, inode);
        inode->i_blocks = inode->i_size >> TIER_INODE_BLOCK_SHIFT_V3;
        ret = ret == 0 ? in.read(TIER_INODE_BLOCKS_KEY, inode) : ret;
    }
    return ret;
}

int64_t parse_inode_from_json_v3(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v3_t &sb = tier_super_v3(params);
    auto *inode = static_cast<tier_inode_v3_t *>(m);
    const int32_t ret = read_inode({__func__, inode_cfg}, inode);
    if (ret != 0) {
        return ret;
    }
    if (wide_no(inode->i_no) >= sb.sb_inode_table_cnt ||
        inode->i_brick_no >= sb.sb_brick_table_cnt) {
        zutr_error(__func__, "i_no %u or brick_no %u is invalid, max i_cnt:%lu, max b_cnt:%lu",
                   inode->i_no, inode->i_brick_no, sb.sb_inode_table_cnt, sb.sb_brick_table_cnt);
        return -EINVAL;
    }
    return tier_finish_inode(__func__, INODE_TABLE_V3, params, inode);
}

int32_t zutr_repair_inode_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_inode_from_json_v3);
}

/* Hot table, whose content is nobody's business here */

int32_t __dump_hot_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    if (params->filter.error == 1) {
        zutr_debug(__func__, "ignore hot:%d", no);
        return 1;
    }
    zutr_text out(params->out_fp);
    out.put(delim);
    out.put("{\"meta_offset\":");
    out.signed_decimal(tier_hot_v3(tier_super_v3(params)).slot(static_cast<uint64_t>(no)));
    out.put("}");
    return 0;
}

int32_t zutr_dump_hot_table_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return zutr_dump_table(params, "hot_no", tier_hot_v3(tier_super_v3(params)), __dump_hot_v3);
}

/* Leaves the block as it is, zeroed: a hot block is repaired by clearing it. */
int64_t parse_hot_table_from_json_v3(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && m");
    const tier_super_block_v3_t &sb = tier_super_v3(params);
    int64_t offset = 0;
    const int32_t ret = tier_read_meta_offset({__func__, ext_cfg}, sb.sb_hot_table_offset,
                                              sb.sb_extent_table_offset, &offset);
    if (ret != 0) {
        return ret;
    }
    return tier_check_slot(__func__, offset) ? offset : -EFAULT;
}

int32_t zutr_repair_hot_table_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_hot_table_from_json_v3);
}

/* Indexed by zutr_cmd_t. */
constexpr zutr_cmd_map_t s_cmd_map = {
    zutr_dump_super_v3,
    zutr_dump_brick_v3,
    zutr_dump_inode_v3,
    zutr_dump_extent_v3,
    zutr_dump_shard_v3,
    zutr_dump_hot_table_v3,
    nullptr, /* restore brick */
    nullptr, /* restore inode */
    nullptr, /* restore extent */
    zutr_repair_super_v3,
    zutr_repair_brick_v3,
    zutr_repair_inode_v3,
    zutr_repair_extent_v3,
    zutr_repair_shard_v3,
    zutr_repair_hot_table_v3,
    nullptr, /* convert_super */
};

int32_t zutr_func_selector_v3(int32_t cmd, const void *sb, zutr_cmd_func_t *func)
{
    return zutr_select(__check_super_v3, s_cmd_map, cmd, sb, func);
}

[[gnu::constructor]] void zutr_register_func_v3()
{
    zutr_func_register(ZUTR_VER_CODE_V3, zutr_func_selector_v3);
}

} // namespace
