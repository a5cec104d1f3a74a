#include "zu_tier/layout/super.h"

#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tier/layout/v2/v2.h"

#include <cerrno>
#include <string_view>

namespace {

using super_v2 = tier_super_block_v2_t;

uint64_t exp_inode_cnt(const void *sb) { return tier_exp_cnt_v2(tier_super_v2(sb)); }

/* A file of any version is read; the command decides which is allowed. */
constexpr auto KEYS = tier_super_keys<super_v2>(0);

/* Read from a description of a V2 super block, computed for an older one. */
constexpr auto MAP_KEYS = std::tuple{
    zutr_key{"min_alloc_size", &super_v2::sb_min_alloc_size, zutr_to_s64},
    zutr_key{"total_map_size", &super_v2::sb_total_map_size, zutr_to_s64},
    zutr_key{"map_cnt", &super_v2::sb_map_cnt, zutr_to_s64},
    zutr_key{"size_mapped_meta", &super_v2::sb_size_mapped_meta, zutr_to_s64},
    zutr_key{"hot_size", &super_v2::sb_hot_size, zutr_to_s64},
};

constexpr auto FIELDS = std::tuple_cat(
    TIER_SUPER_HEAD_FIELDS<super_v2>, KEYS,
    std::tuple{zutr_field{"exp_inode_magic", &super_v2::sb_inode_exp_magic, zutr_form::hex},
               zutr_computed<super_v2>{"exp_inode_cnt", exp_inode_cnt},
               zutr_field{"exp_inode_inuse", &super_v2::sb_inode_exp_inuse, zutr_form::hex},
               zutr_field{"sb_inode_exp_area", &super_v2::sb_inode_exp_area}},
    MAP_KEYS, std::tuple{zutr_field{"total_extent_size", &super_v2::sb_total_extent_size}});

/* The expansion area as a repair file gives it: not as it is stored. */
struct exp_config {
    uint32_t cnt;
    char magic[32];
    char inuse[32];
};
constexpr zutr_key EXP_CNT_KEY = {"exp_inode_cnt", &exp_config::cnt, zutr_to_s64,
                                  zutr_need::optional};
constexpr zutr_key EXP_MAGIC_KEY = {"exp_inode_magic", &exp_config::magic};
constexpr zutr_key EXP_INUSE_KEY = {"exp_inode_inuse", &exp_config::inuse};

/* The fields of the dump that a repair file repeats as shown. */
constexpr auto EXP_FIELDS = std::tuple{
    zutr_computed<super_v2>{EXP_CNT_KEY.key, exp_inode_cnt},
    zutr_field{EXP_MAGIC_KEY.key, &super_v2::sb_inode_exp_magic, zutr_form::hex},
    zutr_field{EXP_INUSE_KEY.key, &super_v2::sb_inode_exp_inuse, zutr_form::hex},
};

/* The bytes of all parts of an extent. */
uint64_t parts_length(const super_v2 &sb)
{
    return uint64_t{sb.sb_extent_size} + sb.sb_total_map_size + sb.sb_hot_size;
}

/* The bytes that the mapped pieces of an extent can hold. */
uint64_t mapped_bytes(const super_v2 &sb) { return uint64_t{sb.sb_map_cnt} * sb.sb_min_alloc_size; }

constexpr tier_rule RULES[] = {
    TIER_SUPER_SIZE_RULE<super_v2>,
    TIER_BRICKS_RULE<super_v2>,
    TIER_INODES_RULE<super_v2>,
    TIER_BLOCK_SIZE_RULE<super_v2>,
    tier_make_rule<super_v2>(
        {"bad_extent_size"},
        [](const super_v2 &sb) {
            return tier_extent_size_holds(sb) && sb.sb_total_extent_size <= TIER_EXTENT_SIZE_MAX;
        },
        [](const char *func, const super_v2 &sb) {
            zutr_error(func,
                       "extent size(%u) is invalid. totoal extent_size:%u, expect size:[%lu-4096]",
                       sb.sb_extent_size, sb.sb_total_extent_size, uint64_t{TIER_EXTENT_SIZE_MIN});
        },
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            if (!tier_extent_size_holds(sb)) {
                tier_explain_extent_size(sb, kind, to);
            }
            if (sb.sb_total_extent_size > TIER_EXTENT_SIZE_MAX) {
                to.add(kind, "extents have %u bytes in all, expected up to %u",
                       sb.sb_total_extent_size, TIER_EXTENT_SIZE_MAX);
            }
        }),
    TIER_EXTENTS_RULE<super_v2>,
    tier_make_rule<super_v2>(
        {"bad_min_alloc_size"},
        [](const super_v2 &sb) { return sb.sb_min_alloc_size <= sb.sb_block_size; },
        [](const char *func, const super_v2 &sb) {
            zutr_error(func, "min_alloc_size(%u) is invalid. block_size:%u", sb.sb_min_alloc_size,
                       sb.sb_block_size);
        },
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind, "mapped pieces are for %u bytes, expected up to the %u of a block",
                   sb.sb_min_alloc_size, sb.sb_block_size);
        }),
    tier_make_rule<super_v2>(
        {"bad_map"},
        [](const super_v2 &sb) {
            return sb.sb_map_cnt <= EXTENT_HOT_LEN &&
                   sb.sb_total_map_size == uint64_t{sb.sb_size_mapped_meta} * sb.sb_map_cnt;
        },
        [](const char *func, const super_v2 &sb) {
            zutr_error(func, "map params is invalid. map_cnt:%u, map_size:%u, total_map_size:%u",
                       sb.sb_map_cnt, sb.sb_size_mapped_meta, sb.sb_total_map_size);
        },
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind,
                   "an extent has %u mapped pieces of %u bytes in %u bytes, expected up to %u "
                   "pieces and the product",
                   sb.sb_map_cnt, sb.sb_size_mapped_meta, sb.sb_total_map_size, EXTENT_HOT_LEN);
        }),
    TIER_DATA_OFFSET_RULE<super_v2>,
    TIER_SSD_UUID_RULE<super_v2, &super_v2::sb_ssd_uuid>,

    /* Rules that the tool does not test. */
    tier_make_rule<super_v2>(
        {"odd_extent_length", tier_severity::warning},
        [](const super_v2 &sb) { return sb.sb_total_extent_size == parts_length(sb); }, nullptr,
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind, "extents have %u bytes in all, but their parts have %lu",
                   sb.sb_total_extent_size, parts_length(sb));
        }),
    tier_make_rule<super_v2>(
        {"odd_piece_size", tier_severity::warning},
        [](const super_v2 &sb) { return sb.sb_size_mapped_meta == sizeof(tier_mapped_meta_v2_t); },
        nullptr,
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind, "mapped pieces have %u bytes, not %zu: they are not checked",
                   sb.sb_size_mapped_meta, sizeof(tier_mapped_meta_v2_t));
        }),
    tier_make_rule<super_v2>(
        {"odd_expansion", tier_severity::warning},
        [](const super_v2 &sb) {
            const bool none = sb.sb_inode_exp_magic == 0;
            return none ? sb.sb_inode_exp_area == 0 && sb.sb_inode_exp_inuse == 0
                        : sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2 && sb.sb_inode_exp_area != 0 &&
                              (sb.sb_inode_exp_inuse == 0 ||
                               sb.sb_inode_exp_inuse == TIER_EXP_INUSE_V2);
        },
        nullptr,
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind,
                   "the expansion inode area has magic 0x%x, size %u and use 0x%x, expected 0x%x, "
                   "a size and 0x%x or 0, or three zeros",
                   sb.sb_inode_exp_magic, sb.sb_inode_exp_area, sb.sb_inode_exp_inuse,
                   TIER_EXP_MAGIC_V2, TIER_EXP_INUSE_V2);
        }),
    tier_make_rule<super_v2>(
        {"odd_map_count", tier_severity::warning},
        [](const super_v2 &sb) {
            const uint64_t mapped = mapped_bytes(sb);
            return mapped >= sb.sb_block_size && mapped - sb.sb_block_size < sb.sb_min_alloc_size;
        },
        nullptr,
        [](const super_v2 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind,
                   "%u mapped pieces for %u bytes each are for %lu bytes, which is odd: a block "
                   "has %u",
                   sb.sb_map_cnt, sb.sb_min_alloc_size, mapped_bytes(sb), sb.sb_block_size);
        }),
};

uint32_t crc_super_v2(void *sb, uint32_t length)
{
    zutr_assert(sb != nullptr, "sb");
    return tier_crc(sb, length);
}

void __printf_super_v2(void *sb, const void * /*own*/, int64_t /*offset*/, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: every caller has both */
    zutr_assert(sb != nullptr && fp != nullptr, "sb && fp");
    /* GCOVR_EXCL_BR_STOP */
    tier_print_super<FIELDS>(tier_super_v2(sb), fp);
}

int32_t __check_sb_params_v2(const void *new_sb)
{
    return tier_check_rules(__func__, RULES, new_sb);
}

int32_t __repair_super_exp_inode(const zutr_params_t *params, const cJSON *sb_cfg, super_v2 *sb)
{
    /* GCOVR_EXCL_START: the parser has them all */
    if (params == nullptr || params->fd < 0 || sb_cfg == nullptr || sb == nullptr) {
        return -EINVAL;
    }
    /* GCOVR_EXCL_STOP */
    zutr_json_reader in(__func__, sb_cfg);
    exp_config config = {};
    in.read(EXP_CNT_KEY, &config);
    if (in.failed() || config.cnt == 0) {
        return in.failed() ? -EINVAL : 0;
    }
    in.read(EXP_MAGIC_KEY, &config);
    if (in.failed()) {
        return -EINVAL;
    }
    if (!std::string_view(config.magic).starts_with("0x4558")) {
        sb->sb_inode_exp_area = 0;
        sb->sb_inode_exp_magic = 0;
        sb->sb_inode_exp_inuse = 0;
        return 0;
    }
    if (__check_exp_inode_formated(sb, params->fd, config.cnt) != 0) {
        zutr_error(__func__, "exp check inode format failed, exp_inode_size: %d cmd: %d",
                   static_cast<int32_t>(config.cnt), params->cmd);
        return -EINVAL;
    }
    in.read(EXP_INUSE_KEY, &config);
    sb->sb_inode_exp_inuse =
        std::string_view(config.inuse).starts_with("0x53") ? TIER_EXP_INUSE_V2 : 0;
    sb->sb_inode_exp_area = static_cast<uint8_t>(config.cnt / TIER_EXP_UNIT_V2);
    sb->sb_inode_exp_magic = TIER_EXP_MAGIC_V2;
    return in.failed() ? -EINVAL : 0;
}

/* The map geometry: from the file, or for an older super block from the device. */
void read_map_geometry(zutr_json_reader &in, const zutr_params_t *params, super_v2 *sb)
{
    if (sb->sb_version == TIER_SB_VERSION_V2) {
        in.read(MAP_KEYS, sb);
        sb->sb_total_extent_size = sb->sb_extent_size + sb->sb_total_map_size + sb->sb_hot_size;
        return;
    }
    zutr_assert(sb->sb_version == TIER_OLD_VERSION, "sb->sb_version == TIER_OLD_VERSION");
    const int32_t ret = calc_super_block_v2(params->fd, sb);
    if (ret < 0) {
        in.refuse(in.func(), "convert super block failed:%ld", int64_t{ret});
    }
    sb->sb_version = TIER_SB_VERSION_V2;
}

int64_t parse_sb_from_json_v2(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    /* GCOVR_EXCL_BR_START: the repair driver has them all */
    zutr_assert(params != nullptr && sb_cfg != nullptr && m != nullptr, "params && sb_cfg && sb");
    /* GCOVR_EXCL_BR_STOP */
    zutr_json_reader in(__func__, sb_cfg, params->cmd);
    auto *sb = static_cast<super_v2 *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V2;
    in.read(KEYS, sb);
    if (sb->sb_version != TIER_SB_VERSION_V2 && params->cmd != ZUTR_CMD_CONVERT_SUPER) {
        in.refuse(__func__, "version %u is invalid, cmd:%d", sb->sb_version, params->cmd);
    }
    if (!in.failed() && __repair_super_exp_inode(params, sb_cfg, sb) != 0) {
        in.refuse(__func__, "repair super exp inode failed, cmd: %d", params->cmd);
    }
    if (!in.failed()) {
        read_map_geometry(in, params, sb);
    }
    return tier_finish_super(in, TIER_SUPER_TABLE_V2, params, __check_sb_params_v2, sb);
}

} // namespace

constexpr tier_table TIER_SUPER_TABLE_V2 = tier_super_table<super_v2>(
    TIER_SB_MAGIC_V2, crc_super_v2, [] { return tier_make_columns(FIELDS); },
    [] { return tier_make_columns(std::tuple_cat(KEYS, EXP_FIELDS, MAP_KEYS)); },
    {parse_sb_from_json_v2, __printf_super_v2}, RULES);

int32_t __check_super_v2(const void *sb)
{
    const super_v2 &super = tier_super_v2(sb);
    return tier_check_super(__func__, "v2", super, tier_crc(sb, sizeof(super)), TIER_SB_MAGIC_V2,
                            TIER_SB_VERSION_V2);
}

int32_t zutr_dump_super_v2(zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    return tier_dump_super(params, __check_super_v2, __printf_super_v2);
}

int32_t zutr_repair_super_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_SUPER_TABLE_V2.repair);
}

int32_t zutr_convert_super_v2(zutr_params_t *params)
{
    if (params == nullptr || params->repair_conf == nullptr || params->fd < 0) {
        return -EINVAL;
    }
    zutr_buffer block;
    const int64_t built =
        zutr_build_block(__func__, params, TIER_SUPER_TABLE_V2.repair, true, &block);
    return built < 0 ? static_cast<int32_t>(built) : 0;
}

void tier_assert_super_v2(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v2, "!__check_super_v2(params->sb)");
}
