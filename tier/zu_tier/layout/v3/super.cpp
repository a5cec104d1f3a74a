#include "zu_tier/layout/super.h"

#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v3/v3.h"

namespace {

using super_v3 = tier_super_block_v3_t;

constexpr auto KEYS = std::tuple{
    zutr_key{"sb_offset", &super_v3::sb_sb_offset, zutr_to_u64},
    zutr_key{"super block size", &super_v3::sb_sb_size, zutr_to_u64},
    zutr_key{"reserved_offset", &super_v3::sb_reserved_offset, zutr_to_u64},
    zutr_key{"reserved_size", &super_v3::sb_reserved_size, zutr_to_u64},
    tier_ctime_key(&super_v3::sb_ctime),
    zutr_key{"uuid", &super_v3::sb_uuid},
    zutr_key{"ssd_uuid", &super_v3::sb_cdev_uuid},
    tier_version_key(&super_v3::sb_version, TIER_SB_VERSION_V3),
    zutr_key{"reserved", &super_v3::sb_reserved, zutr_to_s64},
    zutr_key{"brick_table_offset", &super_v3::sb_brick_table_offset, zutr_to_u64},
    zutr_key{"brick_table_size", &super_v3::sb_brick_table_size, zutr_to_u64},
    zutr_key{"brick_cnt", &super_v3::sb_brick_table_cnt, zutr_to_u64},
    zutr_key{"inode_table_offset", &super_v3::sb_inode_table_offset, zutr_to_u64},
    zutr_key{"inode_table_size", &super_v3::sb_inode_table_size, zutr_to_u64},
    zutr_key{"inode_cnt", &super_v3::sb_inode_table_cnt, zutr_to_u64},
    zutr_key{"shard_table_offset", &super_v3::sb_shard_table_offset, zutr_to_u64},
    zutr_key{"shard_table_size", &super_v3::sb_shard_table_size, zutr_to_u64},
    zutr_key{"shard_table_cnt", &super_v3::sb_shard_table_cnt, zutr_to_u64},
    zutr_key{"extent_table_offset", &super_v3::sb_extent_table_offset, zutr_to_u64},
    zutr_key{"extent_table_size", &super_v3::sb_extent_table_size, zutr_to_u64},
    zutr_key{"extent_table_cnt", &super_v3::sb_extent_table_cnt, zutr_to_u64},
    zutr_key{"hot_table_offset", &super_v3::sb_hot_table_offset, zutr_to_u64},
    zutr_key{"hot_table_size", &super_v3::sb_hot_table_size, zutr_to_u64},
    zutr_key{"data_offset", &super_v3::sb_block_area_offset, zutr_to_u64},
    zutr_key{"data_table_size", &super_v3::sb_block_area_size, zutr_to_u64},
    zutr_key{"block_size", &super_v3::sb_block_size, zutr_to_u64},
    zutr_key{"block_cnt", &super_v3::sb_block_cnt, zutr_to_u64},
};

constexpr auto FIELDS = std::tuple_cat(TIER_SUPER_HEAD_FIELDS<super_v3>, KEYS);

/* The limits that tie the size of a table to its count. */
struct table_limits {
    std::string_view kind; /* of the finding */
    const char *name;
    const char *size_name; /* in the message, which reuses one */
    uint64_t super_v3::*count;
    uint64_t super_v3::*size;
    uint32_t count_max;
    uint32_t entry_size;
    bool may_be_larger = false;
};

constexpr table_limits BRICKS = {"bad_brick_table",
                                 "brick",
                                 "brick_table_size",
                                 &super_v3::sb_brick_table_cnt,
                                 &super_v3::sb_brick_table_size,
                                 TIER_BRICK_CNT_MAX_V3,
                                 SIZE_4K,
                                 true};
constexpr table_limits INODES = {"bad_inode_table",
                                 "inode",
                                 "itable_size",
                                 &super_v3::sb_inode_table_cnt,
                                 &super_v3::sb_inode_table_size,
                                 TIER_INODE_CNT_MAX_V3,
                                 SIZE_4K};
constexpr table_limits SHARDS = {"bad_shard_table",
                                 "shard",
                                 "itable_size",
                                 &super_v3::sb_shard_table_cnt,
                                 &super_v3::sb_shard_table_size,
                                 TIER_SHARD_CNT_MAX_V3,
                                 TIER_PACKED_SIZE_V3};
constexpr table_limits EXTENTS = {"bad_extent_table",
                                  "extent",
                                  "itable_size",
                                  &super_v3::sb_extent_table_cnt,
                                  &super_v3::sb_extent_table_size,
                                  TIER_EXTENT_CNT_MAX_V3,
                                  TIER_PACKED_SIZE_V3};

template <const table_limits &Limits>
constexpr tier_rule TABLE_RULE = tier_make_rule<super_v3>(
    {Limits.kind},
    [](const super_v3 &sb) {
        const uint64_t count = sb.*Limits.count;
        const uint64_t needed = count * Limits.entry_size;
        if constexpr (Limits.may_be_larger) {
            return count >= 1 && count <= Limits.count_max && sb.*Limits.size >= needed;
        }
        return count >= 1 && count <= Limits.count_max && sb.*Limits.size == needed;
    },
    [](const char *func, const super_v3 &sb) {
        zutr_error(func, "%s params is invalid. %s_cnt:%lu, %s:%lu, expect %s_cnt:[%u-%u]",
                   Limits.name, Limits.name, sb.*Limits.count, Limits.size_name, sb.*Limits.size,
                   Limits.name, 1U, Limits.count_max);
    },
    [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
        tier_explain_table(kind, to, sb.*Limits.count, Limits.count_max, sb.*Limits.size,
                           Limits.may_be_larger ? "at least " : "",
                           tier_multiply(sb.*Limits.count, Limits.entry_size));
    });

/* Entries of a last block that the count does not fill are not reached. */
template <const table_limits &Limits>
constexpr tier_rule FULL_BLOCKS_RULE = tier_make_rule<super_v3>(
    {"entries_left_out", tier_severity::warning},
    [](const super_v3 &sb) { return sb.*Limits.count % TIER_PACKED_SLOTS_V3 == 0; }, nullptr,
    [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
        const uint64_t count = sb.*Limits.count;
        to.add(kind, "%lu %ss, which is odd: the last %lu do not fill a block and are left out",
               count, Limits.name, count % TIER_PACKED_SLOTS_V3);
    });

constexpr tier_rule RULES[] = {
    tier_make_rule<super_v3>(
        {"bad_super_block_size"},
        [](const super_v3 &sb) { return sb.sb_sb_size == TIER_SB_AREA_SIZE_V3; },
        [](const char *func, const super_v3 &sb) {
            zutr_error(func, "sb size is invalid. expect:%u, real:%lu", TIER_SB_AREA_SIZE_V3,
                       sb.sb_sb_size);
        },
        [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind, "the super block area has %lu bytes, expected %u", sb.sb_sb_size,
                   TIER_SB_AREA_SIZE_V3);
        }),
    tier_make_rule<super_v3>(
        {"bad_block_size"},
        [](const super_v3 &sb) {
            return sb.sb_block_size >= TIER_BLOCK_SIZE_MIN_V3 &&
                   sb.sb_block_size <= TIER_BLOCK_SIZE_MAX_V3 && sb.sb_block_size % SIZE_4K == 0;
        },
        [](const char *func, const super_v3 &sb) {
            zutr_error(func,
                       "block size(%lu) is invalid. expect block_size:[%u-%u] and must 4k aligned",
                       sb.sb_block_size, TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3);
        },
        [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
            tier_explain_block_size(kind, to, sb.sb_block_size, TIER_BLOCK_SIZE_MIN_V3,
                                    TIER_BLOCK_SIZE_MAX_V3);
        }),
    TABLE_RULE<BRICKS>,
    TABLE_RULE<INODES>,
    TABLE_RULE<SHARDS>,
    TABLE_RULE<EXTENTS>,
    tier_make_rule<super_v3>(
        {"bad_data_area"},
        [](const super_v3 &sb) {
            return sb.sb_block_area_size == sb.sb_block_size * sb.sb_block_cnt;
        },
        [](const char *func, const super_v3 &sb) {
            zutr_error(func, "data params is invalid. sb_block_size:%lu, sb_block_cnt:%lu",
                       sb.sb_block_size, sb.sb_block_cnt);
        },
        [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind, "the data area has %lu bytes, expected %lu blocks of %lu",
                   sb.sb_block_area_size, sb.sb_block_cnt, sb.sb_block_size);
        }),
    TIER_SSD_UUID_RULE<super_v3, &super_v3::sb_cdev_uuid>,

    /* Rules that the tool does not test. For a repair, a table from the shards on ends where the
     * next one begins. */
    tier_make_rule<super_v3>(
        {"areas_out_of_order"},
        [](const super_v3 &sb) {
            return sb.sb_shard_table_offset <= sb.sb_hot_table_offset &&
                   sb.sb_hot_table_offset <= sb.sb_extent_table_offset &&
                   sb.sb_extent_table_offset <= sb.sb_block_area_offset;
        },
        nullptr,
        [](const super_v3 &, const tier_kind &kind, tier_findings &to) {
            to.add(kind,
                   "shard table, hot table, extent table and data area are not in this order");
        }),
    tier_make_rule<super_v3>(
        {"bad_data_area"},
        [](const super_v3 &sb) {
            return tier_multiply(sb.sb_block_size, sb.sb_block_cnt) != TIER_PAST_ANY;
        },
        nullptr,
        [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind, "%lu blocks of %lu bytes reach past any offset", sb.sb_block_cnt,
                   sb.sb_block_size);
        }),
    tier_make_rule<super_v3>(
        {"odd_super_block_offset", tier_severity::warning},
        [](const super_v3 &sb) { return sb.sb_sb_offset == TIER_SUPER_OFFSET; }, nullptr,
        [](const super_v3 &sb, const tier_kind &kind, tier_findings &to) {
            to.add(kind,
                   "the super block area is said to begin at %lu, which is odd: it begins at %ld",
                   sb.sb_sb_offset, TIER_SUPER_OFFSET);
        }),
    FULL_BLOCKS_RULE<SHARDS>,
    FULL_BLOCKS_RULE<EXTENTS>,
};

uint32_t crc_super_v3(void *sb, uint32_t length)
{
    zutr_assert(sb != nullptr, "sb");
    return tier_crc(sb, length);
}

void __print_super_v3(void *sb, const void * /*own*/, int64_t /*offset*/, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: every caller has both */
    zutr_assert(sb != nullptr && fp != nullptr, "sb && fp");
    /* GCOVR_EXCL_BR_STOP */
    tier_print_super<FIELDS>(tier_super_v3(sb), fp);
}

int32_t __check_sb_params_v3(const void *new_sb)
{
    return tier_check_rules(__func__, RULES, new_sb);
}

int64_t parse_sb_from_json_v3(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    /* GCOVR_EXCL_BR_START: the repair driver has them all */
    zutr_assert(params != nullptr && sb_cfg != nullptr && m != nullptr, "params && sb_cfg && sb");
    /* GCOVR_EXCL_BR_STOP */
    auto *sb = static_cast<super_v3 *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V3;
    zutr_json_reader in(__func__, sb_cfg, params->cmd);
    in.read(KEYS, sb);
    return tier_finish_super(in, TIER_SUPER_TABLE_V3, params, __check_sb_params_v3, sb);
}

} // namespace

constexpr tier_table TIER_SUPER_TABLE_V3 = tier_super_table<super_v3>(
    TIER_SB_MAGIC_V3, crc_super_v3, [] { return tier_make_columns(FIELDS); },
    [] { return tier_make_columns(KEYS); }, {parse_sb_from_json_v3, __print_super_v3}, RULES);

int32_t __check_super_v3(const void *sb)
{
    const super_v3 &super = tier_super_v3(sb);
    return tier_check_super(__func__, "v3", super, tier_crc(sb, sizeof(super)), TIER_SB_MAGIC_V3,
                            TIER_SB_VERSION_V3);
}

int32_t zutr_dump_super_v3(zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    return tier_dump_super(params, __check_super_v3, __print_super_v3);
}

int32_t zutr_repair_super_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_SUPER_TABLE_V3.repair);
}

void tier_assert_super_v3(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v3, "!__check_super_v3(params->sb)");
}
