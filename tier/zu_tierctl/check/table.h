#pragma once

#include "zu_tierctl/check/claims.h"
#include "zu_tierctl/check/entries.h"
#include "zu_tierctl/check/references.h"
#include "zu_tierctl/check/report.h"
#include "zu_tierctl/check/states.h"
#include "zu_tierctl/check/watcher.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/entry/table.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace tierctl {

/* An entry, in a slot or packed with others into a block. */
struct EntryPlace {
    uint64_t no;
    uint64_t slot;
    int64_t offset;
};

/* Where the findings of a table go. */
class TableFindings {
public:
    /* Without a report they are dropped. `packed`: slots are blocks of several entries. */
    TableFindings(Report *report, const Table &table, bool packed)
        : report_(report), table_(&table), slot_unit_(packed ? "block" : "entry")
    {
    }

    bool wanted() const { return report_ != nullptr; }

    void add(const Kind &kind, const EntryPlace &place, const std::string &text) const;

    /* The flaws of the slot at `content`. */
    void add_flaws(uint32_t flaws, uint64_t slot, int64_t offset, const uint8_t *content) const;

    /* That these slots could not be read. */
    void add_unread(const Slots &slots, uint64_t device_size) const;

    /* That the entry, and so many others, names as its owner an entry that is not in use. */
    void add_owner(const Owner &owner, uint64_t owner_no, State state, const EntryPlace &place,
                   uint64_t others = 0) const;

    /* That another entry claims the same. */
    void add_claim(const std::string &claim, uint64_t first, const EntryPlace &place) const;

    /* That nothing of the table can be checked: its records do not fit their slots. */
    void add_unfit() const;

private:
    void add_slot(const Kind &kind, uint64_t slot, int64_t offset, const std::string &text) const;

    Report *report_;
    const Table *table_;
    std::string_view slot_unit_;
};

/* Slots of the table that can lie on a device of that size. */
uint64_t slots_there(const Table &table, uint64_t device_size);

/* The check of a table whose entries are as `Entries` says. */
template <class Entries>
class TableCheck {
public:
    /* `owners`: of the table that the entries name, if they name any. `watcher` may be null. */
    TableCheck(const Device &device, const Table &table, Entries entries,
               const TableFindings &findings, const States &owners, Watcher *watcher)
        : device_(device), table_(table), entries_(std::move(entries)), findings_(findings),
          owners_(owners), watcher_(watcher), states_(table.count() * Entries::BEHIND)
    {
        counts_.entries = table.count() * ENTRIES_A_SLOT;
    }

    /* Goes once over the table, and once more for what is claimed repeatedly; more often when the
     * claims do not fit in `claims_memory` bytes. */
    void run(size_t claims_memory)
    {
        check_all(claims_memory);
        add_unknown_owners();
    }

    const Counts &counts() const { return counts_; }
    States &states() { return states_; }

private:
    static constexpr uint64_t ENTRIES_A_SLOT = Entries::BEHIND - Entries::FIRST;
    static constexpr bool CLAIMS = requires(const uint8_t *slot) { Entries::claim(slot, 0); };
    static constexpr bool NAMES = requires { Entries::OWNER; };

    static EntryPlace place(uint64_t slot, int64_t offset, uint32_t k)
    {
        return {slot * Entries::BEHIND + k, slot, offset + k * int64_t{TIER_PACKED_SIZE_V3}};
    }

    void check_all(size_t claims_memory)
    {
        if constexpr (CLAIMS) {
            if (findings_.wanted()) {
                check_with_claims(claims_memory);
                return;
            }
        }
        first_pass([](const EntryPlace &, const uint8_t *, uint32_t) {});
    }

    void check_with_claims(size_t claims_memory)
    {
        using key = decltype(Entries::claim(nullptr, 0));
        using claims_of_keys = Claims<key>;
        const uint64_t there = slots_there(table_, device_.size()) * ENTRIES_A_SLOT;
        claims_of_keys claims(std::max<uint64_t>(
            2, std::min<uint64_t>(there, claims_of_keys::capacity(claims_memory))));
        const auto add = [&claims](const EntryPlace &, const uint8_t *slot, uint32_t k) {
            claims.add(Entries::claim(slot, k));
        };
        const auto name = [this, &claims](const EntryPlace &place, const uint8_t *slot,
                                          uint32_t k) {
            const auto first = claims.first_claim(Entries::claim(slot, k), place.no);
            if (first) {
                findings_.add_claim(Entries::claim_text(slot, k), *first, place);
            }
        };
        first_pass(add);
        while (true) {
            if (claims.end_pass()) {
                later_pass(name);
            }
            if (!claims.next_round()) {
                return;
            }
            later_pass(add);
        }
    }

    template <class Visit>
    void walk(const Visit &visit) const
    {
        Progress progress("checking " + std::string(table_.name),
                          slots_there(table_, device_.size()));
        read_table(device_, table_, [&](const Slots &slots) {
            visit(slots);
            progress.add(slots.count);
        });
    }

    /* Checks everything, and visits what is in use. */
    template <class Visit>
    void first_pass(const Visit &visit)
    {
        walk([this, &visit](const Slots &slots) {
            if (slots.data == nullptr) {
                findings_.add_unread(slots, device_.size());
                counts_.unreadable += slots.count * ENTRIES_A_SLOT;
                watch_lost(slots.first_no, slots.count, State::unreadable);
                return;
            }
            for (uint64_t i = 0; i < slots.count; i++) {
                check_slot(slots.first_no + i, slots.offset + static_cast<int64_t>(i * SIZE_4K),
                           slots.slot(i), visit);
            }
        });
    }

    /* Visits again what is in use; throws when that is not what it was. */
    template <class Visit>
    void later_pass(const Visit &visit) const
    {
        uint64_t visited = 0;
        walk([this, &visit, &visited](const Slots &slots) {
            for (uint64_t i = 0; slots.data != nullptr && i < slots.count; i++) {
                const uint8_t *slot = slots.slot(i);
                const uint64_t no = slots.first_no + i;
                if (table_.flaws(no, slot) != 0) {
                    continue;
                }
                for (uint32_t k = Entries::FIRST; k < Entries::BEHIND; k++) {
                    if (entries_.in_use(slot, k)) {
                        visited++;
                        visit(place(no, slots.offset + static_cast<int64_t>(i * SIZE_4K), k), slot,
                              k);
                    }
                }
            }
        });
        if (visited != counts_.in_use) {
            throw std::runtime_error(device_.path() + ": table " + std::string(table_.name) +
                                     " is not what it was when it was read first");
        }
    }

    template <class Visit>
    void check_slot(uint64_t no, int64_t offset, const uint8_t *slot, const Visit &visit)
    {
        set_states(no, 0, Entries::FIRST, State::head);
        const uint32_t flaws = table_.flaws(no, slot);
        if (flaws != 0) {
            findings_.add_flaws(flaws, no, offset, slot);
            counts_.damaged += ENTRIES_A_SLOT;
            set_states(no, Entries::FIRST, Entries::BEHIND, State::damaged);
            watch_lost(no, 1, State::damaged);
            return;
        }
        for (uint32_t k = Entries::FIRST; k < Entries::BEHIND; k++) {
            if (!entries_.in_use(slot, k)) {
                set_states(no, k, k + 1, State::free);
                counts_.free++;
                if (watcher_ != nullptr) {
                    watcher_->add_free(no * Entries::BEHIND + k);
                }
                continue;
            }
            set_states(no, k, k + 1, State::in_use);
            counts_.in_use++;
            watch_in_use(no * Entries::BEHIND + k, slot, k);
            check_entry(place(no, offset, k), slot, k);
            visit(place(no, offset, k), slot, k);
        }
    }

    /* Of the words `first`..`behind` - 1 of a slot. */
    void set_states(uint64_t slot, uint32_t first, uint32_t behind, State state)
    {
        if constexpr (Entries::NAMED) {
            for (uint32_t k = first; k < behind; k++) {
                states_.set(slot * Entries::BEHIND + k, state);
            }
        }
    }

    void watch_lost(uint64_t first_slot, uint64_t slots, State state) const
    {
        if (watcher_ != nullptr) {
            watcher_->add_lost(first_slot, slots, state);
        }
    }

    void watch_in_use(uint64_t no, const uint8_t *slot, uint32_t k) const
    {
        if (watcher_ == nullptr) {
            return;
        }
        if constexpr (NAMES) {
            watcher_->add_in_use({no, slot, entries_.owner(slot, k)});
        } else {
            watcher_->add_in_use({no, slot, std::nullopt});
        }
    }

    void check_entry(const EntryPlace &place, const uint8_t *slot, uint32_t k)
    {
        if constexpr (NAMES) {
            const uint64_t owner = entries_.owner(slot, k);
            const State state = owners_.get(owner);
            if (state != State::in_use && findings_.wanted()) {
                check_owner(owner, state, place);
            }
        }
        if constexpr (requires(const Tell &tell) { entries_.check(slot, tell); }) {
            entries_.check(slot, [this, &place](const Kind &kind, const std::string &text) {
                findings_.add(kind, place, text);
            });
        }
    }

    /* One damaged block may be named by millions: what is not known is told once, at the end. */
    void check_owner(uint64_t owner, State state, const EntryPlace &place)
    {
        const bool known = state != State::damaged && state != State::unreadable;
        if (known || !unknown_owners_.add(owner, place.no)) {
            findings_.add_owner(Entries::OWNER, owner, state, place);
        }
    }

    void add_unknown_owners() const
    {
        if constexpr (NAMES) {
            unknown_owners_.each([this](uint64_t owner, uint64_t first, uint64_t count) {
                const uint64_t slot = first / Entries::BEHIND;
                findings_.add_owner(
                    Entries::OWNER, owner, owners_.get(owner),
                    place(slot, table_.slot(slot), static_cast<uint32_t>(first % Entries::BEHIND)),
                    count - 1);
            });
        }
    }

    const Device &device_;
    const Table &table_;
    Entries entries_;
    TableFindings findings_;
    const States &owners_;
    Watcher *watcher_;
    References unknown_owners_; /* damaged or unreadable, but named */
    States states_;
    Counts counts_;
};

} // namespace tierctl
