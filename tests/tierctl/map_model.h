#pragma once

// What a map must show: a state for every entry, by the test's own knowledge of the device, and
// what zu_tierctl check finds.

#include "cache.h"
#include "map_page.h"

namespace tier_test {

struct MapEntry {
    std::uint64_t no;
    std::string state; // "in use", "free", "damaged", "unreadable"
    std::uint64_t findings = 0;
    bool dirty = false;
};

struct MapTable {
    std::string name;
    std::uint32_t first_word; // words of a slot that are entries: first_word..end_word - 1
    std::uint32_t end_word;
    std::vector<MapEntry> entries{};

    // Gives all entries of a slot that state.
    void set_slot(std::uint64_t slot, const std::string &state);
    void set(std::uint64_t no, const std::string &state);

    CountsByWord counts() const;

    // Cut into cells of the same length, but for the last, at most that many.
    std::vector<Cell> cells(std::uint64_t most) const;
};

// A table of so many slots in which nothing is in use.
MapTable free_table(const std::string &name, std::uint64_t slots, std::uint32_t first_word = 0,
                    std::uint32_t end_word = 1);

// The tables of make_cache(layout) without their findings.
std::vector<MapTable> map_of(const Cache &cache);

MapTable &table_of(std::vector<MapTable> &tables, const std::string &name);

// Adds what zu_tierctl check finds on the device.
void add_findings(std::vector<MapTable> &tables, const std::string &device);

std::string to_string(const Cell &cell);

// The grids of a page are these tables.
void expect_grids(const pugi::xml_node &page, const std::vector<MapTable> &tables);

} // namespace tier_test
