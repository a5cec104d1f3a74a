#pragma once

#include "zu_tier/tier_format_v3.h"
#include "zu_tier/tier_json.h"
#include "zu_tier/tier_log.h"
#include "zu_tier/tier_text.h"
#include "zu_tier/zu_tier.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>

/* The tables of shards and of extents, whose entries are words packed into blocks. */

struct tier_packed_key_v3 {
    tier_bits field;
    zutr_need need = zutr_need::required;
};

struct tier_packed_table_v3 {
    const char *entry;       /* an entry, in messages */
    const char *item;        /* the same in a repair file */
    const char *owner_label; /* and the number of its owner */
    const char *entries;     /* key of the entries of a block */
    const char *number;      /* key of an entry's number */
    uint32_t first_word;     /* of a block that is an entry */
    std::optional<uint32_t> magic;

    tier_bits in_use;
    tier_bits owner;
    std::span<const tier_bits> fields; /* in a dump, before the number of the entry */
    tier_bits last_field;              /* and behind it */
    std::span<const tier_packed_key_v3> keys;
};

/* Whether the filter lets an entry through. An owner filter never shows free entries. */
constexpr bool tier_packed_passes(const tier_packed_table_v3 &table, const zutr_filter_t &filter,
                                  uint64_t word)
{
    const uint64_t in_use = table.in_use.get(word);
    return filter.error != 1 && (filter.use < 0 || static_cast<uint64_t>(filter.use) == in_use) &&
           (filter.owner < 0 ||
            (in_use != 0 && static_cast<uint64_t>(filter.owner) == table.owner.get(word)));
}

inline void tier_put_member(zutr_text &out, const char *key, uint64_t value)
{
    out.put("\"");
    out.put(key);
    out.put("\":");
    out.decimal(value);
}

inline void tier_put_packed(zutr_text &out, const tier_packed_table_v3 &table, uint64_t no,
                            uint64_t word)
{
    out.put("{");
    for (const tier_bits &field : table.fields) {
        tier_put_member(out, field.name, field.get(word));
        out.put(",");
    }
    tier_put_member(out, table.number, no);
    out.put(",");
    tier_put_member(out, table.last_field.name, table.last_field.get(word));
    out.put("}");
}

/* Prints a sound block, the one numbered `no` at byte `offset` of the device, as a JSON object with
 * the entries that pass the filter; says of the others on behalf of `func` that they are ignored.
 * Gives 0, or 1 when nothing was printed: a block without such an entry, unless it was asked for by
 * its number. A constant table lets the compiler lay out the printing of an entry. */
template <const tier_packed_table_v3 &Table>
int32_t tier_dump_packed(const char *func, int32_t no, const tier_packed_block_v3_t &block,
                         uint32_t checksum, int64_t offset, const char *delim,
                         const zutr_params_t *params)
{
    const auto passes = [params](uint64_t word) {
        return tier_packed_passes(Table, params->filter, word);
    };
    if (params->meta_no < 0 &&
        std::ranges::none_of(std::span(block.word).subspan(Table.first_word), passes)) {
        return 1;
    }
    zutr_text out(params->out_fp);
    out.put(delim);
    out.put("{\"checksum\":\"");
    out.hex(checksum);
    if (Table.magic) {
        out.put("\",\"magic\":\"");
        out.hex(*Table.magic);
    }
    out.put("\",\"meta_offset\": ");
    out.signed_decimal(offset);
    out.put(",\"");
    out.put(Table.entries);
    out.put("\":[");
    const uint64_t first_no = static_cast<uint64_t>(no) * TIER_PACKED_SLOTS_V3;
    const char *separator = "";
    for (uint32_t k = Table.first_word; k < TIER_PACKED_SLOTS_V3; k++) {
        const uint64_t word = block.word[k];
        if (passes(word)) {
            out.put(separator);
            tier_put_packed(out, Table, first_no + k, word);
            separator = ",";
        } else {
            /* The number is the block's. */
            zutr_debug(func, "ignore %s:%d, in_use:%d, %s:%d", Table.entry, no,
                       static_cast<int32_t>(Table.in_use.get(word)), Table.owner_label,
                       static_cast<int32_t>(Table.owner.get(word)));
        }
    }
    out.put("]}");
    return 0;
}

/* Reads where a block goes, which must be from byte `begin` of the device up to, but not at, `end`.
 * 0 or -EINVAL, logged. */
int32_t tier_read_meta_offset(const zutr_json_reader &in, uint64_t begin, uint64_t end,
                              int64_t *offset);

/* Puts the entries of a repair file into the zeroed `block`, each of them in use; the checksum is
 * left to the caller. 0 or -EINVAL, logged. */
int32_t tier_read_packed(const zutr_json_reader &in, const tier_packed_table_v3 &table,
                         tier_packed_block_v3_t *block);
