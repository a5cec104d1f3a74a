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
#include "zu_tier/tier_super_rules.h"
#include "zu_tier/zu_tier.h"

#include <cerrno>
#include <cstdlib>

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

int32_t __check_super_v1(const void *sb)
{
    return tier_check_super(__func__, "v1", *static_cast<const tier_super_block_v1_t *>(sb),
                            TIER_SB_MAGIC_V1, TIER_SB_VERSION_V1);
}

void __print_super_v1(const tier_super_block_v1_t *sb, FILE *fp)
{
    tier_print_super(*sb, SUPER_FIELDS_V1, fp);
}

int32_t zutr_dump_super_v1(zutr_params_t *params)
{
    return tier_dump_super(params, __check_super_v1, __print_super_v1);
}

/* Negative errno, or not negative. */
int32_t __check_sb_params_v1(const tier_super_block_v1_t &sb)
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
    auto *sb = static_cast<tier_super_block_v1_t *>(m);
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

int32_t zutr_repair_super_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_sb_from_json_v1);
}

void assert_super(const zutr_params_t *params)
{
    zutr_assert_super(params, __check_super_v1, "!__check_super_v1(params->sb)");
}

/* Brick table */

tier_brick_table brick_table(const zutr_params_t *params)
{
    return {TIER_BRICK_MAGIC_V1, tier_bricks(super_of(params)), zutr_need::optional};
}

int32_t __dump_brick_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_brick(__func__, brick_table(params), no, meta, delim, params);
}

int32_t zutr_dump_brick_v1(zutr_params_t *params)
{
    assert_super(params);
    return zutr_dump_table(params, "bi_no", tier_bricks(super_of(params)), __dump_brick_v1);
}

int64_t parse_brick_from_json_v1(zutr_params_t *params, const cJSON *brick_cfg, void *m)
{
    zutr_assert_parse(params, brick_cfg, m, "params && params->sb && brick_cfg && brick");
    return tier_parse_brick({__func__, brick_cfg}, brick_table(params),
                            static_cast<tier_brick_info_v1_t *>(m));
}

int32_t zutr_repair_brick_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_brick_from_json_v1);
}

/* Inode table */

constexpr auto INODE_FIELDS_V1 = std::tuple_cat(
    TIER_INODE_HEAD_FIELDS, std::tuple{zutr_field{"reserved1", &tier_inode_v1_t::i_reserved1},
                                       zutr_field{"reserved2", &tier_inode_v1_t::i_reserved2}});

void __print_inode_v1(const tier_inode_v1_t *inode, int64_t offset, FILE *fp)
{
    zutr_assert(inode != nullptr && fp != nullptr, "inode && fp");
    zutr_print_entry(*inode, INODE_FIELDS_V1, offset, fp);
}

void log_bad_inode(const char *func, const tier_inode_v1_t &inode, int32_t /*no*/, uint32_t crc)
{
    zutr_error(func, "inode no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.i_no,
               inode.i_magic, inode.i_checksum, crc);
}

int64_t inode_slot(const zutr_params_t *params, uint32_t no)
{
    return tier_inodes(super_of(params)).slot(no);
}

constexpr tier_inode_table INODE_TABLE_V1 = {TIER_INODE_MAGIC_V1, __print_inode_v1, log_bad_inode,
                                             inode_slot};

int32_t __dump_inode_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, INODE_TABLE_V1, no, meta, delim, params);
}

int32_t zutr_dump_inode_v1(zutr_params_t *params)
{
    assert_super(params);
    return zutr_dump_table(params, "no", tier_inodes(super_of(params)), __dump_inode_v1);
}

int64_t parse_inode_from_json_v1(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v1_t &sb = super_of(params);
    auto *inode = static_cast<tier_inode_v1_t *>(m);
    const int32_t ret = tier_read_inode({__func__, inode_cfg}, TIER_INODE_IN_USE_KEYS, inode);
    if (ret != 0) {
        return ret;
    }
    if (inode->i_no >= sb.sb_inode_cnt || inode->i_brick_no >= sb.sb_brick_cnt) {
        zutr_error(__func__, "i_no %u or brick_no %u is invalid, max i_cnt:%u, max b_cnt:%u",
                   inode->i_no, inode->i_brick_no, sb.sb_inode_cnt, sb.sb_brick_cnt);
        return -EINVAL;
    }
    return tier_finish_inode(__func__, INODE_TABLE_V1, params, inode);
}

int32_t zutr_repair_inode_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_inode_from_json_v1);
}

/* Extent table */

constexpr auto EXTENT_IN_USE_KEYS_V1 = std::tuple_cat(
    std::tuple{zutr_key{"te_block", &tier_extent_v1_t::te_block, zutr_to_s64},
               zutr_key{"te_size", &tier_extent_v1_t::te_size, zutr_to_u64}},
    TIER_EXTENT_OWNER_KEYS,
    std::tuple{
        zutr_key{"te_clean", &tier_extent_v1_t::te_clean, zutr_to_s32},
        zutr_key{"te_ntime", &tier_extent_v1_t::te_ntime, zutr_to_s64, zutr_need::optional},
        zutr_key{"te_hot", &tier_extent_v1_t::te_hot, zutr_to_u64, zutr_need::optional},
    });

/* A super block may be sealed and still name a record that does not fit its slot. */
int32_t check_extent_size(const char *func, const tier_super_block_v1_t &sb)
{
    return tier_check_size(func, "sb_extent_size", sb.sb_extent_size, TIER_EXTENT_SIZE_MIN,
                           TIER_EXTENT_SIZE_MAX);
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
    const size_t len = size_t{3} * (sb->sb_extent_size - TIER_EXTENT_SIZE_MIN) + 1;
    const zutr_owned<char[]> buff(static_cast<char *>(calloc(1, len)));
    zutr_assert(buff != nullptr, "buff");
    print_bitmap_v1(buff.get(), len, reinterpret_cast<const uint64_t *>(extent + 1),
                    sb->sb_extent_size);
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields(out, *extent, TIER_EXTENT_HEAD_FIELDS);
    out.put(",\"meta_offset\":");
    out.signed_decimal(offset);
    out.put(",\"te_bitmap\":\"");
    out.put(buff.get());
    out.put("\"}");
}

constexpr tier_extent_table<tier_super_block_v1_t> EXTENT_TABLE_V1 = {
    &tier_super_block_v1_t::sb_extent_size, __print_extent_v1};

int32_t __dump_extent_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_extent(__func__, EXTENT_TABLE_V1, no, meta, delim, params);
}

int32_t zutr_dump_extent_v1(zutr_params_t *params)
{
    assert_super(params);
    const int32_t ret = check_extent_size(__func__, super_of(params));
    if (ret != 0) {
        return ret;
    }
    return zutr_dump_table(params, "te_no", tier_extents(super_of(params)), __dump_extent_v1);
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
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && extent");
    const tier_super_block_v1_t &sb = super_of(params);
    const zutr_json_reader in(__func__, ext_cfg);
    auto *extent = static_cast<tier_extent_v1_t *>(m);
    int32_t ret = check_extent_size(__func__, sb);
    ret = ret == 0 ? in.read(TIER_EXTENT_KEYS, extent) : ret;
    if (ret == 0 && extent->te_use != 0) {
        ret = in.read(EXTENT_IN_USE_KEYS_V1, extent);
        extent->te_sampling_low = __builtin_bswap32(extent->te_sampling_low);
        ret = ret == 0 ? read_bitmap(in, tier_bitmap_words_v1(sb.sb_extent_size),
                                     reinterpret_cast<uint64_t *>(extent + 1))
                       : ret;
    }
    if (ret != 0) {
        return ret;
    }
    if (extent->te_reserved1 >= sb.sb_block_cnt || extent->te_inode_no >= sb.sb_inode_cnt) {
        tier_log_extent_numbers(__func__, sb, *extent);
        return -EINVAL;
    }
    return tier_finish_extent(__func__, EXTENT_TABLE_V1, sb, extent);
}

int32_t zutr_repair_extent_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_extent_from_json_v1);
}

/* Inode restore. No command of the command line names it. */

int32_t zutr_restore_inode_v1(zutr_params_t *params)
{
    assert_super(params);
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
    const int64_t offset = zutr_advance(tier_inodes(sb).start, distance);
    return tier_restore_inode({.func = __func__,
                               .inode_offset = offset,
                               .inode_magic = TIER_INODE_MAGIC_V1,
                               .extents = tier_extents(sb),
                               .extent_table_size = sb.sb_extent_table_size,
                               .extent_size = sb.sb_extent_size,
                               .failed_read_offset = offset,
                               .shows_write_offset = true},
                              params);
}

/* Indexed by zutr_cmd_t. */
constexpr zutr_cmd_map_t s_cmd_map = {
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
    return zutr_select(__check_super_v1, s_cmd_map, cmd, sb, func);
}

[[gnu::constructor]] void zutr_register_func_v1()
{
    zutr_func_register(ZUTR_VER_CODE_V1, zutr_func_selector_v1);
}

} // namespace
