#pragma once

#include "zu_tierctl/check/report.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* The content of a map. Its size does not grow with that of the device. */

/* What a cell shows: the first of these that applies. */
enum class Look { planned, unreadable, damaged, finding, dirty, in_use, free };

/* Entries that follow one another. */
struct MapCell {
    uint64_t first; /* number of the first entry */
    uint64_t last;  /* and of the last */
    Counts counts;
    uint64_t findings =
        0;              /* about one of the entries, or about entries that begin with one of them */
    uint64_t steps = 0; /* of the plan, that change entries of the cell */
    uint64_t repaired = 0; /* damaged or unreadable entries that the plan repairs */
    uint64_t dirty = 0;    /* entries in use of which not all was written back */

    Look look() const;

    /* How much of the cell is in use: 0 nothing, 1..7 a part of it, 8 all. */
    unsigned level() const;
};

struct MapTable {
    std::string_view name;
    uint64_t cell_entries; /* entries in each cell; the last may have fewer */
    Counts counts;
    uint64_t findings = 0;
    std::vector<MapCell> cells{};
    uint64_t steps = 0; /* of the plan */
    uint64_t dirty = 0;

    /* Entries and cells before the table's second region, its expansion. */
    uint64_t entries_before = 0;
    size_t cells_before = 0;

    bool has_expansion() const { return cells_before < cells.size(); }

    /* The cell of the entry with that index. */
    MapCell &cell(uint64_t index)
    {
        return index < entries_before
                   ? cells[index / cell_entries]
                   : cells[cells_before + (index - entries_before) / cell_entries];
    }
};

/* What an entry that the others belong to, such as a brick, uses. */
struct MapOwner {
    std::string name; /* its number, or "other" */
    std::string path; /* printable; or why there is none */
    bool in_use = false;
    std::vector<uint64_t> entries{}; /* for each of the tables that belong to it */
    uint64_t bytes = 0;              /* sum of the sizes of its files, at most 2^64 - 1 */
    uint64_t dirty = 0; /* entries of the last table of which not all was written back */
};

/* Whose entries use what: all names are those of tables. */
struct MapUse {
    std::string_view owner; /* "brick"; empty: the layout has none */
    std::vector<std::string_view>
        users;              /* "inode", "extent": they refer to it, or to one another */
    bool has_sizes = false; /* whether the first has the sizes of files */
    bool has_dirty = false; /* whether entries of the last are dirty */
    std::string text_key;   /* of what MapOwner has as its path */
    std::vector<MapOwner>
        owners{}; /* in use, or referred to; most entries of the last user first */
};

/* Entries in use by the time from their last access to the newest one of the device. */
struct MapAge {
    std::string_view name;
    uint64_t entries = 0;
};

struct MapFinding {
    Severity severity;
    std::string kind;
    std::string_view table;
    std::string about; /* "inode 7" */
    std::string text;
    std::string command;
};

/* Findings of a kind: all, and those that are kept. */
struct MapKind {
    uint64_t count = 0;
    uint64_t kept = 0;
};

struct Map {
    /* Of the findings so many are kept; not all of one kind. */
    static constexpr uint64_t FINDINGS_MAX = 5000;
    static constexpr uint64_t KIND_MAX = 1000;

    std::string device;
    std::string super_file; /* with its super block; empty: the device's own */
    std::string_view layout;
    std::string identity;
    std::string created;
    std::string accessed; /* time of the newest access; empty when there is none */
    std::vector<MapTable> tables;
    MapUse use;
    std::string_view aged; /* table of the entries whose ages are shown; empty: there is none */
    std::vector<MapAge> ages;
    uint64_t odd = 0;       /* accesses left out of the ages: so much later than all others */
    std::string odd_access; /* that they cannot be right; time of the latest of them */
    std::vector<MapFinding> findings;
    std::map<std::string, MapKind> kinds; /* of all findings, by name */
    uint64_t findings_count = 0;
    bool quick = false; /* duplicates were not searched for */
    std::string plan;   /* what it would change; empty: there is none */
};

/* How many cells, 1 or more, a table may have whose last entry has the number `last`. */
using CellsMax = std::function<size_t(uint64_t last)>;

/* Reads the metadata of a device, by the super block in `super_file` unless that is empty, and
 * checks it; `quick`: in one pass, without the duplicate search. Shows what the plan in
 * `plan_file`, unless that is empty, would change. `mapfile`, unless that is empty, is that of the
 * device, which is a copy. Throws when one of them cannot be read, or when the plan is one of
 * another device. */
Map read_map(const std::string &device, const CellsMax &cells_max,
             const std::string &super_file = "", bool quick = false,
             const std::string &plan_file = "", const std::string &mapfile = "");

/* "30 in use, 5 dirty, 19 free, 1 damaged, 2 findings, 1 step", without zeros; "nothing" when all
 * are 0. */
std::string counts_text(const Counts &counts, uint64_t findings, uint64_t steps = 0,
                        uint64_t dirty = 0);

/* The share of a brick's entries that are dirty: "12%", 0 and 100 only when it is. */
std::string dirty_text(const MapOwner &owner);

/* "inode ages: time from the last access to the newest one" */
std::string ages_heading(const Map &map);

/* "expansion: 4029 to 29628" */
std::string expansion_text(const MapTable &table);

/* How many findings there are: "7", or "at least 7" when not all were searched for. */
std::string findings_count_text(const Map &map);

inline constexpr char QUICK_TEXT[] = "duplicates were not searched for";

/* What the ages leave out, as a sentence; empty: nothing. */
std::string odd_text(const Map &map);

/* The map as text, in lines of at most `width` characters, 1 or more. */
std::string draw_terminal(const Map &map, size_t width, bool colours);

/* How many cells the grid of a table has room for in that text; `last` as for CellsMax. */
size_t terminal_cells(size_t width, uint64_t last);

/* Style and script of every page: page.css and page.js. Both are free of '<' and '&', so that the
 * page is well-formed XML, too. */
extern const char MAP_STYLE[];
extern const char MAP_SCRIPT[];

/* The map as an HTML page that needs no other file. */
std::string draw_page(const Map &map);

} // namespace tierctl
