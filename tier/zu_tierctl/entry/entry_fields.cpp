#include "zu_tierctl/entry/entry_fields.h"

#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/inode.h"
#include "zu_tier/layout/v1/super.h"
#include "zu_tier/layout/v2/extent.h"
#include "zu_tier/layout/v2/super.h"
#include "zu_tier/layout/v3/extent.h"
#include "zu_tier/layout/v3/shard.h"
#include "zu_tier/layout/v3/super.h"

#include <algorithm>
#include <cstring>

namespace tierctl {

namespace {

template <class Record>
Record load(const uint8_t *slot, size_t at = 0)
{
    Record record;
    memcpy(&record, slot + at, sizeof(record));
    return record;
}

/* A record without parts. */
template <class Record, const auto &Fields>
EntryFields get_record(const Entry &entry, const uint8_t * /*twin*/)
{
    return {.fields = get_fields<Fields>(load<Record>(entry.slot), 0)};
}

EntryFields get_hot(const Entry & /*entry*/, const uint8_t * /*twin*/)
{
    return {};
}

EntryFields get_extent_v1(const Entry &entry, const uint8_t *twin)
{
    EntryFields got = get_record<tier_extent_t, TIER_EXTENT_HEAD_FIELDS>(entry, twin);
    got.parts_key = got.part_prefix = "te_bitmap";
    for (size_t at = sizeof(tier_extent_t); at + sizeof(uint64_t) <= entry.table.record_length;
         at += sizeof(uint64_t)) {
        std::string word = "0x";
        std::array<char, ZUTR_DIGITS_ROOM> digits;
        word.append(digits.data(),
                    zutr_put_hex<64>(digits.data(), load<uint64_t>(entry.slot, at), 16));
        const std::string json = json_text(word);
        got.parts.push_back({got.parts.size(), {{"", word, json, at, sizeof(uint64_t)}}});
    }
    return got;
}

/* What a dump shows of the piece `mapno`, which begins at byte `at`. */
tier_shown_piece_v2 shown_piece(const tier_super_block_v2_t &sb, const uint8_t *slot, size_t at,
                                uint32_t mapno)
{
    const auto piece = load<tier_mapped_meta_v2_t>(slot, at);
    const uint64_t block =
        sb.sb_data_offset + load<tier_extent_t>(slot).te_reserved1 * sb.sb_block_size;
    return {piece.offset,
            piece.clean(),
            piece.orig_len(),
            piece.begin,
            piece.cnt,
            mapno,
            block + uint64_t{piece.begin} * SIZE_4K};
}

EntryFields get_extent_v2(const Entry &entry, const uint8_t *twin)
{
    EntryFields got = get_record<tier_extent_t, TIER_EXTENT_HEAD_FIELDS>(entry, twin);
    got.parts_key = got.part_prefix = "te_mapped_meta";
    const auto sb = entry.metadata.super<tier_super_block_v2_t>();
    size_t at = sb.sb_extent_size;
    for (uint32_t mapno = 0; mapno < sb.sb_map_cnt && at + sizeof(tier_mapped_meta_v2_t) <= SIZE_4K;
         mapno++, at += sizeof(tier_mapped_meta_v2_t)) {
        const tier_shown_piece_v2 piece = shown_piece(sb, entry.slot, at, mapno);
        if (piece.orig_len == 0) {
            continue;
        }
        Part part{mapno, get_fields<TIER_PIECE_FIELDS_V2>(piece, 0)};
        for (Field &field : part.fields) { /* they are not stored as they are shown */
            field.at = at;
            field.length = sizeof(tier_mapped_meta_v2_t);
        }
        got.parts.push_back(std::move(part));
    }
    return got;
}

/* The words of a block. */
template <const tier_packed_table_v3 &Table, const auto &Fields>
void add_words(const Entry &entry, const uint8_t *twin, EntryFields &to)
{
    to.parts_key = Table.entries;
    to.part_prefix = Table.number;
    for (uint32_t k = Table.first_word; k < TIER_PACKED_SLOTS_V3; k++) {
        const size_t at = k * sizeof(uint64_t);
        const auto word = load<uint64_t>(entry.slot, at);
        if (twin != nullptr && load<uint64_t>(twin, at) == word) {
            continue;
        }
        const uint64_t no = entry.no * TIER_PACKED_SLOTS_V3 + k;
        to.parts.push_back({no, get_fields<Fields>(tier_packed_entry_v3{word, no}, at)});
    }
}

/* Bits that are shown as a hexadecimal number. */
Field hex_field(const tier_bits &shown, uint32_t value, size_t length, uint64_t bits)
{
    const std::string json = value_text<zutr_form::hex>(value);
    return {shown.key, json, json, 0, length, bits};
}

EntryFields get_shards(const Entry &entry, const uint8_t *twin)
{
    EntryFields got;
    const auto head = load<uint64_t>(entry.slot);
    for (const tier_bits &bits : {SHARD_CHECKSUM_V3, SHARD_MAGIC_V3}) {
        got.fields.push_back(
            hex_field(bits, static_cast<uint32_t>(bits.get(head)), sizeof(head), bits.mask()));
    }
    add_words<TIER_SHARD_TABLE_V3, TIER_SHARD_FIELDS_V3>(entry, twin, got);
    return got;
}

EntryFields get_extents_v3(const Entry &entry, const uint8_t *twin)
{
    EntryFields got;
    uint64_t crc = 0;
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        const auto word = load<uint64_t>(entry.slot, i * sizeof(uint64_t));
        crc |= EXTENT_CHECKSUM_V3.get(word) << i;
    }
    got.fields.push_back(hex_field(EXTENT_CHECKSUM_V3, static_cast<uint32_t>(crc),
                                   TIER_EXTENT_CRC_BITS_V3 * sizeof(uint64_t),
                                   EXTENT_CHECKSUM_V3.mask()));
    add_words<TIER_EXTENT_TABLE_V3, TIER_EXTENT_FIELDS_V3>(entry, twin, got);
    return got;
}

struct table_reading {
    Version version;
    std::string_view table;
    EntryFields (*get)(const Entry &entry, const uint8_t *twin);
};

constexpr auto GET_BRICK = get_record<tier_brick_info_t, TIER_BRICK_FIELDS>;

constexpr table_reading READINGS[] = {
    {Version::v1, "super", get_record<tier_super_block_v1_t, TIER_SUPER_FIELDS_V1>},
    {Version::v1, "brick", GET_BRICK},
    {Version::v1, "inode", get_record<tier_inode_t, TIER_INODE_FIELDS_V1>},
    {Version::v1, "extent", get_extent_v1},
    {Version::v2, "super", get_record<tier_super_block_v2_t, TIER_SUPER_FIELDS_V2>},
    {Version::v2, "brick", GET_BRICK},
    {Version::v2, "inode", get_record<tier_inode_t, TIER_INODE_FIELDS_V2>},
    {Version::v2, "extent", get_extent_v2},
    {Version::v3, "super", get_record<tier_super_block_v3_t, TIER_SUPER_FIELDS_V3>},
    {Version::v3, "brick", GET_BRICK},
    {Version::v3, "inode", get_record<tier_inode_t, TIER_INODE_FIELDS_V2>},
    {Version::v3, "shard", get_shards},
    {Version::v3, "hot", get_hot},
    {Version::v3, "extent", get_extents_v3},
};

} // namespace

EntryFields get_entry(const Entry &entry, const uint8_t *twin)
{
    if (!entry.table.fits()) {
        return {};
    }
    const auto *reading = std::ranges::find_if(READINGS, [&entry](const table_reading &candidate) {
        return candidate.version == entry.metadata.version && candidate.table == entry.table.name;
    });
    return reading->get(entry, twin);
}

} // namespace tierctl
