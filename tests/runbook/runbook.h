#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tier_test {

// A command of a page and the output that stands below it.
struct Step {
    std::string command; // its lines
    std::string output;
};

// The commands of one section of a page: those in its ```console blocks, each after "$ " and
// continued after "> ".
struct Section {
    std::string title;
    std::vector<Step> steps;
};
std::ostream &operator<<(std::ostream &out, const Section &section); // its title

std::vector<Section> sections_of(const std::string &page);

// Whether a text is what the page shows; "..." there stands for anything.
bool matches(const std::string &text, const std::string &shown);

} // namespace tier_test
