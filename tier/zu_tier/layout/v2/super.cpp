#include "zu_tier/layout/v2/super.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/super_rules.h"
#include "zu_tier/layout/v2/inode.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>
#include <cstring>

namespace {

using super_v2 = tier_super_block_v2_t;

bool begins_with(const char *text, const char *beginning)
{
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

void __printf_super_v2(const super_v2 *sb, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: every caller has both */
    zutr_assert(sb != nullptr && fp != nullptr, "sb && fp");
    /* GCOVR_EXCL_BR_STOP */
    tier_print_super<TIER_SUPER_FIELDS_V2>(*sb, fp);
}

/* Negative errno, or not negative. */
int32_t __check_sb_params_v2(const super_v2 &sb)
{
    int32_t ret = tier_check_areas(__func__, sb);
    if (ret != 0) {
        return ret;
    }
    if (sb.sb_extent_size < TIER_EXTENT_SIZE_MIN || sb.sb_extent_size > TIER_EXTENT_SIZE_MAX ||
        sb.sb_total_extent_size > TIER_EXTENT_SIZE_MAX) {
        zutr_error(__func__,
                   "extent size(%u) is invalid. totoal extent_size:%u, expect size:[%lu-4096]",
                   sb.sb_extent_size, sb.sb_total_extent_size, uint64_t{TIER_EXTENT_SIZE_MIN});
        return -EINVAL;
    }
    ret = tier_check_extent_table(__func__, sb);
    if (ret != 0) {
        return ret;
    }
    if (sb.sb_min_alloc_size > sb.sb_block_size) {
        zutr_error(__func__, "min_alloc_size(%u) is invalid. block_size:%u", sb.sb_min_alloc_size,
                   sb.sb_block_size);
        return -EINVAL;
    }
    if (sb.sb_map_cnt > EXTENT_HOT_LEN ||
        sb.sb_total_map_size != uint64_t{sb.sb_size_mapped_meta} * sb.sb_map_cnt) {
        zutr_error(__func__, "map params is invalid. map_cnt:%u, map_size:%u, total_map_size:%u",
                   sb.sb_map_cnt, sb.sb_size_mapped_meta, sb.sb_total_map_size);
        return -EINVAL;
    }
    ret = tier_check_data_offset(__func__, sb);
    return ret == 0 ? tier_check_ssd_uuid(__func__, sb.sb_ssd_uuid) : ret;
}

int32_t __repair_super_exp_inode(const zutr_params_t *params, const cJSON *sb_cfg, super_v2 *sb)
{
    /* GCOVR_EXCL_START: the parser has them all */
    if (params == nullptr || params->fd < 0 || sb_cfg == nullptr || sb == nullptr) {
        return -EINVAL;
    }
    /* GCOVR_EXCL_STOP */
    const zutr_json_reader in(__func__, sb_cfg);
    tier_exp_config_v2 config = {};
    int32_t ret = in.read(TIER_EXP_CNT_KEY_V2, &config);
    if (ret != 0 || config.cnt == 0) {
        return ret;
    }
    ret = in.read(TIER_EXP_MAGIC_KEY_V2, &config);
    if (ret != 0) {
        return ret;
    }
    if (!begins_with(config.magic, "0x4558")) {
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
    ret = in.read(TIER_EXP_INUSE_KEY_V2, &config);
    if (ret != 0) {
        return ret;
    }
    sb->sb_inode_exp_inuse = begins_with(config.inuse, "0x53") ? TIER_EXP_INUSE_V2 : 0;
    sb->sb_inode_exp_area = static_cast<uint8_t>(config.cnt / TIER_EXP_UNIT_V2);
    sb->sb_inode_exp_magic = TIER_EXP_MAGIC_V2;
    return 0;
}

/* The map geometry: from the file, or for an older super block from the device. */
int32_t read_map_geometry(const zutr_json_reader &in, const zutr_params_t *params, super_v2 *sb)
{
    if (sb->sb_version == TIER_SB_VERSION_V2) {
        const int32_t ret = in.read(TIER_SUPER_MAP_KEYS_V2, sb);
        sb->sb_total_extent_size = sb->sb_extent_size + sb->sb_total_map_size + sb->sb_hot_size;
        return ret;
    }
    zutr_assert(sb->sb_version == TIER_OLD_VERSION, "sb->sb_version == TIER_OLD_VERSION");
    const int32_t ret = calc_super_block_v2(params->fd, sb);
    if (ret < 0) {
        zutr_error(in.func(), "convert super block failed:%ld", int64_t{ret});
        return -EINVAL;
    }
    sb->sb_version = TIER_SB_VERSION_V2;
    return 0;
}

int64_t parse_sb_from_json_v2(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    /* GCOVR_EXCL_BR_START: the repair driver has them all */
    zutr_assert(params != nullptr && sb_cfg != nullptr && m != nullptr, "params && sb_cfg && sb");
    /* GCOVR_EXCL_BR_STOP */
    const zutr_json_reader in(__func__, sb_cfg);
    auto *sb = static_cast<super_v2 *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V2;
    int32_t ret = tier_read_super_head(in, params->cmd, 0, sb);
    if (ret != 0) {
        return ret;
    }
    if (sb->sb_version != TIER_SB_VERSION_V2 && params->cmd != ZUTR_CMD_CONVERT_SUPER) {
        zutr_error(__func__, "version %u is invalid, cmd:%d", sb->sb_version, params->cmd);
        return -EINVAL;
    }
    if (__repair_super_exp_inode(params, sb_cfg, sb) != 0) {
        zutr_error(__func__, "repair super exp inode failed, cmd: %d", params->cmd);
        return -EINVAL;
    }
    ret = read_map_geometry(in, params, sb);
    if (ret == 0 && params->force == 0) {
        ret = __check_sb_params_v2(*sb);
    }
    if (ret < 0) {
        return ret;
    }
    sb->sb_checksum = zutr_record_crc(*sb);
    __printf_super_v2(sb, stdout);
    return TIER_SUPER_OFFSET;
}

} // namespace

int32_t __check_super_v2(const void *sb)
{
    return tier_check_super(__func__, "v2", *static_cast<const super_v2 *>(sb), TIER_SB_MAGIC_V2,
                            TIER_SB_VERSION_V2);
}

int32_t zutr_dump_super_v2(zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    return tier_dump_super(params, __check_super_v2, __printf_super_v2);
}

int32_t zutr_repair_super_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_sb_from_json_v2);
}

int32_t zutr_convert_super_v2(zutr_params_t *params)
{
    if (params == nullptr || params->repair_conf == nullptr || params->fd < 0) {
        return -EINVAL;
    }
    zutr_buffer block;
    const int64_t built = zutr_build_block(__func__, params, parse_sb_from_json_v2, true, &block);
    return built < 0 ? static_cast<int32_t>(built) : 0;
}

void tier_assert_super_v2(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v2, "!__check_super_v2(params->sb)");
}
