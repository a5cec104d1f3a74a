#include "zu_tier/layout/v1/super.h"

#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/super_rules.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>

namespace {

using super_v1 = tier_super_block_v1_t;

void __print_super_v1(const super_v1 *sb, FILE *fp)
{
    tier_print_super<TIER_SUPER_FIELDS_V1>(*sb, fp);
}

/* Negative errno, or not negative. */
int32_t __check_sb_params_v1(const super_v1 &sb)
{
    int32_t ret = tier_check_areas(__func__, sb);
    if (ret != 0) {
        return ret;
    }
    if (sb.sb_extent_size < TIER_EXTENT_SIZE_MIN || sb.sb_extent_size > TIER_EXTENT_SIZE_MAX) {
        zutr_error(__func__, "extent size(%u) is invalid. expect size:[%lu-4096]",
                   sb.sb_extent_size, uint64_t{TIER_EXTENT_SIZE_MIN});
        return -EINVAL;
    }
    ret = tier_check_extent_table(__func__, sb);
    ret = ret == 0 ? tier_check_data_offset(__func__, sb) : ret;
    return ret == 0 ? tier_check_ssd_uuid(__func__, sb.sb_ssd_uuid) : ret;
}

int64_t parse_sb_from_json_v1(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    auto *sb = static_cast<super_v1 *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V1;
    int32_t ret = tier_read_super_head({__func__, sb_cfg}, params->cmd, TIER_SB_VERSION_V1, sb);
    if (ret == 0 && params->force == 0) {
        ret = __check_sb_params_v1(*sb);
    }
    if (ret < 0) {
        return ret;
    }
    sb->sb_checksum = zutr_record_crc(*sb);
    __print_super_v1(sb, stdout);
    return TIER_SUPER_OFFSET;
}

} // namespace

int32_t __check_super_v1(const void *sb)
{
    return tier_check_super(__func__, "v1", *static_cast<const super_v1 *>(sb), TIER_SB_MAGIC_V1,
                            TIER_SB_VERSION_V1);
}

int32_t zutr_dump_super_v1(zutr_params_t *params)
{
    return tier_dump_super(params, __check_super_v1, __print_super_v1);
}

int32_t zutr_repair_super_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_sb_from_json_v1);
}

void tier_assert_super_v1(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v1, "!__check_super_v1(params->sb)");
}
