#include "zu_tier/layout/extent.h"

#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v1/v1.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

/* The V1 extent: the head and a bitmap. */

namespace {

/* Read only for an extent in use, and "te_bitmap" after them. */
constexpr auto IN_USE_KEYS = std::tuple_cat(
    std::tuple{zutr_key{"te_block", &tier_extent_v1_t::te_block, zutr_to_s64},
               zutr_key{"te_size", &tier_extent_v1_t::te_size, zutr_to_u64}},
    TIER_EXTENT_OWNER_KEYS,
    std::tuple{
        zutr_key{"te_clean", &tier_extent_v1_t::te_clean, zutr_to_s32},
        zutr_key{"te_ntime", &tier_extent_v1_t::te_ntime, zutr_to_s64, zutr_need::optional},
        zutr_key{"te_hot", &tier_extent_v1_t::te_hot, zutr_to_u64, zutr_need::optional},
    });

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

/* The bitmap of an extent as hexadecimal words, a blank after each. */
std::string_view print_bitmap_v1(const tier_extent_v1_t *extent, const tier_super_block_v1_t &sb)
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

uint32_t crc_extent_v1(void *ex, uint32_t ex_size) { return tier_extent_crc(ex, ex_size); }

void __print_extent_v1(void *extent, const void *sb, int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(extent != nullptr && sb != nullptr && fp != nullptr, "extent && sb && fp");
    /* GCOVR_EXCL_BR_STOP */
    const auto *record = static_cast<const tier_extent_v1_t *>(extent);
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<TIER_EXTENT_HEAD_FIELDS>(out, *record);
    out.put(",\"meta_offset\":");
    out.signed_decimal(offset);
    out.put(R"(,"te_bitmap":")");
    out.put(print_bitmap_v1(record, tier_super_v1(sb)));
    out.put("\"}");
}

int32_t __dump_extent_v1(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_extent(__func__, TIER_EXTENT_TABLE_V1, no, meta, delim, params);
}

/* "te_bitmap": exactly `cnt` numbers, the first of which goes to `bitmap`. */
void read_bitmap(zutr_json_reader &in, int32_t cnt, uint64_t *bitmap)
{
    const cJSON *array = in.item("te_bitmap");
    if (!cJSON_IsArray(array) || cJSON_GetArraySize(array) != cnt) {
        in.refuse(in.func(), "te_bitmap is invalid. bitmap:%p, cnt:%d",
                  static_cast<const void *>(array), cnt);
        return;
    }
    in.each(array, [&in, bitmap](int32_t i) {
        const cJSON *item = in.object();
        if (cJSON_IsNumber(item)) {
            bitmap[i] = zutr_to_u64(zutr_json_number(item));
        } else {
            in.refuse(in.func(), "te_bitmap index %d is invalid, value:%p", i,
                      static_cast<const void *>(item));
        }
    });
}

int64_t parse_extent_from_json_v1(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && extent");
    const tier_super_block_v1_t &sb = tier_super_v1(params->sb);
    const int32_t ret = check_extent_size(__func__, sb);
    if (ret != 0) {
        return ret;
    }
    zutr_json_reader in(__func__, ext_cfg);
    auto *extent = static_cast<tier_extent_v1_t *>(m);
    in.read(TIER_EXTENT_KEYS, extent);
    if (extent->te_use != 0) {
        in.read(IN_USE_KEYS, extent);
        read_bitmap(in, tier_bitmap_words_v1(sb.sb_extent_size),
                    reinterpret_cast<uint64_t *>(extent + 1));
    }
    if (extent->te_reserved1 >= sb.sb_block_cnt || extent->te_inode_no >= sb.sb_inode_cnt) {
        tier_refuse_extent_numbers(in, sb, *extent);
    }
    return tier_finish(in, TIER_EXTENT_TABLE_V1, &sb, extent, extent->te_reserved1);
}

/* A word of a bitmap as a part of its extent. */
struct bitmap_word {
    uint64_t word;
};

constexpr tier_parts BITMAP = {
    .key = "te_bitmap",
    .prefix = "te_bitmap",
    .size = sizeof(bitmap_word),
    .at = [](const void *) { return uint32_t{sizeof(tier_extent_v1_t)}; },
    .count =
        [](const void *sb) {
            return static_cast<uint32_t>(
                std::max(tier_bitmap_words_v1(tier_super_v1(sb).sb_extent_size), 0));
        },
    .show =
        [](const void *, const uint8_t *slot, uint64_t, uint32_t k, void *record) {
            memcpy(record, slot + sizeof(tier_extent_v1_t) + k * sizeof(bitmap_word),
                   sizeof(bitmap_word));
        },
    .fields =
        [] { return tier_columns{tier_make_column("", &bitmap_word::word, zutr_form::hex16)}; },
    .keys = [] { return tier_columns{tier_make_column("", &bitmap_word::word, zutr_form::plain)}; },
};

/* An extent is one piece of a file, from the start of its data block. */
uint32_t pieces(const void *p, const uint8_t *entry, uint64_t no, tier_piece *to)
{
    const tier_super_block_v1_t &sb = tier_super_v1(p);
    const auto *extent = reinterpret_cast<const tier_extent_v1_t *>(entry);
    *to = {.part = 0,
           .clean = extent->te_clean != 0,
           .place = uint64_t{extent->te_block} * sb.sb_block_size,
           .start = tier_add(sb.sb_data_offset, tier_multiply(no, sb.sb_block_size)),
           .length = std::min(extent->te_size, uint64_t{sb.sb_block_size})};
    return 1;
}

bool marks_pages(const void *p)
{
    const tier_super_block_v1_t &sb = tier_super_v1(p);
    const int64_t words = tier_bitmap_words_v1(sb.sb_extent_size);
    return words > 0 && words * 64 >= sb.sb_block_size / SIZE_4K;
}

bool page_is_valid(const uint8_t *entry, uint32_t page)
{
    const auto *bitmap = reinterpret_cast<const uint64_t *>(entry + sizeof(tier_extent_v1_t));
    return (bitmap[page / 64] >> page % 64 & 1) != 0;
}

constexpr tier_data DATA = {
    .placed = true,
    .block_size = [](const void *sb) { return uint64_t{tier_super_v1(sb).sb_block_size}; },
    .pieces = pieces,
    .marks_pages = marks_pages,
    .page_is_valid = page_is_valid,
    .ends_in_page = true};

constexpr tier_table extent_table()
{
    tier_table table = tier_extent_table<tier_super_block_v1_t>(
        [](const void *sb) { return tier_regions{tier_extents(tier_super_v1(sb))}; },
        [](const void *sb) { return uint64_t{tier_super_v1(sb).sb_extent_size}; }, crc_extent_v1,
        [] { return tier_make_columns(std::tuple_cat(TIER_EXTENT_KEYS, IN_USE_KEYS)); }, &BITMAP,
        {parse_extent_from_json_v1, __print_extent_v1});
    table.data = &DATA;
    return table;
}

} // namespace

constexpr tier_table TIER_EXTENT_TABLE_V1 = extent_table();

int32_t zutr_dump_extent_v1(zutr_params_t *params)
{
    tier_assert_super_v1(params);
    const int32_t ret = check_extent_size(__func__, tier_super_v1(params->sb));
    return ret != 0 ? ret : tier_dump_table(params, TIER_EXTENT_TABLE_V1, __dump_extent_v1);
}

int32_t zutr_repair_extent_v1(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_EXTENT_TABLE_V1.repair);
}
