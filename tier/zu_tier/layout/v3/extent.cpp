#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v3/packed.h"
#include "zu_tier/layout/v3/v3.h"

#include <cerrno>
#include <cstring>

/* The V3 extent table. A block has no head: its checksum is spread over its first extents. */

namespace {

constexpr auto FIELDS = std::tuple{
    zutr_bits{EXTENT_LBA_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_SHARD_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_DIRTY_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_IN_USE_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_SENSE_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_DEMOTE_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_DM_ERR_V3, &tier_packed_entry_v3::word},
    zutr_bits{EXTENT_RESERVED_V3, &tier_packed_entry_v3::word},
    zutr_field{"eno", &tier_packed_entry_v3::no},
    zutr_bits{EXTENT_BITMAP_V3, &tier_packed_entry_v3::word},
};

constexpr zutr_key NUMBER_KEY = {"eno", &tier_packed_entry_v3::no, zutr_to_u64};

/* Read after the number. */
constexpr auto KEYS = std::tuple{
    zutr_bits_key{EXTENT_LBA_V3, &tier_packed_entry_v3::word},
    zutr_bits_key{EXTENT_SHARD_V3, &tier_packed_entry_v3::word},
    zutr_bits_key{EXTENT_DIRTY_V3, &tier_packed_entry_v3::word},
    zutr_bits_key{EXTENT_BITMAP_V3, &tier_packed_entry_v3::word},
    zutr_bits_key{EXTENT_SENSE_V3, &tier_packed_entry_v3::word, zutr_need::optional},
    zutr_bits_key{EXTENT_DEMOTE_V3, &tier_packed_entry_v3::word, zutr_need::optional},
    zutr_bits_key{EXTENT_DM_ERR_V3, &tier_packed_entry_v3::word, zutr_need::optional},
    zutr_bits_key{EXTENT_RESERVED_V3, &tier_packed_entry_v3::word, zutr_need::optional},
};

constexpr tier_packed_table_v3 PACKED = {
    .entries = "extents",
    .number = NUMBER_KEY.key,
    .item = "extent",
    .first_word = 0,
    .magic = std::nullopt,
    .in_use = EXTENT_IN_USE_V3,
    .owner = EXTENT_SHARD_V3,
};

constexpr char IGNORED[] = "ignore extent:%d, in_use:%d, shard_no:%d";

/* The stored checksum: bit i of it lies in extent i. */
uint32_t gather_crc(const void *extents)
{
    const auto *block = static_cast<const tier_packed_block_v3_t *>(extents);
    uint64_t crc = 0;
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        crc |= EXTENT_CHECKSUM_V3.get(block->word[i]) << i;
    }
    return static_cast<uint32_t>(crc);
}

void spread_crc(void *extents, uint32_t crc)
{
    auto *block = static_cast<tier_packed_block_v3_t *>(extents);
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        block->word[i] = EXTENT_CHECKSUM_V3.put(block->word[i], crc >> i);
    }
}

constexpr tier_checksum_place SPREAD_CHECKSUM = {gather_crc, spread_crc};

/* The stored checksum of a block, gathered from a copy of it; all ones without memory. */
uint32_t get_extent_crc(const void *extent, uint32_t extent_size)
{
    zutr_assert(extent != nullptr && extent_size != 0, "extent && extent_size");
    zutr_buffer copy;
    if (zutr_alloc_aligned(extent_size, &copy) != 0) {
        zutr_error(__func__, "failed to alloc extent_4K");
        return UINT32_MAX;
    }
    memcpy(copy.get(), extent, extent_size);
    return gather_crc(copy.get());
}

/* The computed checksum of a block. Clears the stored one, which must have been read before. */
uint32_t crc_extent_v3(void *extent, uint32_t extent_size)
{
    zutr_assert(extent != nullptr && extent_size != 0, "extent && extent_size");
    spread_crc(extent, 0);
    return zutr_crc32(extent, extent_size);
}

int32_t __dump_extent_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    const uint32_t checksum = get_extent_crc(meta, SIZE_4K);
    const uint32_t crc = crc_extent_v3(meta, SIZE_4K);
    if (checksum != crc) {
        zutr_error(__func__, "extent no: %u, crc_ondisk: 0x%x crc: 0x%x", static_cast<uint32_t>(no),
                   checksum, crc);
        return -EFAULT;
    }
    const tier_region extents = tier_extents_v3(tier_super_v3(params->sb));
    return tier_dump_packed<PACKED, FIELDS, IGNORED>(
        __func__, no, *static_cast<const tier_packed_block_v3_t *>(meta), checksum,
        extents.slot(static_cast<uint64_t>(no)), delim, params);
}

void read_entry(zutr_json_reader &in, tier_packed_entry_v3 *entry) { in.read(KEYS, entry); }

int64_t parse_extent_from_json_v3(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && extent");
    const tier_super_block_v3_t &sb = tier_super_v3(params->sb);
    zutr_json_reader in(__func__, ext_cfg);
    const int64_t offset =
        tier_read_meta_offset(in, sb.sb_extent_table_offset, sb.sb_block_area_offset);
    tier_read_packed(in, PACKED, read_entry, static_cast<tier_packed_block_v3_t *>(m));
    tier_seal(TIER_EXTENT_TABLE_V3, m, SIZE_4K);
    return tier_finish_block(in, offset);
}

/* The checksum of a block as a dump shows it. */
tier_columns head_fields()
{
    return {{.key = EXTENT_CHECKSUM_V3.key,
             .type = tier_column_type::number,
             .form = zutr_form::hex,
             .at = 0,
             .size = TIER_EXTENT_CRC_BITS_V3 * TIER_PACKED_SIZE_V3,
             .bits = EXTENT_CHECKSUM_V3.mask(),
             .compute = [](const void *record) { return uint64_t{gather_crc(record)}; }}};
}

constexpr tier_parts PARTS = tier_packed_parts(
    PACKED, [] { return tier_make_columns(FIELDS); },
    [] { return tier_make_columns(std::tuple_cat(std::tuple{NUMBER_KEY}, KEYS)); });

constexpr tier_claim CLAIMS[] = {{"address", {0, EXTENT_LBA_V3.mask()}}};

/* Bits that are tested together. */
constexpr uint64_t IN_USE = EXTENT_IN_USE_V3.mask();
constexpr uint64_t DIRTY = EXTENT_DIRTY_V3.mask();
constexpr uint64_t BITMAP = EXTENT_BITMAP_V3.mask();

constexpr tier_word_rule WORD_RULES[] = {
    {{"free_but_dirty"}, IN_USE | DIRTY, DIRTY, "it is free, but dirty: not yet written back"},
    {{"dirty_but_empty"},
     IN_USE | DIRTY | BITMAP,
     IN_USE | DIRTY,
     "it is dirty, but its bitmap is empty: there is nothing to write back"},
    {TIER_EMPTY_BITMAP, IN_USE | DIRTY | BITMAP, IN_USE, TIER_EMPTY_BITMAP_TEXT},
    {{"error_flag", tier_severity::warning},
     IN_USE | EXTENT_DM_ERR_V3.mask(),
     IN_USE | EXTENT_DM_ERR_V3.mask(),
     "its error flag is set, which is odd"},
    {TIER_RESERVED_BITS_V3, IN_USE | EXTENT_RESERVED_V3.mask(), IN_USE | EXTENT_RESERVED_V3.mask(),
     "its reserved bit is set, which is odd"},
};

/* An extent is a data block, in use as far as its bitmap says in a unit that only the service
 * knows. Where the block lies in its file is told by the shard and the address, in the same way. */
uint32_t pieces(const void *p, const uint8_t *entry, uint64_t no, tier_piece *to)
{
    const tier_super_block_v3_t &sb = tier_super_v3(p);
    const uint64_t word = *reinterpret_cast<const uint64_t *>(entry);
    *to = {.part = 0,
           .clean = EXTENT_DIRTY_V3.get(word) == 0,
           .place = EXTENT_LBA_V3.get(word),
           .start = tier_add(sb.sb_block_area_offset, tier_multiply(no, sb.sb_block_size)),
           .length = sb.sb_block_size};
    return 1;
}

constexpr tier_data DATA = {
    .bounded = true,
    .block_size = [](const void *sb) { return tier_super_v3(sb).sb_block_size; },
    .pieces = pieces};

} // namespace

constexpr tier_table TIER_EXTENT_TABLE_V3 = {
    .name = "extent",
    .number_key = "extent_no",
    .regions = [](const void *sb) { return tier_regions{tier_extents_v3(tier_super_v3(sb))}; },
    .count_keys = {"extent_table_cnt"},
    .record_length = [](const void *) { return uint64_t{SIZE_4K}; },
    .crc = crc_extent_v3,
    .checksum = &SPREAD_CHECKSUM,
    .fields = head_fields,
    .parts = &PARTS,
    .repair = {parse_extent_from_json_v3, nullptr},
    .in_use = {0, EXTENT_IN_USE_V3.mask()},
    .owner = {"shard", {0, EXTENT_SHARD_V3.mask()}},
    .ends_with_owner = true,
    .claims = CLAIMS,
    .word_rules = WORD_RULES,
    .data = &DATA,
};

int32_t zutr_dump_extent_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return tier_dump_table(params, TIER_EXTENT_TABLE_V3, __dump_extent_v3);
}

int32_t zutr_repair_extent_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_EXTENT_TABLE_V3.repair);
}
