#pragma once

#include "zu_tier/format/v3.h"
#include "zu_tier/layout/layout.h"
#include "zu_tier/record/debug.h"

#include <algorithm>
#include <optional>

/* The tables of shards and of extents, whose entries are words packed into blocks. */

struct tier_packed_table_v3 {
    const char *entries; /* key of the entries of a block */
    const char *number;  /* key of an entry's number */
    const char *item;    /* an entry of a repair file, in messages */
    uint32_t first_word; /* of a block that is an entry */
    std::optional<uint32_t> magic;

    tier_bits in_use;
    tier_bits owner;
};

/* An entry as its tables of fields and keys show it. */
struct tier_packed_entry_v3 {
    uint64_t word;
    uint64_t no;
};

/* The finding about an entry whose reserved bits are not 0. */
constexpr tier_kind TIER_RESERVED_BITS_V3 = {"reserved_bits", tier_severity::warning};

/* The filter as a test of a word: an entry passes when its bits under the mask are these. */
struct tier_packed_filter {
    uint64_t mask = 0;
    uint64_t bits = 0;

    bool passes(uint64_t word) const { return (word & mask) == bits; }
};

/* An owner filter never shows free entries. */
tier_packed_filter tier_make_packed_filter(const tier_packed_table_v3 &table,
                                           const zutr_filter_t &filter);

/* Prints what precedes the entries of a block. */
void tier_put_packed_head(zutr_text &out, const tier_packed_table_v3 &table, uint32_t checksum,
                          int64_t offset);

/* Prints a sound block, the one numbered `no` at byte `offset` of the device, as a JSON object with
 * the entries that pass the filter, each as the table `Fields` has it; says of the others on behalf
 * of `func` that they are ignored. Gives 0, or 1 when nothing was printed: a block without such an
 * entry, unless it was asked for by its number. */
template <const tier_packed_table_v3 &Table, const auto &Fields, const auto &Ignored>
int32_t tier_dump_packed(const char *func, int32_t no, const tier_packed_block_v3_t &block,
                         uint32_t checksum, int64_t offset, const char *delim,
                         const zutr_params_t *params)
{
    const tier_packed_filter filter = tier_make_packed_filter(Table, params->filter);
    const auto passes = [filter](uint64_t word) { return filter.passes(word); };
    if (params->meta_no < 0 &&
        std::ranges::none_of(std::span(block.word).subspan(Table.first_word), passes)) {
        return 1;
    }
    zutr_text out(params->out_fp);
    out.put(delim);
    tier_put_packed_head(out, Table, checksum, offset);
    const uint64_t first_no = static_cast<uint64_t>(no) * TIER_PACKED_SLOTS_V3;
    constexpr size_t ROOM = ZUTR_FIELDS_ROOM<Fields> + 3; /* braces and a comma */
    char *to = out.room(ROOM);
    size_t separator = 1; /* bytes of it */
    for (uint32_t k = Table.first_word; k < TIER_PACKED_SLOTS_V3; k++) {
        const uint64_t word = block.word[k];
        if (passes(word)) {
            to = out.room(to, ROOM);
            memcpy(to, separator == 1 ? "{" : ",{", 2);
            to = zutr_put_members<Fields>(to + separator, tier_packed_entry_v3{word, first_no + k});
            *to++ = '}';
            separator = 2;
        } else {
            out.advance(to); /* the log line follows the text before it */
            out.flush();
            to = out.room(ROOM);
            /* The number is the block's. */
            zutr_debug_line<Ignored>(func, no, static_cast<int32_t>(Table.in_use.get(word)),
                                     static_cast<int32_t>(Table.owner.get(word)));
        }
    }
    out.advance(to);
    out.put("]}");
    return 0;
}

/* Reads the place of a block, which must lie from byte `begin` of the device up to `end`,
 * exclusive. */
int64_t tier_read_meta_offset(zutr_json_reader &in, uint64_t begin, uint64_t end);

/* Reads the entries of a block in order: `read` reads each into its word. */
using tier_read_packed_entry = void (*)(zutr_json_reader &in, tier_packed_entry_v3 *entry);
void tier_read_packed(zutr_json_reader &in, const tier_packed_table_v3 &table,
                      tier_read_packed_entry read, tier_packed_block_v3_t *block);

/* The device offset of a repaired block, -EINVAL when something was refused, or -EFAULT, logged. */
int64_t tier_finish_block(const zutr_json_reader &in, int64_t offset);

/* The entries of a block as the parts of its record; `at` of part k is its word. */
constexpr tier_parts tier_packed_parts(const tier_packed_table_v3 &table, tier_columns (*fields)(),
                                       tier_columns (*keys)())
{
    return {
        .key = table.entries,
        .prefix = table.number,
        .size = TIER_PACKED_SIZE_V3,
        .first = table.first_word,
        .show =
            [](const void *, const uint8_t *slot, uint64_t no, uint32_t k, void *record) {
                tier_packed_entry_v3 entry = {0, no * TIER_PACKED_SLOTS_V3 + k};
                memcpy(&entry.word, slot + size_t{k} * TIER_PACKED_SIZE_V3, sizeof(entry.word));
                memcpy(record, &entry, sizeof(entry));
            },
        .fields = fields,
        .keys = keys,
    };
}
