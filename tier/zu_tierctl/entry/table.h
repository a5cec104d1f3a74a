#pragma once

#include "zu_tier/layout/layout.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What is wrong with a slot, as bits. */
enum Flaw : uint32_t {
    BAD_MAGIC = 1,
    BAD_NUMBER = 2,
    BAD_CHECKSUM = 4,
};

/* Their names: "magic, checksum". */
std::string flaws_text(uint32_t flaws);

/* The name of the super block's table. */
inline constexpr std::string_view SUPER_TABLE = "super";

/* A table of a device: its row in the layout, with the numbers of the device's super block. */
struct Table {
    const tier_table *row;
    std::string_view name;
    std::vector<tier_region> regions; /* the numbers of each continue those of the one before */
    uint64_t record_length;

    /* Words of a slot that are entries: from the first up to, but not at, the end. A slot with a
     * single entry has word 0 only. Word k of slot i is number i * end + k. */
    uint32_t first_word;
    uint32_t end_word;

    Table(const tier_table &table, const void *sb);

    /* Of slots. */
    uint64_t count() const;

    /* Entries of each slot, and of all. */
    uint64_t entries_a_slot() const { return end_word - first_word; }
    uint64_t entries() const { return count() * entries_a_slot(); }

    /* Entries counted from 0, without the words that are none. */
    uint64_t index(uint64_t no) const
    {
        return no / end_word * entries_a_slot() + no % end_word - first_word;
    }
    uint64_t number(uint64_t index) const
    {
        return index / entries_a_slot() * end_word + first_word + index % entries_a_slot();
    }

    /* Where the entry at word `k` of a slot begins. */
    static const uint8_t *entry(const uint8_t *slot, uint32_t k)
    {
        return slot + size_t{k} * sizeof(uint64_t);
    }
    bool in_use(const uint8_t *entry) const { return !row->in_use || row->in_use.get(entry) != 0; }

    /* Whether a record fits its slot; a sealed super block may say otherwise. Of a table whose
     * records do not fit only the slots are known. */
    bool fits() const { return record_length >= TIER_CHECKSUM_SIZE && record_length <= SIZE_4K; }

    /* Whether magic, number and use also lie within a record. */
    bool identifies() const;

    /* Byte offset of the slot of entry `no`, which exists. */
    int64_t slot(uint64_t no) const;

    /* Stores the checksum, if there is one, of the record in `slot`. */
    void seal_slot(uint8_t *slot) const;

    /* The stored checksum of a record, which fits and has one, XOR that of its content; 0: it is
     * right. */
    uint32_t checksum_difference(const uint8_t *slot) const;

    /* The flaws of the slot of entry `no`, as the tool checks them; 0: none. The record fits. */
    uint32_t flaws(uint64_t no, const uint8_t *slot) const;
};

/* All tables of a device by its super block, in the order of the device. */
std::vector<Table> tables_of(const tier_layout &layout, const void *sb);

/* The table of that name; throws a usage error, which lists the tables, when there is none. */
const Table &find_table(const std::vector<Table> &tables, std::string_view name);

/* The tables of the registered layouts: "super, brick, inode, extent; in v3 also shard and hot". */
std::string tables_text();

/* Whether entries of the layout refer to those of the table. */
bool is_referred_to(const tier_layout &layout, const tier_table &table);

/* The layout of that name; null when there is none. */
const tier_layout *find_layout(std::string_view name);

} // namespace tierctl
