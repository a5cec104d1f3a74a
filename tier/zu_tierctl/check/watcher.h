#pragma once

#include "zu_tierctl/check/states.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tierctl {

/* How the entries of a table are numbered: word k of slot i is number i * behind + k, and an entry
 * when k is not below `first`. A slot with a single entry has word 0 only. */
struct Numbering {
    uint64_t slots;
    uint32_t first;
    uint32_t behind;

    uint64_t entries_a_slot() const { return behind - first; }
    uint64_t entries() const { return slots * entries_a_slot(); }

    /* Entries counted from 0, without the words that are none. */
    uint64_t index(uint64_t no) const
    {
        return no / behind * entries_a_slot() + no % behind - first;
    }
    uint64_t number(uint64_t index) const
    {
        return index / entries_a_slot() * behind + first + index % entries_a_slot();
    }
};

/* An entry that holds something. */
struct EntryInUse {
    uint64_t no;
    const uint8_t *slot;
    std::optional<uint64_t> owner; /* the number that it names, if it names any */
};

/* Sees every entry of a device once while this is checked: table by table, in order of number. */
class Watcher {
public:
    virtual ~Watcher() = default;

    /* `owner`: the table, seen before, that its entries name; empty: none. */
    virtual void begin_table(std::string_view table_name, const Numbering &numbering,
                             std::string_view owner) = 0;

    /* The entries of so many slots, all damaged or all unreadable. */
    virtual void add_lost(uint64_t first_slot, uint64_t slots, State state) = 0;

    virtual void add_free(uint64_t no) = 0;
    virtual void add_in_use(const EntryInUse &entry) = 0;
};

} // namespace tierctl
