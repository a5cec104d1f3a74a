#include "zu_tier/layout/v1/extent.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/v1/super.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace {

/* Memory for the text of a bitmap, kept from one extent to the next. */
constinit zutr_owned<char[]> s_bitmap_buff;

int32_t check_extent_size(const char *func, const tier_super_block_v1_t &sb)
{
    return tier_check_record_size(func, "sb_extent_size", sb.sb_extent_size, TIER_EXTENT_SIZE_MIN,
                                  TIER_EXTENT_SIZE_MAX);
}

/* Three characters for each byte hold the 19 of each word. */
char *bitmap_room(const tier_super_block_v1_t &sb)
{
    static size_t room = 0;
    const size_t len = size_t{3} * (sb.sb_extent_size - TIER_EXTENT_SIZE_MIN) + 1;
    if (len > room) {
        s_bitmap_buff.reset(static_cast<char *>(calloc(1, len)));
        zutr_assert(s_bitmap_buff != nullptr, "buff");
        room = len;
    }
    return s_bitmap_buff.get();
}

/* The bitmap of an extent as hexadecimal words, each with a blank behind it. */
std::string_view bitmap_text(const tier_extent_v1_t *extent, const tier_super_block_v1_t &sb)
{
    const auto *bitmap = reinterpret_cast<const uint64_t *>(extent + 1);
    char *text = bitmap_room(sb);
    char *to = text;
    for (int32_t i = 0; i < tier_bitmap_words_v1(sb.sb_extent_size); i++) {
        *to++ = '0';
        *to++ = 'x';
        to = zutr_put_hex<64>(to, bitmap[i], 16);
        *to++ = ' ';
    }
    return {text, static_cast<size_t>(to - text)};
}

void __print_extent_v1(const tier_extent_v1_t *extent, const tier_super_block_v1_t *sb,
                       int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(extent != nullptr && sb != nullptr && fp != nullptr, "extent && sb && fp");
    /* GCOVR_EXCL_BR_STOP */
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<TIER_EXTENT_HEAD_FIELDS>(out, *extent);
    out.put(",\"meta_offset\":");
    out.signed_decimal(offset);
    out.put(R"(,"te_bitmap":")");
    out.put(bitmap_text(extent, *sb));
    out.put("\"}");
}

constexpr tier_extent_table<tier_super_block_v1_t> EXTENT_TABLE_V1 = {
    &tier_super_block_v1_t::sb_extent_size, __print_extent_v1};

int32_t __dump_extent_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_extent(__func__, EXTENT_TABLE_V1, no, meta, delim, params);
}

/* "te_bitmap": exactly `cnt` numbers, the first of which goes to `bitmap`. */
int32_t read_bitmap(const zutr_json_reader &in, int32_t cnt, uint64_t *bitmap)
{
    const cJSON *array = cJSON_GetObjectItem(in.object(), "te_bitmap");
    if (!cJSON_IsArray(array) || cJSON_GetArraySize(array) != cnt) {
        zutr_error(in.func(), "te_bitmap is invalid. bitmap:%p, cnt:%d",
                   static_cast<const void *>(array), cnt);
        return -EINVAL;
    }
    int32_t i = 0;
    for (const cJSON *item = array->child; item != nullptr; item = item->next) {
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
    const tier_super_block_v1_t &sb = tier_super_v1(params);
    const zutr_json_reader in(__func__, ext_cfg);
    auto *extent = static_cast<tier_extent_v1_t *>(m);
    int32_t ret = check_extent_size(__func__, sb);
    ret = ret == 0 ? in.read(TIER_EXTENT_KEYS, extent) : ret;
    if (ret == 0 && extent->te_use != 0) {
        ret = in.read(TIER_EXTENT_IN_USE_KEYS_V1, extent);
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

} // namespace

int32_t zutr_dump_extent_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    const int32_t ret = check_extent_size(__func__, tier_super_v1(params));
    if (ret != 0) {
        return ret;
    }
    return zutr_dump_table(params, "te_no", tier_extents(tier_super_v1(params)), __dump_extent_v1);
}

int32_t zutr_repair_extent_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_extent_from_json_v1);
}
