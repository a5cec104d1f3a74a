#include "zu_tier/layout/v3/super.h"

#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>

namespace {

using super_v3 = tier_super_block_v3_t;

/* The rule that ties the size of a table to its count. */
struct table_rule {
    const char *name;
    const char *size_name; /* in the message, which reuses one */
    uint64_t super_v3::*count;
    uint64_t super_v3::*size;
    uint32_t count_max;
    uint32_t entry_size;
    bool may_be_larger;

    bool holds(const super_v3 &sb) const
    {
        if (sb.*count < 1 || sb.*count > count_max) {
            return false;
        }
        const uint64_t needed = sb.*count * entry_size;
        return sb.*size == needed || (may_be_larger && sb.*size > needed);
    }
};

constexpr table_rule TABLE_RULES_V3[] = {
    {"brick", "brick_table_size", &super_v3::sb_brick_table_cnt, &super_v3::sb_brick_table_size,
     TIER_BRICK_CNT_MAX_V3, SIZE_4K, true},
    {"inode", "itable_size", &super_v3::sb_inode_table_cnt, &super_v3::sb_inode_table_size,
     TIER_INODE_CNT_MAX_V3, SIZE_4K, false},
    {"shard", "itable_size", &super_v3::sb_shard_table_cnt, &super_v3::sb_shard_table_size,
     TIER_SHARD_CNT_MAX_V3, TIER_PACKED_SIZE_V3, false},
    {"extent", "itable_size", &super_v3::sb_extent_table_cnt, &super_v3::sb_extent_table_size,
     TIER_EXTENT_CNT_MAX_V3, TIER_PACKED_SIZE_V3, false},
};

void __print_super_v3(const super_v3 *sb, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: every caller has both */
    zutr_assert(sb != nullptr && fp != nullptr, "sb && fp");
    /* GCOVR_EXCL_BR_STOP */
    tier_print_super<TIER_SUPER_FIELDS_V3>(*sb, fp);
}

/* Negative errno, or not negative. */
int32_t __check_sb_params_v3(const super_v3 &sb)
{
    if (sb.sb_sb_size != TIER_SB_AREA_SIZE_V3) {
        zutr_error(__func__, "sb size is invalid. expect:%u, real:%lu", TIER_SB_AREA_SIZE_V3,
                   sb.sb_sb_size);
        return -EINVAL;
    }
    if (sb.sb_block_size < TIER_BLOCK_SIZE_MIN_V3 || sb.sb_block_size > TIER_BLOCK_SIZE_MAX_V3 ||
        sb.sb_block_size % SIZE_4K != 0) {
        zutr_error(__func__,
                   "block size(%lu) is invalid. expect block_size:[%u-%u] and must 4k aligned",
                   sb.sb_block_size, TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3);
        return -EINVAL;
    }
    for (const table_rule &rule : TABLE_RULES_V3) {
        if (!rule.holds(sb)) {
            zutr_error(__func__, "%s params is invalid. %s_cnt:%lu, %s:%lu, expect %s_cnt:[%u-%u]",
                       rule.name, rule.name, sb.*rule.count, rule.size_name, sb.*rule.size,
                       rule.name, 1U, rule.count_max);
            return -EINVAL;
        }
    }
    if (sb.sb_block_area_size != sb.sb_block_size * sb.sb_block_cnt) {
        zutr_error(__func__, "data params is invalid. sb_block_size:%lu, sb_block_cnt:%lu",
                   sb.sb_block_size, sb.sb_block_cnt);
        return -EINVAL;
    }
    return tier_check_ssd_uuid(__func__, sb.sb_cdev_uuid);
}

int32_t read_super(const zutr_json_reader &in, zutr_cmd_t cmd, super_v3 *sb)
{
    int32_t ret = in.read(TIER_SUPER_AREA_KEYS_V3, sb);
    ret = ret == 0 ? tier_read_ctime(in, cmd, &sb->sb_ctime) : ret;
    ret = ret == 0 ? in.read(TIER_SUPER_IDENTITY_KEYS_V3, sb) : ret;
    ret = ret == 0 ? tier_read_version(in, cmd, TIER_SB_VERSION_V3, &sb->sb_version) : ret;
    return ret == 0 ? in.read(TIER_SUPER_TABLE_KEYS_V3, sb) : ret;
}

int64_t parse_sb_from_json_v3(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    /* GCOVR_EXCL_BR_START: the repair driver has them all */
    zutr_assert(params != nullptr && sb_cfg != nullptr && m != nullptr, "params && sb_cfg && sb");
    /* GCOVR_EXCL_BR_STOP */
    auto *sb = static_cast<super_v3 *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V3;
    int32_t ret = read_super({__func__, sb_cfg}, params->cmd, sb);
    if (ret == 0 && params->force == 0) {
        ret = __check_sb_params_v3(*sb);
    }
    if (ret < 0) {
        return ret;
    }
    sb->sb_checksum = zutr_record_crc(*sb);
    __print_super_v3(sb, stdout);
    return TIER_SUPER_OFFSET;
}

} // namespace

int32_t __check_super_v3(const void *sb)
{
    return tier_check_super(__func__, "v3", *static_cast<const super_v3 *>(sb), TIER_SB_MAGIC_V3,
                            TIER_SB_VERSION_V3);
}

int32_t zutr_dump_super_v3(zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    return tier_dump_super(params, __check_super_v3, __print_super_v3);
}

int32_t zutr_repair_super_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_sb_from_json_v3);
}

void tier_assert_super_v3(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v3, "!__check_super_v3(params->sb)");
}
