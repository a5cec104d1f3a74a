#include "zu_tier/layout/super.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v1/v1.h"

namespace {

using super_v1 = tier_super_block_v1_t;

constexpr auto KEYS = tier_super_keys<super_v1>(TIER_SB_VERSION_V1);

constexpr auto FIELDS =
    std::tuple_cat(TIER_SUPER_HEAD_FIELDS<super_v1>, KEYS,
                   std::tuple{zutr_field{"sb_reserved", &super_v1::sb_reserved}});

constexpr tier_rule RULES[] = {
    TIER_SUPER_SIZE_RULE<super_v1>,
    TIER_BRICKS_RULE<super_v1>,
    TIER_INODES_RULE<super_v1>,
    TIER_BLOCK_SIZE_RULE<super_v1>,
    tier_make_rule<super_v1>(
        {"bad_extent_size"}, [](const super_v1 &sb) { return tier_extent_size_holds(sb); },
        [](const char *func, const super_v1 &sb) {
            zutr_error(func, "extent size(%u) is invalid. expect size:[%lu-4096]",
                       sb.sb_extent_size, uint64_t{TIER_EXTENT_SIZE_MIN});
        },
        [](const super_v1 &sb, const tier_kind &kind, tier_findings &to) {
            tier_explain_extent_size(sb, kind, to);
        }),
    TIER_EXTENTS_RULE<super_v1>,
    TIER_DATA_OFFSET_RULE<super_v1>,
    TIER_SSD_UUID_RULE<super_v1, &super_v1::sb_ssd_uuid>,
};

uint32_t crc_super_v1(void *sb, uint32_t length) { return tier_crc(sb, length); }

void __print_super_v1(void *sb, const void * /*own*/, int64_t /*offset*/, FILE *fp)
{
    tier_print_super<FIELDS>(tier_super_v1(sb), fp);
}

int32_t __check_sb_params_v1(const void *new_sb)
{
    return tier_check_rules(__func__, RULES, new_sb);
}

int64_t parse_sb_from_json_v1(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    auto *sb = static_cast<super_v1 *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V1;
    zutr_json_reader in(__func__, sb_cfg, params->cmd);
    in.read(KEYS, sb);
    return tier_finish_super(in, TIER_SUPER_TABLE_V1, params, __check_sb_params_v1, sb);
}

} // namespace

constexpr tier_table TIER_SUPER_TABLE_V1 = tier_super_table<super_v1>(
    TIER_SB_MAGIC_V1, crc_super_v1, [] { return tier_make_columns(FIELDS); },
    [] { return tier_make_columns(KEYS); }, {parse_sb_from_json_v1, __print_super_v1}, RULES);

int32_t __check_super_v1(const void *sb)
{
    const super_v1 &super = tier_super_v1(sb);
    return tier_check_super(__func__, "v1", super, tier_crc(sb, sizeof(super)), TIER_SB_MAGIC_V1,
                            TIER_SB_VERSION_V1);
}

int32_t zutr_dump_super_v1(zutr_params_t *params)
{
    return tier_dump_super(params, __check_super_v1, __print_super_v1);
}

int32_t zutr_repair_super_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_SUPER_TABLE_V1.repair);
}

void tier_assert_super_v1(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v1, "!__check_super_v1(params->sb)");
}
