#include "map_page.h"

#include <charconv>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace tier_test {

namespace {

void require(bool fine, const std::string &what)
{
    if (!fine)
        throw std::runtime_error("no well-formed page: " + what);
}

// Refuses what the reader of XML lets pass: bare markup characters, attributes that occur twice,
// and nodes that are neither elements nor text.
class StrictWalker : public pugi::xml_tree_walker {
    bool for_each(pugi::xml_node &node) override
    {
        require(node.type() == pugi::node_element || node.type() == pugi::node_pcdata,
                node.value());
        const std::string parent = node.parent().name();
        if (parent == "style" || parent == "script")
            require(std::string_view(node.value()).find('&') == std::string_view::npos, parent);
        else
            require_escaped(node.value());
        std::set<std::string> names;
        for (const pugi::xml_attribute &attribute : node.attributes()) {
            require(names.insert(attribute.name()).second, attribute.name());
            require_escaped(attribute.value());
        }
        return true;
    }

    static void require_escaped(const std::string &text)
    {
        static const std::regex reference("&#[0-9]+;");
        const bool is_plain = text.find_first_of("<>&") == std::string::npos;
        require(is_plain || std::regex_replace(text, reference, "").find_first_of("<>&") ==
                                std::string::npos,
                text);
    }
};

pugi::xml_document parse(const std::string &page, unsigned options)
{
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_string(page.c_str(), options);
    require(result.status == pugi::status_ok, result.description());
    return document;
}

std::uint64_t number_of(const std::string &text)
{
    std::uint64_t number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || stop != text.data() + text.size())
        throw std::runtime_error("no number: " + text);
    return number;
}

// "7: 1 in use", "0 to 4: 3 in use, 2 free"
Cell cell_of(const pugi::xml_node &element)
{
    const std::string title = element.attribute("title").value();
    const std::size_t colon = title.find(": ");
    const std::string range = title.substr(0, colon);
    const std::size_t to = range.find(" to ");
    const std::string last = to == std::string::npos ? range : range.substr(to + 4);
    return {number_of(range.substr(0, to)), number_of(last), counts_of(title.substr(colon + 2)),
            element.attribute("class").value()};
}

// An element of a grid: a cell, a number of the axis, or "expansion: 4 to 25603".
void add(const pugi::xml_node &element, Grid &grid)
{
    const std::string kind = element.attribute("class").value();
    const std::string text = element.text().get();
    const std::size_t at = grid.cells.size();
    if (std::string(element.name()) == "i") {
        grid.cells.push_back(cell_of(element));
    } else if (kind == "axis") {
        grid.axis.emplace_back(at, number_of(text));
    } else {
        require(kind == "part" && text.starts_with("expansion: ") && !grid.expansion, text);
        grid.expansion = at;
    }
}

} // namespace

pugi::xml_document parse_page(const std::string &page)
{
    require(page.starts_with("<!DOCTYPE html>\n<html "), page.substr(0, 60));
    require(page.ends_with("</html>\n"), page.substr(page.rfind('<')));
    pugi::xml_document raw =
        parse(page, pugi::parse_full & ~pugi::parse_escapes & ~pugi::parse_doctype);
    require(raw.first_child() == raw.last_child(), "one root");
    StrictWalker walker;
    raw.traverse(walker);
    return parse(page, pugi::parse_default);
}

std::vector<std::string> texts_of(const pugi::xml_node &node, const char *path)
{
    std::vector<std::string> texts;
    for (const pugi::xpath_node &found : node.select_nodes(path))
        texts.push_back(pugi::xpath_query("string(.)").evaluate_string(found));
    return texts;
}

CountsByWord counts_of(const std::string &text)
{
    CountsByWord counts;
    std::istringstream parts(text);
    for (std::string part; text != "nothing" && std::getline(parts >> std::ws, part, ',');) {
        const std::size_t space = part.find(' ');
        std::string word = part.substr(space + 1);
        if (word == "finding")
            word = "findings";
        counts[word] = number_of(part.substr(0, space));
    }
    return counts;
}

std::vector<Grid> grids_of(const pugi::xml_node &page)
{
    std::vector<Grid> grids;
    for (const pugi::xpath_node &found : page.select_nodes("//section[div/@class='head']")) {
        const pugi::xml_node section = found.node();
        const pugi::xml_node head = section.first_child();
        grids.push_back({head.child("h2").text().get(), counts_of(head.child("p").text().get())});
        for (const pugi::xml_node &element : section.child("div").next_sibling("div").children())
            add(element, grids.back());
    }
    return grids;
}

std::vector<std::vector<std::string>> rows_of(const pugi::xml_node &page,
                                              const std::string &heading)
{
    std::vector<std::vector<std::string>> rows;
    const std::string path = "//section[h2='" + heading + "']//tbody/tr";
    for (const pugi::xpath_node &row : page.select_nodes(path.c_str()))
        rows.push_back(texts_of(row.node(), "td"));
    return rows;
}

} // namespace tier_test
