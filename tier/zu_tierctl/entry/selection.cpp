#include "zu_tierctl/entry/selection.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

namespace {

/* As many as the largest tables have; their numbers take 8 MiB. */
constexpr uint64_t SLOTS_MAX = uint64_t{1} << 20;

constexpr std::string_view RANGE = "..";

/* "7" or "9..12". */
std::pair<uint64_t, uint64_t> read_range(std::string_view text)
{
    const size_t dots = text.find(RANGE);
    const auto first = parse_number(text.substr(0, dots));
    const auto last =
        dots == std::string_view::npos ? first : parse_number(text.substr(dots + RANGE.size()));
    if (!first || !last) {
        throw UsageError(fmt::format("NO {}: expected a number of up to 64 bits, or several as in "
                                     "3,7,9..12",
                                     text));
    }
    if (*first > *last) {
        throw UsageError(fmt::format("NO {}: the first number is larger than the last", text));
    }
    return {*first, *last};
}

/* Of the entries at both ends of a range: the word of its slot, which must be an entry. */
void require_entry(const Table &table, uint64_t no)
{
    if (no % table.end_word < table.first_word) {
        throw UsageError(fmt::format("{} {} is the head of block {} and no entry", table.name, no,
                                     no / table.end_word));
    }
}

} // namespace

EntryOperands read_operands(const std::string &table, const std::string &numbers)
{
    const size_t colon = table.find(':');
    const bool entries = colon != std::string::npos;
    if (entries != numbers.empty()) {
        throw UsageError(entries ? table + " has its number: NO is not expected"
                                 : "NO is required");
    }
    EntryOperands operands{
        table.substr(0, colon), entries ? table.substr(colon + 1) : numbers, entries, {}};
    for (const std::string_view part : split(operands.numbers, ',')) {
        operands.ranges.push_back(read_range(part));
    }
    return operands;
}

Selection select_slots(const std::vector<Table> &tables, const EntryOperands &operands)
{
    Selection selection{find_table(tables, operands.table), {}, {}};
    const Table &table = selection.table;
    const uint64_t words = operands.entries ? table.end_word : 1;
    uint64_t left = SLOTS_MAX;
    for (const auto &[first, last] : operands.ranges) {
        const uint64_t first_slot = first / words;
        const uint64_t last_slot = last / words;
        if (last_slot >= table.count()) {
            throw UsageError(fmt::format("{} {}: the table has {} {}", table.name,
                                         range_text(first, last), table.count(),
                                         table.row->packed() ? "blocks" : "entries"));
        }
        if (last_slot - first_slot >= left) {
            throw UsageError(fmt::format("{} {}: more than {} at a time", table.name,
                                         operands.numbers, SLOTS_MAX));
        }
        left -= last_slot - first_slot + 1;
        if (operands.entries && table.row->packed()) {
            require_entry(table, first);
            require_entry(table, last);
            const bool one = first_slot == last_slot;
            selection.notes.push_back(
                fmt::format("{} {} {} in {} {}", table.name, range_text(first, last),
                            first == last ? "is" : "are", one ? "block" : "blocks",
                            range_text(first_slot, last_slot)));
        }
        for (uint64_t slot = first_slot; slot <= last_slot; slot++) {
            selection.slots.push_back(slot);
        }
    }
    std::ranges::sort(selection.slots);
    selection.slots.erase(std::unique(selection.slots.begin(), selection.slots.end()),
                          selection.slots.end());
    return selection;
}

std::string numbers_text(std::span<const uint64_t> numbers)
{
    std::string text;
    for (auto first = numbers.begin(); first != numbers.end();) {
        auto last = first;
        while (last + 1 != numbers.end() && last[1] == *last + 1) {
            ++last;
        }
        text += fmt::format("{}{}", text.empty() ? "" : ",", range_text(*first, *last));
        first = last + 1;
    }
    return text;
}

} // namespace tierctl
