#include "common/zutr_assert.h"
#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/inode.h"
#include "zu_tier/layout/v3/packed.h"
#include "zu_tier/layout/v3/v3.h"

#include <algorithm>
#include <cerrno>

/* Layout V3: its brick, inode and hot tables, the layout itself, its command map, its selector. */

namespace {

extern const tier_table BRICK_TABLE;
extern const tier_table INODE_TABLE;
extern const tier_table HOT_TABLE;

/* Brick table */

uint32_t crc_brick_v3(void *bi, uint32_t length)
{
    zutr_assert(bi != nullptr, "bi");
    return tier_crc(bi, length);
}

void __print_brick_v3(void *brick, const void * /*sb*/, int64_t offset, FILE *fp)
{
    tier_print_brick(static_cast<tier_brick_info_v3_t *>(brick), offset, fp);
}

int32_t __dump_brick_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, BRICK_TABLE, no, meta, delim, params);
}

int32_t zutr_dump_brick_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return tier_dump_table(params, BRICK_TABLE, __dump_brick_v3);
}

int64_t parse_brick_from_json_v3(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, BRICK_TABLE, zutr_need::required, params->sb, m);
}

int32_t zutr_repair_brick_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, BRICK_TABLE.repair);
}

constexpr tier_table BRICK_TABLE =
    tier_brick_table(TIER_BRICK_MAGIC_V3,
                     [](const void *sb) { return tier_regions{tier_bricks_v3(tier_super_v3(sb))}; },
                     crc_brick_v3, {parse_brick_from_json_v3, __print_brick_v3});

/* Inode table */

constexpr auto INODE_KEYS = std::tuple{
    zutr_key{"i_no", &tier_inode_v3_t::i_signed_no, zutr_to_s64},
    zutr_key{"i_use", &tier_inode_v3_t::i_use, zutr_to_u64},
};

/* Read only for an inode in use. */
constexpr auto INODE_IN_USE_KEYS = std::tuple_cat(
    TIER_INODE_FILE_KEYS,
    std::tuple{
        zutr_key{"i_priority", &tier_inode_v3_t::i_priority, zutr_to_u64},
        zutr_key{"i_brick_no", &tier_inode_v3_t::i_brick_no, zutr_to_u64},
        zutr_key{"i_unlink", &tier_inode_v3_t::i_unlink, zutr_to_u64, zutr_need::optional},
        zutr_key{"new_data", &tier_inode_v3_t::new_data, zutr_to_u64, zutr_need::optional},
    });

/* Read after them: without the key the blocks follow from the size. */
constexpr zutr_key INODE_BLOCKS_KEY = {"i_blocks", &tier_inode_v3_t::i_blocks, zutr_to_u64,
                                       zutr_need::optional};
constexpr uint32_t INODE_BLOCK_SHIFT = 17; /* they count units of 128 KiB */

/* The number as this layout has it: signed, of 64 bits. */
constexpr uint64_t wide_no(const tier_inode_v3_t &inode)
{
    return static_cast<uint64_t>(int64_t{inode.i_signed_no});
}

uint32_t crc_inode_v3(void *inode, uint32_t length)
{
    zutr_assert(inode != nullptr, "inode");
    return tier_crc(inode, length);
}

void __print_inode_v3(void *inode, const void * /*sb*/, int64_t offset, FILE *fp)
{
    tier_print_inode<TIER_INODE_FIELDS>(inode, offset, fp);
}

int32_t __dump_inode_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, INODE_TABLE, tier_log_bad_inode, no, meta, delim, params);
}

int32_t zutr_dump_inode_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return tier_dump_table(params, INODE_TABLE, __dump_inode_v3);
}

int64_t parse_inode_from_json_v3(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v3_t &sb = tier_super_v3(params->sb);
    auto *inode = static_cast<tier_inode_v3_t *>(m);
    inode->i_magic = TIER_INODE_MAGIC_V3;
    zutr_json_reader in(__func__, inode_cfg);
    in.read(INODE_KEYS, inode);
    if (inode->i_use != 0) {
        in.read(INODE_IN_USE_KEYS, inode);
        inode->i_blocks = inode->i_size >> INODE_BLOCK_SHIFT;
        in.read(INODE_BLOCKS_KEY, inode);
    }
    if (wide_no(*inode) >= sb.sb_inode_table_cnt || inode->i_brick_no >= sb.sb_brick_table_cnt) {
        in.refuse(__func__, "i_no %u or brick_no %u is invalid, max i_cnt:%lu, max b_cnt:%lu",
                  inode->i_no, inode->i_brick_no, sb.sb_inode_table_cnt, sb.sb_brick_table_cnt);
    }
    return tier_finish(in, INODE_TABLE, &sb, inode, wide_no(*inode));
}

int32_t zutr_repair_inode_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, INODE_TABLE.repair);
}

constexpr tier_table INODE_TABLE = tier_inode_table(
    TIER_INODE_MAGIC_V3,
    [](const void *sb) { return tier_regions{tier_inodes_v3(tier_super_v3(sb))}; }, crc_inode_v3,
    [] { return tier_make_columns(TIER_INODE_FIELDS); },
    [] {
        return tier_make_columns(
            std::tuple_cat(INODE_KEYS, INODE_IN_USE_KEYS, std::tuple{INODE_BLOCKS_KEY}));
    },
    {parse_inode_from_json_v3, __print_inode_v3});

/* Hot table. Its blocks are opaque: they are only listed or cleared. */

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
    out.signed_decimal(tier_hot_v3(tier_super_v3(params->sb)).slot(static_cast<uint64_t>(no)));
    out.put("}");
    return 0;
}

int32_t zutr_dump_hot_table_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return tier_dump_table(params, HOT_TABLE, __dump_hot_v3);
}

/* Leaves the block as it is, zeroed: a hot block is repaired by clearing it. */
int64_t parse_hot_table_from_json_v3(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && m");
    const tier_super_block_v3_t &sb = tier_super_v3(params->sb);
    zutr_json_reader in(__func__, ext_cfg);
    return tier_finish_block(
        in, tier_read_meta_offset(in, sb.sb_hot_table_offset, sb.sb_extent_table_offset));
}

int32_t zutr_repair_hot_table_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, HOT_TABLE.repair);
}

constexpr tier_table HOT_TABLE = {
    .name = "hot",
    .number_key = "hot_no",
    .regions = [](const void *sb) { return tier_regions{tier_hot_v3(tier_super_v3(sb))}; },
    .record_length = [](const void *) { return uint64_t{SIZE_4K}; },
    .repair = {parse_hot_table_from_json_v3, nullptr},
};

/* The layout */

constexpr const tier_table *TABLES[] = {&TIER_SUPER_TABLE_V3, &BRICK_TABLE, &INODE_TABLE,
                                        &TIER_SHARD_TABLE_V3, &HOT_TABLE,   &TIER_EXTENT_TABLE_V3};

std::vector<tier_area> areas(const void *p)
{
    const tier_super_block_v3_t &sb = tier_super_v3(p);
    return {{"super block area", TIER_SUPER_OFFSET, sb.sb_sb_size},
            {"reserved area", sb.sb_reserved_offset, sb.sb_reserved_size, false},
            tier_table_area("brick table", tier_bricks_v3(sb), sb.sb_brick_table_size),
            tier_table_area("inode table", tier_inodes_v3(sb), sb.sb_inode_table_size),
            tier_table_area("shard table", tier_shards_v3(sb), sb.sb_shard_table_size),
            tier_table_area("hot table", tier_hot_v3(sb), sb.sb_hot_table_size),
            tier_table_area("extent table", tier_extents_v3(sb), sb.sb_extent_table_size),
            {"data area", sb.sb_block_area_offset,
             std::max(sb.sb_block_area_size, tier_multiply(sb.sb_block_cnt, sb.sb_block_size)),
             false}};
}

constexpr tier_layout LAYOUT_V3 = {
    .name = "v3",
    .version = ZUTR_VER_CODE_V3,
    .version_number = tier_number_at(offsetof(tier_super_block_v3_t, sb_version), 4),
    .version_value = TIER_SB_VERSION_V3,
    .tables = TABLES,
    .areas = areas,
};

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
    tier_register_layout(&LAYOUT_V3);
}

} // namespace
