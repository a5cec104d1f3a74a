#include "zu_tier/layout/v3/extent.h"
#include "zu_tier/layout/v3/shard.h"
#include "zu_tierctl/template/kinds.h"

namespace tierctl {

/* Blocks of V3: those of packed entries, and those of the hot table. */

namespace {

/* Where a repair puts the block, which must be from byte `begin` of the device up to, but not at,
 * `end`. */
void carry_offset(Draft &draft, uint64_t begin, uint64_t end)
{
    const auto offset = static_cast<uint64_t>(draft.table.slot(draft.no));
    draft.file.number("meta_offset", offset);
    if (offset < begin || offset >= end) {
        draft.note_refusal("meta_offset is not between " + std::to_string(begin) + " and " +
                           std::to_string(end));
    }
}

/* Entries in use, with all that their keys name. */
void carry_entries(Draft &draft, const tier_packed_table_v3 &table,
                   const tier_packed_block_v3_t &from, tier_packed_block_v3_t *to)
{
    draft.file.open_array(table.entries);
    for (uint32_t k = table.first_word; k < TIER_PACKED_SLOTS_V3; k++) {
        if (table.in_use.get(from.word[k]) == 0) {
            continue;
        }
        draft.file.open_object();
        draft.file.number(table.number, draft.no * TIER_PACKED_SLOTS_V3 + k);
        uint64_t word = table.in_use.put(0, 1);
        for (const tier_packed_key_v3 &key : table.keys) {
            const uint64_t value = key.field.get(from.word[k]);
            draft.file.number(key.field.key, value);
            word = key.field.put(word, value);
        }
        to->word[k] = word;
        draft.file.close();
    }
    draft.file.close();
}

/* Says how entry `k` differs: what the tool shows of it. */
template <class... Fields>
void note_entry(Draft &draft, const tier_packed_table_v3 &table, uint32_t k,
                const tier_packed_block_v3_t &to, const std::tuple<Fields...> &fields)
{
    const uint64_t before = draft.record<tier_packed_block_v3_t>().word[k];
    const std::string entry =
        std::string(table.number) + " " + std::to_string(draft.no * TIER_PACKED_SLOTS_V3 + k);
    const auto compare = [&](const auto &field) {
        if constexpr (requires { field.bits; }) {
            draft.note_number_change(entry + ", " + field.bits.key, field.bits.get(before),
                                     field.bits.get(to.word[k]));
        }
    };
    std::apply([&](const auto &...field) { (compare(field), ...); }, fields);
}

/* The checksum that the lowest bits of a block's first extents spell. */
uint64_t spread_checksum(const tier_packed_block_v3_t &block)
{
    uint64_t checksum = 0;
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        checksum |= EXTENT_CHECKSUM_V3.get(block.word[i]) << i;
    }
    return checksum;
}

void note_hex_change(Draft &draft, const tier_bits &field, uint64_t before, uint64_t after)
{
    if (before != after) {
        draft.note_change(field.key, hex_text(before), hex_text(after));
    }
}

/* The block that the repair makes, sealed. */
tier_packed_block_v3_t sealed(Draft &draft, tier_packed_block_v3_t to)
{
    draft.repair(to);
    draft.table.seal_slot(draft.repaired.data());
    memcpy(&to, draft.repaired.data(), sizeof(to));
    return to;
}

} // namespace

void draft_shards_v3(Draft &draft, const Metadata &metadata)
{
    const auto sb = metadata.super<tier_super_block_v3_t>();
    carry_offset(draft, sb.sb_shard_table_offset, sb.sb_hot_table_offset);
    const auto from = draft.record<tier_packed_block_v3_t>();
    tier_packed_block_v3_t to{};
    to.word[0] = SHARD_MAGIC_V3.put(0, TIER_SHARD_MAGIC_V3);
    carry_entries(draft, TIER_SHARD_TABLE_V3, from, &to);
    to = sealed(draft, to);
    for (const tier_bits &field : {SHARD_CHECKSUM_V3, SHARD_MAGIC_V3}) {
        note_hex_change(draft, field, field.get(from.word[0]), field.get(to.word[0]));
    }
    for (uint32_t k = 1; k < TIER_PACKED_SLOTS_V3; k++) {
        note_entry(draft, TIER_SHARD_TABLE_V3, k, to, TIER_SHARD_FIELDS_V3);
    }
}

void draft_extents_v3(Draft &draft, const Metadata &metadata)
{
    const auto sb = metadata.super<tier_super_block_v3_t>();
    carry_offset(draft, sb.sb_extent_table_offset, sb.sb_block_area_offset);
    const auto from = draft.record<tier_packed_block_v3_t>();
    tier_packed_block_v3_t to{};
    carry_entries(draft, TIER_EXTENT_TABLE_V3, from, &to);
    to = sealed(draft, to);
    note_hex_change(draft, EXTENT_CHECKSUM_V3, spread_checksum(from), spread_checksum(to));
    constexpr auto CHECKSUM_BIT = std::tuple{zutr_bits{EXTENT_CHECKSUM_V3}};
    for (uint32_t k = 0; k < TIER_PACKED_SLOTS_V3; k++) {
        note_entry(draft, TIER_EXTENT_TABLE_V3, k, to, TIER_EXTENT_FIELDS_V3);
        if (k >= TIER_EXTENT_CRC_BITS_V3) {
            note_entry(draft, TIER_EXTENT_TABLE_V3, k, to, CHECKSUM_BIT);
        }
    }
}

/* A hot block is repaired by clearing it. */
void draft_hot_v3(Draft &draft, const Metadata &metadata)
{
    const auto sb = metadata.super<tier_super_block_v3_t>();
    carry_offset(draft, sb.sb_hot_table_offset, sb.sb_extent_table_offset);
    draft.note_cleared(0, {{{"", SIZE_4K}}});
}

} // namespace tierctl
