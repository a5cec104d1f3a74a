#pragma once

// The filter of a dump as the command line takes it.

#include "run.h"

#include <string>
#include <utility>
#include <vector>

namespace tier_test {

inline std::vector<std::string> filter_pairs(const Settings &filter)
{
    const std::vector<std::pair<std::string, int>> numbers{
        {"use=", filter.use}, {"owner=", filter.owner}, {"error=", filter.error}};
    std::vector<std::string> pairs;
    for (const auto &[key, value] : numbers)
        if (value >= 0)
            pairs.push_back(key + std::to_string(value));
    if (!filter.id.empty())
        pairs.push_back("id=" + filter.id);
    return pairs;
}

inline std::vector<std::string> filter_args(const std::vector<std::string> &pairs)
{
    std::string argument;
    for (const std::string &pair : pairs)
        argument.append(argument.empty() ? "" : ",").append(pair);
    return argument.empty() ? std::vector<std::string>{} : std::vector{std::string("-g"), argument};
}

} // namespace tier_test
