#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tierctl {

/* Entries of the tables as text, damaged ones included. */

/* An entry as it lies in its slot; a block of packed entries is one. */
struct Entry {
    const Metadata &metadata;
    const Table &table; /* one of the metadata */
    uint64_t no;
    const uint8_t *slot;
};

/* The entry as the tool's dump shows it, but as valid JSON whatever the slot holds. */
std::string entry_text(const Entry &entry);

/* Calls `use` with the number of each part of the entry and the part's record, as the columns of
 * the parts describe it. `use` must not keep the record. */
void each_part(const Entry &entry, const std::function<void(uint32_t k, const void *record)> &use);

/* The byte of the slot at which part `k` of an entry lies, and the name of the part: "sno[517]". */
size_t part_offset(const Entry &entry, uint32_t k);
std::string part_name(const Entry &entry, uint32_t k);

/* The name of what lies at a byte that no field shows, " (hot area)"; empty when it has none. */
std::string stretch_text(const Metadata &metadata, const tier_table &row, size_t byte);

/* A field in which two entries differ. A repeated part bears its number: "te_bitmap[2]",
 * "te_mapped_meta[3].begin", "sno[517].ino". */
struct Difference {
    std::string key; /* or "bytes 170..4095" for what is in no field */
    std::string a;   /* JSON; bytes as a text of hexadecimal digits, the first 32 of them; */
    std::string b;   /* "null": this entry has no such field */
    std::optional<size_t> first_byte{}; /* of bytes in no field */
};

/* All differences of two entries of the same table and layout: none means that the slots are equal.
 */
std::vector<Difference> entry_differences(const Entry &a, const Entry &b);

/* For people: a line for each, "  size: 1 -> 2". */
std::string differences_text(const std::vector<Difference> &differences);

/* For people: "size, te_bitmap[2], path and 4 more". */
std::string differing_fields(const std::vector<Difference> &differences);

} // namespace tierctl
