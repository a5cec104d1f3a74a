#pragma once

#include "zu_tierctl/check/states.h"
#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <optional>

namespace tierctl {

/* How the entries of a table are numbered: word k of slot i is number i * end + k, and an entry
 * unless k is below `first`. A slot with a single entry has word 0 only. */
struct Numbering {
    uint64_t slots;
    uint32_t first;
    uint32_t end;

    uint64_t entries_a_slot() const { return end - first; }
    uint64_t entries() const { return slots * entries_a_slot(); }

    /* Entries counted from 0, without the words that are none. */
    uint64_t index(uint64_t no) const { return no / end * entries_a_slot() + no % end - first; }
    uint64_t number(uint64_t index) const
    {
        return index / entries_a_slot() * end + first + index % entries_a_slot();
    }
};

/* An entry that holds something. */
struct EntryInUse {
    uint64_t no;
    const uint8_t *slot;
    std::optional<uint64_t> owner; /* number of the entry that it refers to, if any */
};

/* Sees every entry of a device once while the device is checked: table by table, by number. */
class Watcher {
public:
    virtual ~Watcher() = default;

    /* The table that its entries refer to, if any, comes before it. */
    virtual void begin_table(const Table &table, const Numbering &numbering) = 0;

    /* Sees the entries of so many slots, all damaged or all unreadable. */
    virtual void add_lost(uint64_t first_slot, uint64_t slots, State state) = 0;

    virtual void add_free(uint64_t no) = 0;
    virtual void add_in_use(const EntryInUse &entry) = 0;
};

} // namespace tierctl
