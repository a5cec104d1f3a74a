#include "zu_tierctl/check/seen.h"

#include <algorithm>
#include <iterator>

namespace tierctl {

namespace {

/* Whether the finding is about a slot, not about one of the entries packed into it. */
bool is_whole(const Finding &finding) { return !finding.packed || finding.unit == "block"; }

} // namespace

void NumberRuns::add(uint64_t first, uint64_t last)
{
    const auto after = runs_.upper_bound(first);
    if (after != runs_.begin()) {
        uint64_t &end = std::prev(after)->second;
        if (end >= first || first - end == 1) {
            end = std::max(end, last);
            return;
        }
    }
    runs_[first] = last;
}

bool NumberRuns::contains(uint64_t number) const
{
    const auto after = runs_.upper_bound(number);
    return after != runs_.begin() && std::prev(after)->second >= number;
}

void Seen::add(const Finding &finding)
{
    runs_[{finding.kind.name, finding.table, finding.unit}].add(finding.no, finding.last);
}

bool Seen::contains(const Finding &finding) const
{
    const auto numbers = runs_.find({finding.kind.name, finding.table, finding.unit});
    return numbers != runs_.end() && numbers->second.contains(finding.no);
}

void SeenEntries::add(const Finding &finding)
{
    OfTable &table = tables_[finding.table];
    table.slots.add(finding.slot, finding.last_slot);
    if (is_whole(finding)) {
        table.whole_slots.add(finding.slot, finding.last_slot);
    } else {
        table.entries.add(finding.no, finding.last);
    }
}

bool SeenEntries::contains(const Finding &finding) const
{
    const auto found = tables_.find(finding.table);
    if (found == tables_.end()) {
        return false;
    }
    const OfTable &table = found->second;
    return is_whole(finding)
               ? table.slots.contains(finding.slot)
               : table.entries.contains(finding.no) || table.whole_slots.contains(finding.slot);
}

} // namespace tierctl
