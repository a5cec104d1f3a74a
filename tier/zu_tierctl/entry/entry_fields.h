#pragma once

#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/entry/fields.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* One of the parts that an entry has several of: a word of a bitmap, a mapped piece, a packed shard
 * or extent. */
struct Part {
    uint64_t no;
    std::vector<Field> fields; /* a word of a bitmap is a single one, without a key */
};

/* The content of an entry: its own fields, then its parts. */
struct EntryFields {
    std::vector<Field> fields;
    std::string_view parts_key{};   /* of the parts in JSON; empty: there are none */
    std::string_view part_prefix{}; /* of a part's number */
    std::vector<Part> parts{};
};

/* `twin`, unless it is null, is the slot of another entry: packed words that are the same in both
 * are left out. */
EntryFields get_entry(const Entry &entry, const uint8_t *twin);

} // namespace tierctl
