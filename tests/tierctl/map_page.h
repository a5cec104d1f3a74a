#pragma once

// The page that zu_tierctl map writes, read as XML, and what it shows.

#include <cstdint>
#include <map>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <utility>
#include <vector>

namespace tier_test {

// Reads a page that begins with "<!DOCTYPE html>" and apart from that is well-formed XML; throws
// when it is not.
pugi::xml_document parse_page(const std::string &page);

// The texts of the nodes that an XPath expression selects, each with all elements in it.
std::vector<std::string> texts_of(const pugi::xml_node &node, const char *path);

// The number of entries by state, in the words of the page ("in use", "free", "findings" ...).
using CountsByWord = std::map<std::string, std::uint64_t>;

// "3 in use, 1 finding"
CountsByWord counts_of(const std::string &text);

struct Cell {
    std::uint64_t first;
    std::uint64_t last;
    CountsByWord counts;
    std::string look; // its class
};

struct Grid {
    std::string name;
    CountsByWord counts; // beside the name
    std::vector<Cell> cells{};
    // The numbers beside it, each with the index of the cell that follows.
    std::vector<std::pair<std::size_t, std::uint64_t>> axis{};
    std::optional<std::size_t> expansion{}; // index of the cell after its heading
};

std::vector<Grid> grids_of(const pugi::xml_node &page);

// The cells of each row of the table under that heading, without the head; nothing when there is no
// such heading.
std::vector<std::vector<std::string>> rows_of(const pugi::xml_node &page,
                                              const std::string &heading);

} // namespace tier_test
