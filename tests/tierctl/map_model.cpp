#include "map_model.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tier_test {

namespace {

constexpr std::uint64_t PAGE_CELLS = 3000; // the most of a table on a page

std::uint64_t count(const CountsByWord &counts, const std::string &word)
{
    const auto found = counts.find(word);
    return found == counts.end() ? 0 : found->second;
}

// The class of a cell that shows so many entries.
std::string look_of(const CountsByWord &counts, std::uint64_t entries)
{
    if (count(counts, "unreadable") != 0)
        return "q";
    if (count(counts, "damaged") != 0)
        return "x";
    if (count(counts, "findings") != 0)
        return "f";
    if (count(counts, "dirty") != 0)
        return "d";
    const std::uint64_t used = count(counts, "in use");
    if (used == 0 || used == entries)
        return used == 0 ? "u0" : "u8";
    return "u" + std::to_string(1 + used * 7 / entries);
}

bool has_dirty_piece(const ExtentV2 &extent)
{
    return std::ranges::any_of(extent.maps, [](const auto &piece) {
        return piece.second.orig_len != 0 && piece.second.clean == 0;
    });
}

void add(const MapEntry &entry, CountsByWord &counts)
{
    counts[entry.state]++;
    if (entry.findings != 0)
        counts["findings"] += entry.findings;
    if (entry.dirty && entry.state == "in use")
        counts["dirty"]++;
}

} // namespace

void MapTable::set_slot(std::uint64_t slot, const std::string &state)
{
    for (std::uint32_t word = first_word; word < end_word; ++word)
        set(slot * end_word + word, state);
}

void MapTable::set(std::uint64_t no, const std::string &state)
{
    const auto entry = std::ranges::lower_bound(entries, no, {}, &MapEntry::no);
    if (entry == entries.end() || entry->no != no)
        throw std::out_of_range(name + " " + std::to_string(no));
    entry->state = state;
}

CountsByWord MapTable::counts() const
{
    CountsByWord counts;
    for (const MapEntry &entry : entries)
        add(entry, counts);
    return counts;
}

std::vector<Cell> MapTable::cells(std::uint64_t most) const
{
    std::vector<Cell> cells;
    const std::uint64_t length = (entries.size() + most - 1) / most;
    for (std::uint64_t at = 0; at < entries.size(); at += length) {
        const std::uint64_t end = std::min<std::uint64_t>(entries.size(), at + length);
        CountsByWord counts;
        for (std::uint64_t i = at; i < end; ++i)
            add(entries[i], counts);
        cells.push_back({entries[at].no, entries[end - 1].no, counts, look_of(counts, end - at)});
    }
    return cells;
}

MapTable free_table(const std::string &name, std::uint64_t slots, std::uint32_t first_word,
                    std::uint32_t end_word)
{
    MapTable table{name, first_word, end_word};
    for (std::uint64_t slot = 0; slot < slots; ++slot) {
        for (std::uint32_t word = first_word; word < end_word; ++word)
            table.entries.push_back({slot * end_word + word, "free"});
    }
    return table;
}

std::vector<MapTable> map_of(const Cache &cache)
{
    std::vector<MapTable> tables;
    for (const CacheTable &table : cache.tables) {
        const bool packed =
            cache.layout == "v3" && (table.name == "shard" || table.name == "extent");
        tables.push_back(free_table(table.name, table.count, packed && table.name == "shard",
                                    packed ? SLOTS_V3 : 1));
    }
    const auto use = [&tables](const std::string &name, const std::vector<std::uint64_t> &numbers) {
        for (const std::uint64_t no : numbers)
            table_of(tables, name).set(no, "in use");
    };
    use("super", {0});
    use("brick", {1});
    use("inode", {2});
    if (cache.layout == "v3") {
        use("shard", {512 + 1, 512 + 511});
        use("hot", {0, 1, 2}); // opaque: always
        use("extent", {1024, 1024 + 100});
        table_of(tables, "extent").entries[1024 + 100].dirty = true;
    } else {
        use("extent", {1, 3});
        for (const std::uint64_t no : {1, 3})
            table_of(tables, "extent").entries[no].dirty =
                cache.layout == "v2" ? has_dirty_piece(extent_v2_used(no, 2))
                                     : extent_used(no, 2).clean == 0;
    }
    return tables;
}

MapTable &table_of(std::vector<MapTable> &tables, const std::string &name)
{
    return *std::ranges::find(tables, name, &MapTable::name);
}

void add_findings(std::vector<MapTable> &tables, const std::string &device)
{
    const auto report = nlohmann::json::parse(run_ctl({"check", "--json", "--all", device}).out);
    for (const nlohmann::json &finding : report.at("findings")) {
        MapTable &table = table_of(tables, finding.at("table"));
        const std::uint64_t no = finding.at("no");
        const std::uint64_t entry =
            finding.at("unit") == "block" ? no * table.end_word + table.first_word : no;
        std::ranges::lower_bound(table.entries, entry, {}, &MapEntry::no)->findings++;
    }
}

std::string to_string(const Cell &cell)
{
    std::string result = text("%lu..%lu %s", cell.first, cell.last, cell.look.c_str());
    for (const auto &[word, number] : cell.counts)
        result += text(", %lu %s", number, word.c_str());
    return result;
}

void expect_grids(const pugi::xml_node &page, const std::vector<MapTable> &tables)
{
    const std::vector<Grid> grids = grids_of(page);
    ASSERT_EQ(grids.size(), tables.size());
    for (std::size_t i = 0; i < grids.size(); ++i) {
        SCOPED_TRACE(tables[i].name);
        EXPECT_EQ(grids[i].name, tables[i].name);
        EXPECT_EQ(grids[i].counts, tables[i].counts());
        const std::vector<Cell> cells = tables[i].cells(PAGE_CELLS);
        ASSERT_EQ(grids[i].cells.size(), cells.size());
        for (std::size_t at = 0; at < cells.size(); ++at)
            EXPECT_EQ(to_string(grids[i].cells[at]), to_string(cells[at]));
    }
}

} // namespace tier_test
