#pragma once

// The page that zu_tierctl map writes, read as XML, and what it shows.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tier_test {

// An element with its attributes, the text in it and the elements in it.
struct Element {
    std::string name;
    std::map<std::string, std::string> attributes{};
    std::string text{};
    std::vector<Element> children{};

    std::string attribute(const std::string &key) const;

    // Those of that name at any depth, in order.
    std::vector<const Element *> all(const std::string &wanted) const;

    // Of all elements in it, too.
    std::string whole_text() const;
};

// The root of a page that begins with "<!DOCTYPE html>" and is else well-formed XML; throws when it
// is not.
Element parse_page(const std::string &page);

// How many entries are what, by the words of the page ("in use", "free", "findings" ...).
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
};

std::vector<Grid> grids_of(const Element &page);

// The cells of each row of the table under that heading, without the head; nothing when there is no
// such heading.
std::vector<std::vector<std::string>> rows_of(const Element &page, const std::string &heading);

} // namespace tier_test
