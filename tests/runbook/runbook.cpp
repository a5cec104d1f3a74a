#include "runbook.h"

#include <ostream>
#include <sstream>

namespace tier_test {

std::ostream &operator<<(std::ostream &out, const Section &section) { return out << section.title; }

std::vector<Section> sections_of(const std::string &page)
{
    std::vector<Section> sections;
    bool in_console = false;
    std::istringstream in(page);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("## "))
            sections.push_back({line.substr(3), {}});
        else if (line.starts_with("```"))
            in_console = line == "```console";
        else if (in_console && line.starts_with("$ "))
            sections.back().steps.push_back({line.substr(2) + "\n", ""});
        else if (in_console && line.starts_with("> "))
            sections.back().steps.back().command += line.substr(2) + "\n";
        else if (in_console)
            sections.back().steps.back().output += line + "\n";
    }
    std::erase_if(sections, [](const Section &section) { return section.steps.empty(); });
    return sections;
}

bool matches(const std::string &text, const std::string &shown)
{
    static const std::string ANYTHING = "...";
    const std::size_t gap = shown.find(ANYTHING);
    if (gap == std::string::npos)
        return text == shown;
    if (!text.starts_with(shown.substr(0, gap)))
        return false;
    std::size_t at = gap; // in the text
    std::size_t begin = gap + ANYTHING.size();
    for (std::size_t end = 0; (end = shown.find(ANYTHING, begin)) != std::string::npos;
         begin = end + ANYTHING.size()) {
        const std::string part = shown.substr(begin, end - begin);
        at = text.find(part, at);
        if (at == std::string::npos)
            return false;
        at += part.size();
    }
    const std::string last = shown.substr(begin);
    return text.size() - at >= last.size() && text.ends_with(last);
}

} // namespace tier_test
