#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/check/states.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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
    /* Without a report they are dropped. */
    TableFindings(Report *report, const Table &table) : report_(report), table_(&table) {}

    bool wanted() const { return report_ != nullptr; }

    void add(const Kind &kind, const EntryPlace &place, const std::string &text) const;

    /* Reports the flaws of the slot at `content`, and whether flipped bits explain them. */
    void add_flaws(const Metadata &metadata, uint32_t flaws, uint64_t slot, int64_t offset,
                   const uint8_t *content) const;

    /* Reports that these slots could not be read. */
    void add_unread(const Slots &slots, uint64_t device_size) const;

    /* How many others refer to the same owner, and a number by which such findings are joined. */
    struct Others {
        uint64_t count;
        uint64_t joins;
    };

    /* Reports that the entry refers to an owner that is not in use; with `others` once for the
     * owner, to which so many others refer. */
    void add_owner(uint64_t owner_no, State state, const EntryPlace &place,
                   std::optional<Others> others = std::nullopt) const;

    /* Reports that another entry claims the same as the one at `entry`. */
    void add_claim(const tier_claim &claim, const uint8_t *entry, uint64_t first,
                   const EntryPlace &place) const;

    /* Reports that the table cannot be checked: its records do not fit their slots. */
    void add_unfit() const;

private:
    /* A finding about the entry. */
    Finding about(const Kind &kind, const EntryPlace &place, const std::string &text) const;
    /* About so many slots. */
    Finding about_slots(const Kind &kind, uint64_t first, uint64_t count, int64_t offset,
                        const std::string &text) const;

    Report *report_;
    const Table *table_;
};

/* Findings about an entry by itself. */
class EntryFindings : public tier_findings {
public:
    EntryFindings(const TableFindings &findings, const EntryPlace &place)
        : findings_(findings), place_(place)
    {
    }

private:
    void take(const tier_kind &kind, std::string_view text) override
    {
        findings_.add({std::string(kind.name), kind.severity}, place_, std::string(text));
    }

    const TableFindings &findings_;
    const EntryPlace &place_;
};

/* The text that an entry claims. */
std::string_view claimed_text(const tier_claim &claim, const uint8_t *entry);

} // namespace tierctl
