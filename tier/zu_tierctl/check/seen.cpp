#include "zu_tierctl/check/seen.h"

#include <algorithm>
#include <iterator>

namespace tierctl {

void Seen::add(const Finding &finding)
{
    Numbers &numbers = runs_[{finding.kind.name, finding.table, finding.unit}];
    const auto after = numbers.upper_bound(finding.no);
    if (after != numbers.begin()) {
        uint64_t &last = std::prev(after)->second;
        if (last >= finding.no || finding.no - last == 1) {
            last = std::max(last, finding.last);
            return;
        }
    }
    numbers[finding.no] = finding.last;
}

bool Seen::contains(const Finding &finding) const
{
    const auto numbers = runs_.find({finding.kind.name, finding.table, finding.unit});
    if (numbers == runs_.end()) {
        return false;
    }
    const auto after = numbers->second.upper_bound(finding.no);
    return after != numbers->second.begin() && std::prev(after)->second >= finding.no;
}

} // namespace tierctl
