#include "common/zutr_assert.h"
#include "zu_tier/tier_brick.h"
#include "zu_tier/tier_dump_driver.h"
#include "zu_tier/tier_extent.h"
#include "zu_tier/tier_format_v1.h"
#include "zu_tier/tier_inode.h"
#include "zu_tier/tier_json.h"
#include "zu_tier/tier_log.h"
#include "zu_tier/tier_record.h"
#include "zu_tier/tier_repair_driver.h"
#include "zu_tier/tier_restore.h"
#include "zu_tier/tier_super.h"
#include "zu_tier/zu_tier.h"

#include <array>
#include <cerrno>
#include <cstring>

/* Layout V1: its checks, its tables, its command map, its selector. */

namespace {

const tier_super_block_v1_t &super_of(const zutr_params_t *params)
{
    return *static_cast<const tier_super_block_v1_t *>(params->sb);
}

/* Super block */

constexpr auto SUPER_FIELDS_V1 =
    std::tuple_cat(TIER_SUPER_HEAD_FIELDS<tier_super_block_v1_t>,
                   std::tuple{zutr_field{"sb_reserved", &tier_super_block_v1_t::sb_reserved}});

uint32_t crc_super_v1(const tier_super_block_v1_t *sb)
{
    return zutr_record_crc(*sb);
}

int32_t __check_super_v1(const void *image)
{
    const auto *sb = static_cast<const tier_super_block_v1_t *>(image);
    const uint32_t crc = crc_super_v1(sb);
    if (sb->sb_magic == TIER_SB_MAGIC_V1 && sb->sb_version == TIER_SB_VERSION_V1 &&
        sb->sb_checksum == crc) {
        return 0;
    }
    zutr_debug(__func__, "v1 check super block failed. magic:0x%x, ver:0x%x, cksum:0x%x:0x%x",
               sb->sb_magic, sb->sb_version, sb->sb_checksum, crc);
    return -EFAULT;
}

void __print_super_v1(const tier_super_block_v1_t *sb, FILE *fp)
{
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields(out, *sb, SUPER_FIELDS_V1);
    out.put("}");
}

int32_t zutr_dump_super_v1(zutr_params_t *params)
{
    if (params->sb == nullptr || params->out_fp == nullptr) {
        return -EINVAL;
    }
    const int32_t ret = __check_super_v1(params->sb);
    if (ret != 0) {
        return ret;
    }
    __print_super_v1(&super_of(params), params->out_fp);
    return 0;
}

/* The rules that tie a super block's sizes together. Negative errno, or not negative. */
int32_t __check_sb_params_v1(const tier_super_block_v1_t *new_sb)
{
    const tier_super_block_v1_t &sb = *new_sb;
    if (sb.sb_size != TIER_SB_SIZE_V1) {
        zutr_error(__func__, "sb size is invalid. expect:%u, real:%u", TIER_SB_SIZE_V1, sb.sb_size);
        return -EINVAL;
    }
    if (sb.sb_brick_cnt < 1 || sb.sb_brick_cnt > TIER_BRICK_CNT_MAX_V1 ||
        sb.sb_brick_table_size != uint64_t{sb.sb_brick_cnt} * SIZE_4K) {
        zutr_error(__func__,
                   "brick params is invalid. brick_cnt:%u, brick_table_size:%lu, "
                   "expect brick_cnt:[%u-%u]",
                   sb.sb_brick_cnt, sb.sb_brick_table_size, 1U, TIER_BRICK_CNT_MAX_V1);
        return -EINVAL;
    }
    if (sb.sb_inode_cnt < 1 || sb.sb_inode_cnt > TIER_INODE_CNT_MAX_V1 ||
        sb.sb_inode_table_size != tier_inode_table_size_v1(sb)) {
        zutr_error(__func__,
                   "inode params is invalid. inode_cnt:%u, itable_size:%lu, "
                   "expect inode_cnt:[%u-%u]",
                   sb.sb_inode_cnt, sb.sb_inode_table_size, 1U, TIER_INODE_CNT_MAX_V1);
        return -EINVAL;
    }
    if (sb.sb_block_size < TIER_BLOCK_SIZE_MIN_V1 || sb.sb_block_size > TIER_BLOCK_SIZE_MAX_V1 ||
        sb.sb_block_size % SIZE_4K != 0) {
        zutr_error(__func__,
                   "block size(%u) is invalid. expect block_size:[%u-%u] and must 4k aligned",
                   sb.sb_block_size, TIER_BLOCK_SIZE_MIN_V1, TIER_BLOCK_SIZE_MAX_V1);
        return -EINVAL;
    }
    if (sb.sb_extent_size < TIER_EXTENT_SIZE_MIN_V1 ||
        sb.sb_extent_size > TIER_EXTENT_SIZE_MAX_V1) {
        zutr_error(__func__, "extent size(%u) is invalid. expect size:[%lu-4096]",
                   sb.sb_extent_size, uint64_t{TIER_EXTENT_SIZE_MIN_V1});
        return -EINVAL;
    }
    if (sb.sb_extent_table_size != uint64_t{sb.sb_block_cnt} * SIZE_4K) {
        zutr_error(__func__, "extent table size(%lu) is invalid. block_cnt:%u",
                   sb.sb_extent_table_size, sb.sb_block_cnt);
        return -EINVAL;
    }
    if (sb.sb_data_offset != tier_data_offset_v1(sb)) {
        zutr_error(__func__, "data offset(%lu) is invalid. expect:%lu", sb.sb_data_offset,
                   tier_data_offset_v1(sb));
        return -EINVAL;
    }
    return tier_check_ssd_uuid(__func__, sb.sb_ssd_uuid);
}

int32_t read_super_keys(const zutr_json_reader &in, zutr_cmd_t cmd, tier_super_block_v1_t *sb)
{
    int32_t ret = in.read(TIER_SUPER_SIZE_KEYS<tier_super_block_v1_t>, sb);
    ret = ret == 0 ? tier_read_ctime(in, cmd, &sb->sb_ctime) : ret;
    ret = ret == 0 ? in.read(TIER_SUPER_IDENTITY_KEYS<tier_super_block_v1_t>, sb) : ret;
    ret = ret == 0 ? tier_read_version(in, cmd, TIER_SB_VERSION_V1, &sb->sb_version) : ret;
    return ret == 0 ? in.read(TIER_SUPER_COUNT_KEYS<tier_super_block_v1_t>, sb) : ret;
}

int64_t parse_sb_from_json_v1(zutr_params_t *params, const cJSON *sb_cfg, void *m)
{
    auto *sb = static_cast<tier_super_block_v1_t *>(m);
    sb->sb_magic = TIER_SB_MAGIC_V1;
    int32_t ret = read_super_keys({__func__, sb_cfg}, params->cmd, sb);
    if (ret == 0 && params->force == 0) {
        ret = __check_sb_params_v1(sb);
    }
    if (ret < 0) {
        return ret;
    }
    sb->sb_checksum = crc_super_v1(sb);
    __print_super_v1(sb, stdout);
    return TIER_SUPER_OFFSET;
}

int32_t zutr_repair_super_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_sb_from_json_v1);
}

/* What every command that walks or fills a table relies on. */
void assert_dump_params(const zutr_params_t *params)
{
    zutr_assert(params != nullptr && params->sb != nullptr && params->fd >= 0,
                "params && params->sb && params->fd >= 0");
    zutr_assert(__check_super_v1(params->sb) == 0, "!__check_super_v1(params->sb)");
}

int32_t dump_table(zutr_params_t *params, const char *meta_type, const tier_region &region,
                   meta_format_func_t format_func)
{
    return zutr_dump_common(params, meta_type, region.start, static_cast<int32_t>(region.count),
                            format_func);
}

/* Brick table */

tier_brick_table brick_table(const zutr_params_t *params)
{
    return {TIER_BRICK_MAGIC_V1, tier_bricks_v1(super_of(params)), zutr_need::optional};
}

int32_t __dump_brick_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert(no >= 0 && meta != nullptr && delim != nullptr && params != nullptr,
                "no >= 0 && meta && delim && params");
    return tier_dump_brick(__func__, brick_table(params), no, meta, delim, params);
}

int32_t zutr_dump_brick_v1(zutr_params_t *params)
{
    assert_dump_params(params);
    return dump_table(params, "bi_no", tier_bricks_v1(super_of(params)), __dump_brick_v1);
}

int64_t parse_brick_from_json_v1(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    auto *brick = static_cast<tier_brick_info_v1_t *>(m);
    zutr_assert(params != nullptr && params->sb != nullptr && brick_cfg != nullptr &&
                    brick != nullptr,
                "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, brick_table(params), brick);
}

int32_t zutr_repair_brick_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_brick_from_json_v1);
}

/* Inode table */

constexpr auto INODE_FIELDS_V1 =
    std::tuple_cat(TIER_INODE_HEAD_FIELDS<tier_inode_v1_t>,
                   std::tuple{zutr_field{"reserved1", &tier_inode_v1_t::i_reserved1},
                              zutr_field{"reserved2", &tier_inode_v1_t::i_reserved2}});

uint32_t crc_inode_v1(const tier_inode_v1_t *inode)
{
    return zutr_record_crc(*inode);
}

void __print_inode_v1(const tier_inode_v1_t *inode, int64_t offset, FILE *fp)
{
    zutr_assert(inode != nullptr && fp != nullptr, "inode && fp");
    zutr_print_entry(*inode, INODE_FIELDS_V1, offset, fp);
}

int32_t __dump_inode_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert(no >= 0 && meta != nullptr && delim != nullptr && params != nullptr,
                "no >= 0 && meta && delim && params");
    const auto *inode = static_cast<const tier_inode_v1_t *>(meta);
    const uint32_t crc = crc_inode_v1(inode);
    if (!tier_inode_is_sound(*inode, TIER_INODE_MAGIC_V1, no, crc)) {
        zutr_error(__func__, "inode no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode->i_no,
                   inode->i_magic, inode->i_checksum, crc);
        __print_inode_v1(inode, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!tier_inode_passes(params->filter, *inode)) {
        tier_log_ignored_inode(__func__, no, *inode);
        return 1;
    }
    zutr_text(params->out_fp).put(delim);
    __print_inode_v1(inode, tier_inodes_v1(super_of(params)).slot(inode->i_no), params->out_fp);
    return 0;
}

int32_t zutr_dump_inode_v1(zutr_params_t *params)
{
    assert_dump_params(params);
    return dump_table(params, "no", tier_inodes_v1(super_of(params)), __dump_inode_v1);
}

int64_t parse_inode_from_json_v1(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    auto *inode = static_cast<tier_inode_v1_t *>(m);
    zutr_assert(params != nullptr && params->sb != nullptr && inode_cfg != nullptr &&
                    inode != nullptr,
                "params && params->sb && inode_cfg && inode");
    const zutr_json_reader in(__func__, inode_cfg);
    inode->i_magic = TIER_INODE_MAGIC_V1;
    int32_t ret = in.read(TIER_INODE_KEYS<tier_inode_v1_t>, inode);
    if (ret == 0 && inode->i_use != 0) {
        ret = in.read(TIER_INODE_IN_USE_KEYS<tier_inode_v1_t>, inode);
    }
    if (ret != 0) {
        return ret;
    }
    const tier_super_block_v1_t &sb = super_of(params);
    if (inode->i_no >= sb.sb_inode_cnt || inode->i_brick_no >= sb.sb_brick_cnt) {
        zutr_error(__func__, "i_no %u or brick_no %u is invalid, max i_cnt:%u, max b_cnt:%u",
                   inode->i_no, inode->i_brick_no, sb.sb_inode_cnt, sb.sb_brick_cnt);
        return -EINVAL;
    }
    inode->i_checksum = crc_inode_v1(inode);
    const int64_t offset = tier_inodes_v1(sb).slot(inode->i_no);
    __print_inode_v1(inode, offset, stdout);
    return offset;
}

int32_t zutr_repair_inode_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_inode_from_json_v1);
}

/* Extent table */

constexpr auto EXTENT_IN_USE_KEYS_V1 = std::tuple{
    zutr_key{"te_block", &tier_extent_v1_t::te_block, zutr_to_s64},
    zutr_key{"te_size", &tier_extent_v1_t::te_size, zutr_to_u64},
    zutr_key{"te_inode_no", &tier_extent_v1_t::te_inode_no, zutr_to_s64},
    zutr_key{"te_sampling_low", &tier_extent_v1_t::te_sampling_low, zutr_to_s64},
    zutr_key{"te_sampling_mid", &tier_extent_v1_t::te_sampling_mid, zutr_to_s64,
             zutr_need::optional},
    zutr_key{"te_sampling_high", &tier_extent_v1_t::te_sampling_high, zutr_to_s64,
             zutr_need::optional},
    zutr_key{"te_clean", &tier_extent_v1_t::te_clean, zutr_to_s32},
    zutr_key{"te_ntime", &tier_extent_v1_t::te_ntime, zutr_to_s64, zutr_need::optional},
    zutr_key{"te_hot", &tier_extent_v1_t::te_hot, zutr_to_u64, zutr_need::optional},
};

/* A super block may be sealed and still name a record that does not fit its slot. */
int32_t check_extent_size(const char *func, const tier_super_block_v1_t &sb)
{
    if (sb.sb_extent_size < TIER_EXTENT_SIZE_MIN_V1 ||
        sb.sb_extent_size > TIER_EXTENT_SIZE_MAX_V1) {
        zutr_error(func, "sb_extent_size %u is invalid, expect:[%u-%u]", sb.sb_extent_size,
                   TIER_EXTENT_SIZE_MIN_V1, TIER_EXTENT_SIZE_MAX_V1);
        return -EFAULT;
    }
    return 0;
}

uint64_t *bitmap_of(tier_extent_v1_t *extent)
{
    return reinterpret_cast<uint64_t *>(extent + 1);
}

const uint64_t *bitmap_of(const tier_extent_v1_t *extent)
{
    return reinterpret_cast<const uint64_t *>(extent + 1);
}

uint32_t crc_extent_v1(const tier_extent_v1_t *ex, uint32_t ex_size)
{
    zutr_assert(ex != nullptr && ex_size != 0, "ex && ex_size");
    return tier_extent_crc(ex, ex_size);
}

/* The bitmap of an extent of `size` bytes as hexadecimal words, each with a blank behind it, as far
 * as they fit into the `len` bytes at `buf`. */
void print_bitmap_v1(char *buf, size_t len, const uint64_t *bitmap, uint32_t size)
{
    size_t used = 0;
    for (uint32_t i = 0; i < tier_bitmap_words_v1(size); i++) {
        const int put = snprintf(buf + used, len - used, "0x%016lx ", bitmap[i]);
        if (put <= 0 || used + static_cast<size_t>(put) >= len) {
            break;
        }
        used += static_cast<size_t>(put);
    }
}

void __print_extent_v1(const tier_extent_v1_t *extent, const tier_super_block_v1_t *sb,
                       int64_t offset, FILE *fp)
{
    zutr_assert(extent != nullptr && sb != nullptr && fp != nullptr, "extent && sb && fp");
    /* Three characters for each byte hold the 19 of each word; one more ends an empty text. */
    const size_t len = size_t{3} * (sb->sb_extent_size - TIER_EXTENT_SIZE_MIN_V1) + 1;
    const zutr_owned<char[]> buff(static_cast<char *>(calloc(1, len)));
    zutr_assert(buff != nullptr, "buff");
    print_bitmap_v1(buff.get(), len, bitmap_of(extent), sb->sb_extent_size);
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields(out, *extent, TIER_EXTENT_HEAD_FIELDS<tier_extent_v1_t>);
    out.put(",\"meta_offset\":");
    out.signed_decimal(offset);
    out.put(",\"te_bitmap\":\"");
    out.put(buff.get());
    out.put("\"}");
}

int32_t __dump_extent_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert(no >= 0 && meta != nullptr && delim != nullptr && params != nullptr,
                "no >= 0 && meta && delim && params");
    const tier_super_block_v1_t &sb = super_of(params);
    const auto *extent = static_cast<const tier_extent_v1_t *>(meta);
    const uint32_t crc = crc_extent_v1(extent, sb.sb_extent_size);
    if (!tier_extent_is_sound(*extent, no, crc)) {
        tier_log_bad_extent(__func__, *extent, crc);
        __print_extent_v1(extent, &sb, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!tier_extent_passes(params->filter, *extent)) {
        tier_log_ignored_extent(__func__, no, *extent);
        return 1;
    }
    zutr_text(params->out_fp).put(delim);
    __print_extent_v1(extent, &sb, tier_extents_v1(sb).slot(extent->te_reserved1), params->out_fp);
    return 0;
}

int32_t zutr_dump_extent_v1(zutr_params_t *params)
{
    assert_dump_params(params);
    const int32_t ret = check_extent_size(__func__, super_of(params));
    if (ret != 0) {
        return ret;
    }
    return dump_table(params, "te_no", tier_extents_v1(super_of(params)), __dump_extent_v1);
}

/* "te_bitmap": exactly `words` numbers, the first of which goes to `bitmap`. */
int32_t read_bitmap(const zutr_json_reader &in, uint32_t words, uint64_t *bitmap)
{
    const cJSON *array = cJSON_GetObjectItem(in.object(), "te_bitmap");
    const auto cnt = static_cast<int32_t>(words);
    if (!cJSON_IsArray(array) || cJSON_GetArraySize(array) != cnt) {
        zutr_error(in.func(), "te_bitmap is invalid. bitmap:%p, cnt:%d",
                   static_cast<const void *>(array), cnt);
        return -EINVAL;
    }
    int32_t i = 0;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, array)
    {
        if (!cJSON_IsNumber(item)) {
            zutr_error(in.func(), "te_bitmap index %d is invalid, value:%p", i,
                       static_cast<const void *>(item));
            return -EINVAL;
        }
        bitmap[i++] = zutr_to_u64(zutr_json_number(item));
    }
    return 0;
}

int64_t parse_extent_from_json_v1(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    auto *extent = static_cast<tier_extent_v1_t *>(m);
    zutr_assert(params != nullptr && params->sb != nullptr && ext_cfg != nullptr &&
                    extent != nullptr,
                "params && params->sb && ext_cfg && extent");
    const tier_super_block_v1_t &sb = super_of(params);
    const zutr_json_reader in(__func__, ext_cfg);
    int32_t ret = check_extent_size(__func__, sb);
    ret = ret == 0 ? in.read(TIER_EXTENT_KEYS<tier_extent_v1_t>, extent) : ret;
    if (ret == 0 && extent->te_use != 0) {
        ret = in.read(EXTENT_IN_USE_KEYS_V1, extent);
        extent->te_sampling_low = __builtin_bswap32(extent->te_sampling_low);
        ret = ret == 0 ? read_bitmap(in, tier_bitmap_words_v1(sb.sb_extent_size), bitmap_of(extent))
                       : ret;
    }
    if (ret != 0) {
        return ret;
    }
    if (extent->te_reserved1 >= sb.sb_block_cnt || extent->te_inode_no >= sb.sb_inode_cnt) {
        zutr_error(__func__, "te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u",
                   extent->te_reserved1, extent->te_inode_no, sb.sb_block_cnt, sb.sb_inode_cnt);
        return -EINVAL;
    }
    extent->te_checksum = crc_extent_v1(extent, sb.sb_extent_size);
    const int64_t offset = tier_extents_v1(sb).slot(extent->te_reserved1);
    __print_extent_v1(extent, &sb, offset, stdout);
    return offset;
}

int32_t zutr_repair_extent_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_extent_from_json_v1);
}

/* Inode restore. No command of the command line names it. */

int32_t zutr_restore_inode_v1(zutr_params_t *params)
{
    assert_dump_params(params);
    const tier_super_block_v1_t &sb = super_of(params);
    if (params->meta_no < 0 || static_cast<uint32_t>(params->meta_no) >= sb.sb_inode_cnt) {
        zutr_error(__func__, "invalid inode no %d max inode cnt:%d", params->meta_no,
                   static_cast<int32_t>(sb.sb_inode_cnt));
        return -EINVAL;
    }
    int32_t ret = check_extent_size(__func__, sb);
    if (ret != 0) {
        return ret;
    }
    /* The distance into the table is a 32-bit product. */
    const auto distance = static_cast<int32_t>(static_cast<uint32_t>(params->meta_no) * SIZE_4K);
    return tier_restore_inode<tier_inode_v1_t, tier_extent_v1_t>(
        {__func__, zutr_advance(tier_inodes_v1(sb).start, distance), TIER_INODE_MAGIC_V1,
         tier_extents_v1(sb), sb.sb_extent_table_size, sb.sb_extent_size},
        params);
}

/* Indexed by zutr_cmd_t. */
constexpr std::array<zutr_cmd_func_t, ZUTR_CMD_MAXVALUE> s_cmd_map = {
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
    if (sb != nullptr) {
        const int32_t ret = __check_super_v1(sb);
        if (ret < 0) {
            return ret;
        }
    }
    zutr_assert(ZUTR_CMD_VALID(cmd), "ZUTR_CMD_VALID(cmd)");
    *func = s_cmd_map.at(static_cast<size_t>(cmd));
    return 0;
}

[[gnu::constructor]] void zutr_register_func_v1()
{
    zutr_func_register(ZUTR_VER_CODE_V1, zutr_func_selector_v1);
}

} // namespace
