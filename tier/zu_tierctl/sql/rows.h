#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/sql/schema.h"
#include "zu_tierctl/sql/slot_cache.h"

#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3_context;

namespace tierctl {

/* A device of which questions are asked. */
struct SqlDevice {
    std::string name; /* valid UTF-8 */
    Device device;
    Metadata metadata;
};

using SqlDevices = std::list<SqlDevice>; /* they stay where they are */

/* Which rows of a table are wanted. */
struct RowRange {
    std::optional<std::string> device{}; /* those of this one */
    uint64_t first = 0;                  /* by number */
    uint64_t last = std::numeric_limits<uint64_t>::max();
    bool has_state = true; /* whether entries are damaged is asked */
};

/* The rows of a table, one after the other. */
class Rows {
public:
    Rows() = default;
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;
    virtual ~Rows() = default;

    /* Goes to the first, then to the next; false when there is none. */
    virtual bool next() = 0;

    /* Gives the value of a column. */
    virtual void put(int column, sqlite3_context *to) = 0;

    /* A number that the row always has, and no other. */
    virtual int64_t id() const = 0;
};

/* The entries or the pieces of a table: each slot that lies on its device has rows. */
std::unique_ptr<Rows> make_entry_rows(const SqlDevices &devices, const SqlTable &table,
                                      SlotCaches &caches, RowRange range);

/* Rows that there are about. */
uint64_t count_rows(const SqlDevices &devices, const SqlTable &table);

/* What check finds on a device. */
struct FindingRow;
using FindingList = std::shared_ptr<const std::vector<FindingRow>>;

/* What it has found: a query that joins tables asks again and again. */
using FindingLists = std::map<const SqlDevice *, FindingList>;

/* What check finds, or has found; throws when it finds too much. */
std::vector<SqlColumn> finding_columns();
std::unique_ptr<Rows> make_finding_rows(const SqlDevices &devices, FindingLists &known,
                                        RowRange range);

/* Gives a number, or one of more than 63 bits as decimal text. */
void put_number(sqlite3_context *to, uint64_t number);

/* Gives a text that stays where it is for good. */
void put_constant(sqlite3_context *to, std::string_view text);

/* Gives a copy of a text. */
void put_text(sqlite3_context *to, std::string_view text);

} // namespace tierctl
