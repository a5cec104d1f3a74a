#include "zu_tier/layout/extent.h"

#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v2/v2.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

/* The V2 extent: the head with a bitmap, mapped pieces, a hot area. */

namespace {

/* A mapped piece as a dump shows it. */
struct shown_piece : tier_mapped_meta_v2_t {
    uint32_t mapno;
    uint64_t data_phy_offset;
};

constexpr auto PIECE_FIELDS = std::tuple{
    zutr_field{"offset", &tier_mapped_meta_v2_t::offset},
    zutr_bits{MAPPED_CLEAN_V2, &tier_mapped_meta_v2_t::clean_length},
    zutr_bits{MAPPED_LENGTH_V2, &tier_mapped_meta_v2_t::clean_length},
    zutr_field{"begin", &tier_mapped_meta_v2_t::begin},
    zutr_field{"cnt", &tier_mapped_meta_v2_t::cnt},
    zutr_field{"mapno", &shown_piece::mapno},
    zutr_field{"data_phy_offset", &shown_piece::data_phy_offset},
};

/* What a repair file says of a piece: which one it is, how long it is, where it lies. */
constexpr auto PIECE_NO_KEYS = std::tuple{zutr_key{"mapno", &shown_piece::mapno, zutr_to_s64}};
constexpr auto PIECE_LENGTH_KEYS = std::tuple{
    zutr_key{"offset", &tier_mapped_meta_v2_t::offset, zutr_to_u64},
    zutr_bits_key{MAPPED_CLEAN_V2, &tier_mapped_meta_v2_t::clean_length},
    zutr_bits_key{MAPPED_LENGTH_V2, &tier_mapped_meta_v2_t::clean_length, zutr_need::required,
                  "len"},
};
constexpr auto PIECE_PAGES_KEYS = std::tuple{
    zutr_key{"begin", &tier_mapped_meta_v2_t::begin, zutr_to_s32},
    zutr_key{"cnt", &tier_mapped_meta_v2_t::cnt, zutr_to_s32},
};

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

shown_piece load_piece(const tier_super_block_v2_t &sb, const tier_extent_v2_t *extent,
                       uint32_t mapno)
{
    shown_piece piece;
    memcpy(static_cast<tier_mapped_meta_v2_t *>(&piece),
           reinterpret_cast<const uint8_t *>(extent) + piece_offset(sb, mapno),
           sizeof(tier_mapped_meta_v2_t));
    piece.mapno = mapno;
    piece.data_phy_offset = sb.sb_data_offset + extent->te_reserved1 * uint64_t{sb.sb_block_size} +
                            uint64_t{piece.begin} * SIZE_4K;
    return piece;
}

void store_piece(const shown_piece &piece, const tier_super_block_v2_t &sb,
                 tier_extent_v2_t *extent)
{
    memcpy(reinterpret_cast<uint8_t *>(extent) + piece_offset(sb, piece.mapno),
           static_cast<const tier_mapped_meta_v2_t *>(&piece), sizeof(tier_mapped_meta_v2_t));
}

void print_pieces(zutr_text &out, const tier_extent_v2_t *extent, const tier_super_block_v2_t &sb)
{
    const char *separator = "{";
    for (uint32_t mapno = 0; mapno < sb.sb_map_cnt; mapno++) {
        const shown_piece piece = load_piece(sb, extent, mapno);
        if (piece.orig_len() == 0) {
            continue;
        }
        out.put(separator);
        zutr_put_fields<PIECE_FIELDS>(out, piece);
        out.put("}");
        separator = ",{";
    }
}

uint32_t crc_extent_v2(void *ex, uint32_t ex_size) { return tier_extent_crc(ex, ex_size); }

void __print_extent_v2(void *extent, const void *sb, int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(extent != nullptr && fp != nullptr && sb != nullptr, "extent && fp && sb");
    /* GCOVR_EXCL_BR_STOP */
    const auto *record = static_cast<const tier_extent_v2_t *>(extent);
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<TIER_EXTENT_HEAD_FIELDS>(out, *record);
    out.put(",\"meta_offset\": ");
    out.signed_decimal(offset);
    out.put(",\"te_mapped_meta\":[");
    print_pieces(out, record, tier_super_v2(sb));
    out.put("]}");
}

int32_t __dump_extent_v2(int32_t no, void *obj, const char *delim, zutr_params_t *params)
{
    /* The entry has another name here than in the other tables. */
    /* GCOVR_EXCL_BR_START: the dump driver has them all */
    zutr_assert(no >= 0 && obj != nullptr && delim != nullptr && params != nullptr,
                "no >= 0 && obj && delim && params");
    /* GCOVR_EXCL_BR_STOP */
    return tier_dump_extent(__func__, TIER_EXTENT_TABLE_V2, no, obj, delim, params);
}

/* One element of "te_mapped_meta", which fills the piece that it names. */
void read_piece(zutr_json_reader &in, int32_t index, const tier_super_block_v2_t &sb,
                tier_extent_v2_t *extent)
{
    shown_piece piece = {};
    in.read(PIECE_NO_KEYS, &piece);
    if (piece.mapno >= sb.sb_map_cnt) {
        in.refuse(in.func(), "te_mapped_meta mapno %d is invalid, index:%d, map_cnt:%d",
                  static_cast<int32_t>(piece.mapno), index, static_cast<int32_t>(sb.sb_map_cnt));
    }
    in.read(PIECE_LENGTH_KEYS, &piece);
    if (piece.orig_len() > sb.sb_block_size) {
        in.refuse(in.func(), "map %d orig_len(%u) is invalid, block_size:%u",
                  static_cast<int32_t>(piece.mapno), piece.orig_len(), sb.sb_block_size);
    }
    in.read(PIECE_PAGES_KEYS, &piece);
    if (!in.failed()) {
        store_piece(piece, sb, extent);
    }
}

void read_pieces(zutr_json_reader &in, const tier_super_block_v2_t &sb, tier_extent_v2_t *extent)
{
    const cJSON *array = in.item("te_mapped_meta");
    if (!cJSON_IsArray(array)) {
        in.refuse(in.func(), "te_mapped_meta is invalid. te_mapped_meta:%p",
                  static_cast<const void *>(array));
        return;
    }
    in.each(array, [&](int32_t index) {
        if (cJSON_IsObject(in.object())) {
            read_piece(in, index, sb, extent);
        } else {
            in.refuse(in.func(), "te_mapped_meta index %d is invalid, value:%p", index,
                      static_cast<const void *>(in.object()));
        }
    });
}

int64_t parse_extent_from_json_v2(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && extent");
    const tier_super_block_v2_t &sb = tier_super_v2(params->sb);
    const int32_t ret = check_extent_sizes(__func__, sb);
    if (ret != 0) {
        return ret;
    }
    zutr_json_reader in(__func__, ext_cfg);
    auto *extent = static_cast<tier_extent_v2_t *>(m);
    in.read(TIER_EXTENT_KEYS, extent);
    if (extent->te_use != 0) {
        in.read(TIER_EXTENT_OWNER_KEYS, extent);
        read_pieces(in, sb, extent);
    }
    if (!in.failed() && (extent->te_reserved1 >= sb.sb_block_cnt ||
                         inode_is_valid(&sb, static_cast<int32_t>(extent->te_inode_no)) == 0)) {
        tier_refuse_extent_numbers(in, sb, *extent);
    }
    return tier_finish(in, TIER_EXTENT_TABLE_V2, &sb, extent, extent->te_reserved1);
}

/* Whether all pieces lie after the head and within the checksummed bytes: otherwise their places
 * are not known. */
bool pieces_are_known(const tier_super_block_v2_t &sb)
{
    const uint64_t end =
        sb.sb_extent_size + uint64_t{sb.sb_map_cnt} * sizeof(tier_mapped_meta_v2_t);
    return sb.sb_size_mapped_meta == sizeof(tier_mapped_meta_v2_t) &&
           sb.sb_extent_size >= TIER_EXTENT_SIZE_MIN && end <= sb.sb_total_extent_size;
}

constexpr tier_kind PIECE_TOO_LONG = {"piece_too_long"};
constexpr tier_kind PIECE_EXCEEDS_PAGES = {"piece_exceeds_pages"};
constexpr tier_kind ODD_PIECE_PAGES = {"odd_piece_pages", tier_severity::warning};
constexpr tier_kind PIECES_OF_ONE_OFFSET = {"pieces_of_one_offset"};
constexpr tier_kind PIECE_OUTSIDE_BLOCK = {"piece_outside_block"};
constexpr tier_kind PIECES_OVERLAP = {"pieces_overlap"};

/* What is wrong with a piece by itself. */
void check_piece(const shown_piece &piece, uint32_t block_size, tier_findings &to)
{
    if (piece.orig_len() > block_size) {
        to.add(PIECE_TOO_LONG, "piece %u has %u bytes, a block has %u", piece.mapno,
               piece.orig_len(), block_size);
    }
    const uint32_t needed = (piece.orig_len() + SIZE_4K - 1) / SIZE_4K;
    if (piece.cnt < needed) {
        to.add(PIECE_EXCEEDS_PAGES, "piece %u has %u bytes in %u pages of 4096", piece.mapno,
               piece.orig_len(), piece.cnt);
    }
    if (piece.cnt > needed) {
        to.add(ODD_PIECE_PAGES,
               "piece %u has %u bytes in %u pages of 4096, which is odd: they need %u", piece.mapno,
               piece.orig_len(), piece.cnt, needed);
    }
    const uint32_t end = uint32_t{piece.begin} + piece.cnt;
    if (piece.cnt != 0 && uint64_t{end} * SIZE_4K > block_size) {
        to.add(PIECE_OUTSIDE_BLOCK, "piece %u ends with page %u, counted from 0; a block has %u",
               piece.mapno, end - 1, block_size / SIZE_4K);
    }
}

void check_offsets(std::span<shown_piece> pieces, tier_findings &to)
{
    std::ranges::sort(
        pieces, {}, [](const shown_piece &piece) { return std::pair(piece.offset, piece.mapno); });
    for (size_t i = 1; i < pieces.size(); i++) {
        if (pieces[i].offset == pieces[i - 1].offset) {
            to.add(PIECES_OF_ONE_OFFSET, "piece %u comes from offset %lu, as piece %u does",
                   pieces[i].mapno, pieces[i].offset, pieces[i - 1].mapno);
        }
    }
}

void check_overlap(std::span<shown_piece> pieces, tier_findings &to)
{
    std::ranges::sort(pieces, {},
                      [](const shown_piece &piece) { return std::pair(piece.begin, piece.mapno); });
    const shown_piece *furthest = nullptr; /* of those so far, the one that ends last */
    const auto end_of = [](const shown_piece &piece) { return uint32_t{piece.begin} + piece.cnt; };
    for (const shown_piece &piece : pieces) {
        if (piece.cnt == 0) {
            continue;
        }
        if (furthest != nullptr && piece.begin < end_of(*furthest)) {
            to.add(PIECES_OVERLAP, "piece %u holds page %u, as piece %u does", piece.mapno,
                   piece.begin, furthest->mapno);
        }
        if (furthest == nullptr || end_of(piece) > end_of(*furthest)) {
            furthest = &piece;
        }
    }
}

void check_extent(const void *p, const uint8_t *entry, tier_findings &to)
{
    tier_check_extent_of<tier_super_block_v2_t>(p, entry, to);
    const tier_super_block_v2_t &sb = tier_super_v2(p);
    if (!pieces_are_known(sb)) {
        return;
    }
    std::array<shown_piece, SIZE_4K / sizeof(tier_mapped_meta_v2_t)> pieces;
    size_t held = 0;
    for (uint32_t mapno = 0; mapno < sb.sb_map_cnt; mapno++) {
        const shown_piece piece =
            load_piece(sb, reinterpret_cast<const tier_extent_v2_t *>(entry), mapno);
        if (piece.orig_len() == 0) {
            continue;
        }
        check_piece(piece, sb.sb_block_size, to);
        pieces[held++] = piece;
    }
    const std::span<shown_piece> found = std::span(pieces).first(held);
    check_offsets(found, to);
    check_overlap(found, to);
}

/* Where the extent, and each of its pieces, lies in its file. */
void check_extent_in_file(const void *p, const uint8_t *entry, uint64_t file_size,
                          tier_findings &to)
{
    const tier_super_block_v2_t &sb = tier_super_v2(p);
    const auto *extent = reinterpret_cast<const tier_extent_v2_t *>(entry);
    tier_check_extent_in_file(*extent, sb.sb_block_size, file_size, to);
    const uint32_t pieces = pieces_are_known(sb) ? sb.sb_map_cnt : 0;
    for (uint32_t mapno = 0; mapno < pieces; mapno++) {
        const shown_piece piece = load_piece(sb, extent, mapno);
        if (piece.orig_len() != 0 && piece.offset >= file_size) {
            to.add({"piece_past_file"}, "piece %u begins at byte %lu of its file, which has %lu",
                   mapno, piece.offset, file_size);
        }
    }
}

constexpr tier_parts PIECES = {
    .key = "te_mapped_meta",
    .prefix = "te_mapped_meta",
    .size = sizeof(tier_mapped_meta_v2_t),
    .at = [](const void *sb) { return tier_super_v2(sb).sb_extent_size; },
    .count = [](const void *sb) { return tier_super_v2(sb).sb_map_cnt; },
    .show =
        [](const void *sb, const uint8_t *slot, uint64_t, uint32_t k, void *record) {
            const shown_piece piece =
                load_piece(tier_super_v2(sb), reinterpret_cast<const tier_extent_v2_t *>(slot), k);
            memcpy(record, &piece, sizeof(piece));
        },
    .is_shown =
        [](const void *record) {
            return static_cast<const shown_piece *>(record)->orig_len() != 0;
        },
    .is_kept =
        [](const void *record) {
            const auto *piece = static_cast<const shown_piece *>(record);
            return piece->offset != 0 || piece->clean_length != 0 || piece->begin != 0 ||
                   piece->cnt != 0;
        },
    .fields = [] { return tier_make_columns(PIECE_FIELDS); },
    .keys =
        [] {
            return tier_make_columns(
                std::tuple_cat(PIECE_NO_KEYS, PIECE_LENGTH_KEYS, PIECE_PAGES_KEYS));
        },
};

/* What no key of a repair file sets. */
std::vector<tier_stretch> stretches(const void *p)
{
    const tier_super_block_v2_t &sb = tier_super_v2(p);
    return {{"", sizeof(tier_extent_v2_t)},
            {"bitmap", sb.sb_extent_size},
            {"mapped pieces", piece_offset(sb, sb.sb_map_cnt)},
            {"hot area", sb.sb_total_extent_size}};
}

/* Those of which the length is not 0; none where their places are not known. */
uint32_t held_pieces(const void *p, const uint8_t *entry, uint64_t no, tier_piece *to)
{
    const tier_super_block_v2_t &sb = tier_super_v2(p);
    const auto *extent = reinterpret_cast<const tier_extent_v2_t *>(entry);
    const uint64_t block = tier_add(sb.sb_data_offset, tier_multiply(no, sb.sb_block_size));
    const uint32_t pieces = pieces_are_known(sb) ? sb.sb_map_cnt : 0;
    uint32_t held = 0;
    for (uint32_t mapno = 0; mapno < pieces; mapno++) {
        const shown_piece piece = load_piece(sb, extent, mapno);
        if (piece.orig_len() == 0) {
            continue;
        }
        to[held++] = {.part = mapno,
                      .clean = piece.clean() != 0,
                      .place = piece.offset,
                      .start = tier_add(block, uint64_t{piece.begin} * SIZE_4K),
                      .length = std::min(piece.orig_len(), sb.sb_block_size)};
    }
    return held;
}

constexpr tier_data DATA = {
    .placed = true,
    .block_size = [](const void *sb) { return uint64_t{tier_super_v2(sb).sb_block_size}; },
    .is_known = [](const void *sb) { return pieces_are_known(tier_super_v2(sb)); },
    .pieces = held_pieces};

constexpr tier_table extent_table()
{
    tier_table table = tier_extent_table<tier_super_block_v2_t>(
        [](const void *sb) { return tier_regions{tier_extents(tier_super_v2(sb))}; },
        [](const void *sb) { return uint64_t{tier_super_v2(sb).sb_total_extent_size}; },
        crc_extent_v2,
        [] { return tier_make_columns(std::tuple_cat(TIER_EXTENT_KEYS, TIER_EXTENT_OWNER_KEYS)); },
        &PIECES, {parse_extent_from_json_v2, __print_extent_v2});
    table.check = check_extent;
    table.check_with_owner = check_extent_in_file;
    table.stretches = stretches;
    table.data = &DATA;
    return table;
}

} // namespace

constexpr tier_table TIER_EXTENT_TABLE_V2 = extent_table();

int32_t zutr_dump_extent_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    const int32_t ret = check_extent_sizes(__func__, tier_super_v2(params->sb));
    return ret != 0 ? ret : tier_dump_table(params, TIER_EXTENT_TABLE_V2, __dump_extent_v2);
}

int32_t zutr_repair_extent_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_EXTENT_TABLE_V2.repair);
}
