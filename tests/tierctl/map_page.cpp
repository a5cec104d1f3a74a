#include "map_page.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace tier_test {

namespace {

class PageParser {
public:
    explicit PageParser(std::string_view page) : rest_(page) {}

    Element parse()
    {
        expect("<!DOCTYPE html>\n");
        expect("<");
        Element root = element();
        expect("\n");
        if (!rest_.empty())
            fail("end");
        return root;
    }

private:
    [[noreturn]] void fail(const std::string &expected) const
    {
        throw std::runtime_error("expected " + expected +
                                 " at: " + std::string(rest_.substr(0, 60)));
    }

    bool take(std::string_view token)
    {
        if (!rest_.starts_with(token))
            return false;
        rest_.remove_prefix(token.size());
        return true;
    }

    void expect(std::string_view token)
    {
        if (!take(token))
            fail(std::string(token));
    }

    std::string name()
    {
        const auto end = std::ranges::find_if_not(
            rest_, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-'; });
        const std::string result(rest_.begin(), end);
        if (result.empty())
            fail("a name");
        rest_.remove_prefix(result.size());
        return result;
    }

    // Up to `end`, which stays.
    std::string text(char end)
    {
        std::string result;
        while (!rest_.empty() && rest_.front() != end) {
            if (take("&#"))
                result += static_cast<char>(reference());
            else if (std::string_view("<>&").find(rest_.front()) != std::string_view::npos)
                fail("a text without markup");
            else {
                result += rest_.front();
                rest_.remove_prefix(1);
            }
        }
        return result;
    }

    unsigned reference()
    {
        unsigned code = 0;
        const auto [stop, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), code);
        if (error != std::errc{})
            fail("a number");
        rest_.remove_prefix(static_cast<std::size_t>(stop - rest_.data()));
        expect(";");
        return code;
    }

    // What follows a "<".
    Element element()
    {
        Element result{name()};
        while (take(" ")) {
            const std::string key = name();
            expect("=\"");
            if (!result.attributes.emplace(key, text('"')).second)
                fail("an attribute only once");
            expect("\"");
        }
        if (take("/>"))
            return result;
        expect(">");
        if (result.name == "style" || result.name == "script")
            result.text = raw();
        else
            content(result);
        expect("</" + result.name + ">");
        return result;
    }

    // Style and script, which are the same in HTML and XML without these characters.
    std::string raw()
    {
        const std::string result(rest_.substr(0, rest_.find('<')));
        if (result.find('&') != std::string::npos)
            fail("no '&' in style and script");
        rest_.remove_prefix(result.size());
        return result;
    }

    void content(Element &parent)
    {
        while (true) {
            parent.text += text('<');
            if (rest_.starts_with("</"))
                return;
            expect("<");
            parent.children.push_back(element());
        }
    }

    std::string_view rest_;
};

std::uint64_t number_of(const std::string &text)
{
    std::uint64_t number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || stop != text.data() + text.size())
        throw std::runtime_error("no number: " + text);
    return number;
}

// "7: 1 in use", "0 to 4: 3 in use, 2 free"
Cell cell_of(const Element &element)
{
    const std::string title = element.attribute("title");
    const std::size_t colon = title.find(": ");
    const std::string range = title.substr(0, colon);
    const std::size_t to = range.find(" to ");
    const std::string last = to == std::string::npos ? range : range.substr(to + 4);
    return {number_of(range.substr(0, to)), number_of(last), counts_of(title.substr(colon + 2)),
            element.attribute("class")};
}

} // namespace

std::string Element::attribute(const std::string &key) const
{
    const auto found = attributes.find(key);
    return found == attributes.end() ? "" : found->second;
}

std::vector<const Element *> Element::all(const std::string &wanted) const
{
    std::vector<const Element *> found;
    for (const Element &child : children) {
        if (child.name == wanted)
            found.push_back(&child);
        const auto deeper = child.all(wanted);
        found.insert(found.end(), deeper.begin(), deeper.end());
    }
    return found;
}

std::string Element::whole_text() const
{
    std::string result = text;
    for (const Element &child : children)
        result += child.whole_text();
    return result;
}

Element parse_page(const std::string &page)
{
    return PageParser(page).parse();
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

std::vector<Grid> grids_of(const Element &page)
{
    std::vector<Grid> grids;
    for (const Element *section : page.all("section")) {
        const Element &head = section->children.front();
        if (head.attribute("class") != "head")
            continue;
        grids.push_back({head.children.at(0).text, counts_of(head.children.at(1).text)});
        for (const Element *cell : section->all("i"))
            grids.back().cells.push_back(cell_of(*cell));
    }
    return grids;
}

std::vector<std::vector<std::string>> rows_of(const Element &page, const std::string &heading)
{
    std::vector<std::vector<std::string>> rows;
    for (const Element *section : page.all("section")) {
        if (section->children.front().text != heading)
            continue;
        for (const Element *body : section->all("tbody")) {
            for (const Element *row : body->all("tr")) {
                rows.emplace_back();
                for (const Element &cell : row->children)
                    rows.back().push_back(cell.whole_text());
            }
        }
    }
    return rows;
}

} // namespace tier_test
