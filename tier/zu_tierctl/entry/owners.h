#pragma once

#include "zu_tierctl/entry/table.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* The 16 bytes of a uuid, or of anything else that tells entries of one owner apart. */
using OwnerName = std::array<uint8_t, 16>;

/* Entries of a table by number or by uuid. */
struct OwnerFilter {
    std::string_view table;
    std::optional<uint64_t> no;
    std::optional<OwnerName> uuid;
};

/* Whose the entries of a table are: entries in use of the tables to which they refer, directly or
 * through one another, and the names under which files of each are kept. No name has characters
 * that a device chooses. */
class Owners {
public:
    /* An entry in use. */
    struct Owner {
        uint64_t no;
        uint64_t above; /* number of its own owner, if it has one */
        OwnerName name; /* a uuid, or a number in its first eight bytes */
        bool again;     /* one with a lower number has the same name and owner */
    };

    /* The tables above `table`, one of `tables`, without their entries. */
    Owners(const std::vector<Table> &tables, const Table &table);

    /* These tables, the one that `table` refers to first. */
    size_t levels() const { return levels_.size(); }
    const Table &level(size_t i) const { return *levels_[i].table; }

    /* Adds an entry in use of such a table; the entries of each come in the order of their numbers.
     */
    void add(size_t level, uint64_t no, const uint8_t *entry);

    /* Must be called when all have been added. */
    void finish();

    /* The names from the topmost owner down to entry `no` of the first table, "uuid/uuid" or
     * "uuid/uuid/number". Where one of them is not known, "unknown/inode-7" and the names below. A
     * name that another entry of the same owner has is followed by ".inode-7". */
    std::string path(uint64_t no) const;

    /* The uuid of the file to which entry `no` of the first table belongs; zeros when it is not
     * known. */
    OwnerName uuid(uint64_t no) const;

    /* Whether entry `no` of the first table is, or belongs to, one that the filter names. */
    bool belongs(uint64_t no, const OwnerFilter &filter) const;

private:
    struct Level {
        const Table *table;
        std::optional<uint32_t> uuid_at; /* byte of an entry; none: it has a number instead */
        std::vector<Owner> owners;       /* by number */

        const Owner *find(uint64_t no) const;
    };

    std::vector<Level> levels_;
};

/* The text of a uuid. */
std::string uuid_text(const OwnerName &uuid);

} // namespace tierctl
