#include "zu_tier/layout/v2/extent.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/v2/inode.h"
#include "zu_tier/layout/v2/super.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>
#include <cstring>

namespace {

/* A super block may be sealed and still name records that do not fit their slot. */
int32_t check_extent_sizes(const char *func, const tier_super_block_v2_t &sb)
{
    int32_t ret = tier_check_size(func, "sb_extent_size", sb.sb_extent_size, 0, SIZE_4K);
    if (ret != 0) {
        return ret;
    }
    const auto pieces =
        static_cast<uint32_t>((SIZE_4K - sb.sb_extent_size) / sizeof(tier_mapped_meta_v2_t));
    ret = tier_check_size(func, "sb_map_cnt", sb.sb_map_cnt, 0, pieces);
    return ret == 0 ? tier_check_record_size(func, "sb_total_extent_size", sb.sb_total_extent_size,
                                             TIER_CHECKSUM_SIZE, SIZE_4K)
                    : ret;
}

/* The pieces follow the head and its bitmap and need not be aligned. */
size_t piece_offset(const tier_super_block_v2_t &sb, uint32_t mapno)
{
    return sb.sb_extent_size + mapno * sizeof(tier_mapped_meta_v2_t);
}

tier_mapped_meta_v2_t load_piece(const tier_extent_v2_t *extent, const tier_super_block_v2_t &sb,
                                 uint32_t mapno)
{
    tier_mapped_meta_v2_t piece;
    memcpy(&piece, reinterpret_cast<const uint8_t *>(extent) + piece_offset(sb, mapno),
           sizeof(piece));
    return piece;
}

void store_piece(const tier_mapped_meta_v2_t &piece, const tier_super_block_v2_t &sb,
                 uint32_t mapno, tier_extent_v2_t *extent)
{
    memcpy(reinterpret_cast<uint8_t *>(extent) + piece_offset(sb, mapno), &piece, sizeof(piece));
}

void print_pieces(zutr_text &out, const tier_extent_v2_t *extent, const tier_super_block_v2_t &sb)
{
    const uint64_t block = sb.sb_data_offset + extent->te_reserved1 * uint64_t{sb.sb_block_size};
    const char *separator = "{";
    for (uint32_t mapno = 0; mapno < sb.sb_map_cnt; mapno++) {
        const tier_mapped_meta_v2_t piece = load_piece(extent, sb, mapno);
        if (piece.orig_len() == 0) {
            continue;
        }
        out.put(separator);
        zutr_put_fields<TIER_PIECE_FIELDS_V2>(
            out, tier_shown_piece_v2{piece.offset, piece.clean(), piece.orig_len(), piece.begin,
                                     piece.cnt, mapno, block + uint64_t{piece.begin} * SIZE_4K});
        out.put("}");
        separator = ",{";
    }
}

void __print_extent_v2(const tier_extent_v2_t *extent, const tier_super_block_v2_t *sb,
                       int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(extent != nullptr && fp != nullptr && sb != nullptr, "extent && fp && sb");
    /* GCOVR_EXCL_BR_STOP */
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<TIER_EXTENT_HEAD_FIELDS>(out, *extent);
    out.put(",\"meta_offset\": ");
    out.signed_decimal(offset);
    out.put(",\"te_mapped_meta\":[");
    print_pieces(out, extent, *sb);
    out.put("]}");
}

constexpr tier_extent_table<tier_super_block_v2_t> EXTENT_TABLE_V2 = {
    &tier_super_block_v2_t::sb_total_extent_size, __print_extent_v2};

int32_t __dump_extent_v2(int32_t no, void *obj, const char *delim, zutr_params_t *params)
{
    /* The entry goes by another name here than in the other tables. */
    /* GCOVR_EXCL_BR_START: the dump driver has them all */
    zutr_assert(no >= 0 && obj != nullptr && delim != nullptr && params != nullptr,
                "no >= 0 && obj && delim && params");
    /* GCOVR_EXCL_BR_STOP */
    return tier_dump_extent(__func__, EXTENT_TABLE_V2, no, obj, delim, params);
}

/* One element of "te_mapped_meta", which fills the piece that it names. */
int32_t read_piece(const zutr_json_reader &in, int32_t index, const tier_super_block_v2_t &sb,
                   tier_extent_v2_t *extent)
{
    uint64_t mapno = 0;
    int32_t ret = in.bits("mapno", zutr_need::required, zutr_to_s64, 32, &mapno);
    if (ret != 0) {
        return ret;
    }
    if (mapno >= sb.sb_map_cnt) {
        zutr_error(in.func(), "te_mapped_meta mapno %d is invalid, index:%d, map_cnt:%d",
                   static_cast<int32_t>(mapno), index, static_cast<int32_t>(sb.sb_map_cnt));
        return -EINVAL;
    }
    tier_mapped_meta_v2_t piece = {};
    uint64_t clean = 0;
    uint64_t len = 0;
    ret = in.read(TIER_PIECE_OFFSET_KEY_V2, &piece);
    ret = ret == 0 ? in.bits("clean", zutr_need::required, zutr_to_u64, 1, &clean) : ret;
    ret = ret == 0 ? in.bits("len", zutr_need::required, zutr_to_u64, 31, &len) : ret;
    if (ret != 0) {
        return ret;
    }
    if (len > sb.sb_block_size) {
        zutr_error(in.func(), "map %d orig_len(%u) is invalid, block_size:%u",
                   static_cast<int32_t>(mapno), static_cast<uint32_t>(len), sb.sb_block_size);
        return -EINVAL;
    }
    piece.clean_length = tier_clean_length_v2(clean, len);
    ret = in.read(TIER_PIECE_PAGES_KEYS_V2, &piece);
    if (ret == 0) {
        store_piece(piece, sb, static_cast<uint32_t>(mapno), extent);
    }
    return ret;
}

int32_t read_pieces(const zutr_json_reader &in, const tier_super_block_v2_t &sb,
                    tier_extent_v2_t *extent)
{
    const cJSON *array = cJSON_GetObjectItem(in.object(), "te_mapped_meta");
    if (!cJSON_IsArray(array)) {
        zutr_error(in.func(), "te_mapped_meta is invalid. te_mapped_meta:%p",
                   static_cast<const void *>(array));
        return -EINVAL;
    }
    int32_t index = 0;
    for (const cJSON *item = array->child; item != nullptr; item = item->next) {
        if (!cJSON_IsObject(item)) {
            zutr_error(in.func(), "te_mapped_meta index %d is invalid, value:%p", index,
                       static_cast<const void *>(item));
            return -EINVAL;
        }
        const int32_t ret = read_piece({in.func(), item}, index, sb, extent);
        if (ret != 0) {
            return ret;
        }
        index++;
    }
    return 0;
}

int64_t parse_extent_from_json_v2(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && extent");
    const tier_super_block_v2_t &sb = tier_super_v2(params);
    const zutr_json_reader in(__func__, ext_cfg);
    auto *extent = static_cast<tier_extent_v2_t *>(m);
    int32_t ret = check_extent_sizes(__func__, sb);
    ret = ret == 0 ? in.read(TIER_EXTENT_KEYS, extent) : ret;
    if (ret == 0 && extent->te_use != 0) {
        ret = in.read(TIER_EXTENT_OWNER_KEYS, extent);
        extent->te_sampling_low = __builtin_bswap32(extent->te_sampling_low);
        ret = ret == 0 ? read_pieces(in, sb, extent) : ret;
    }
    if (ret != 0) {
        return ret;
    }
    if (extent->te_reserved1 >= sb.sb_block_cnt ||
        inode_is_valid(&sb, static_cast<int32_t>(extent->te_inode_no)) == 0) {
        tier_log_extent_numbers(__func__, sb, *extent);
        return -EINVAL;
    }
    return tier_finish_extent(__func__, EXTENT_TABLE_V2, sb, extent);
}

} // namespace

int32_t zutr_dump_extent_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    const int32_t ret = check_extent_sizes(__func__, tier_super_v2(params));
    if (ret != 0) {
        return ret;
    }
    return zutr_dump_table(params, "te_no", tier_extents(tier_super_v2(params)), __dump_extent_v2);
}

int32_t zutr_repair_extent_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, parse_extent_from_json_v2);
}
