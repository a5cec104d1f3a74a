#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/check/watcher.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What there is to draw of a device, as large for a large device as for a small one. */

/* What a cell shows: the first of these that it has. */
enum class Look { unreadable, damaged, finding, in_use, free };

/* Entries that follow one another. */
struct MapCell {
    uint64_t first; /* numbers */
    uint64_t last;
    Counts counts;
    uint64_t findings = 0; /* that are about one of them, or begin with it */

    Look look() const;

    /* How much of it is in use: 0 nothing, 8 all, and between them eighths of the rest. */
    unsigned level() const;
};

struct MapTable {
    std::string_view name;
    Numbering numbering;
    uint64_t cell_entries; /* of each cell but perhaps the last */
    Counts counts;
    uint64_t findings = 0;
    std::vector<MapCell> cells{};
};

/* What is in use for a brick. */
struct MapBrick {
    std::string name; /* its number, or "other" */
    std::string path; /* for people; or why there is none */
    bool in_use = false;
    uint64_t inodes = 0;
    uint64_t bytes = 0; /* of their files; 2^64 - 1 stands for more, too */
    uint64_t extents = 0;
};

/* Inodes in use by the time from their last access to the newest one of the device. */
struct MapAge {
    std::string_view name;
    uint64_t end; /* nanoseconds; what is older is not of this class */
    uint64_t inodes = 0;
};

struct MapFinding {
    Severity severity;
    std::string about; /* "inode 7" */
    std::string text;
    std::string command;
};

struct Map {
    static constexpr size_t FINDINGS_MAX = 1000;

    std::string device;
    std::string_view layout;
    std::string identity;
    std::string created;
    std::string accessed; /* the newest access; empty: nothing is in use */
    std::vector<MapTable> tables;
    std::vector<MapBrick> bricks; /* in use or named by an inode; most extents first */
    std::vector<MapAge> ages;
    std::vector<MapFinding> findings; /* the first of them */
    uint64_t findings_count = 0;
};

/* The most cells, 1 or more, for a table whose last entry has that number. */
using CellsMax = std::function<size_t(uint64_t last)>;

/* Reads the metadata of a device and checks it. Throws when it cannot be read. */
Map read_map(const std::string &device, const CellsMax &cells_max);

/* For people: "7", "1.5 KiB" */
std::string bytes_text(uint64_t bytes);

/* "30 in use, 19 free, 1 damaged, 2 findings": what there is of each. */
std::string counts_text(const Counts &counts, uint64_t findings);

/* As it is when it is printable ASCII, else quoted. */
std::string shown_text(const std::string &text);

/* The map in characters, in lines of at most `width` of them, 1 or more. */
std::string draw_terminal(const Map &map, size_t width, bool colours);

/* The cells that it has room for in the grid of a table. */
size_t terminal_cells(size_t width, uint64_t last);

/* The map as a page that needs nothing else. */
std::string draw_page(const Map &map);

} // namespace tierctl
