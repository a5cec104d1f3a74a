#include "zu_tierctl/rescue/reading.h"

#include "zu_tierctl/entry/fields.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

namespace {

/* Of so many entries one in a hundred may be lost: then it is unlikely that the last are. */
constexpr uint64_t ENTRIES_FOR_AN_END = 64;
constexpr uint64_t ENTRIES_A_LOST_ONE = 100;

} // namespace

bool NumberReading::may_be(uint64_t value) const
{
    return (range && range->first <= value && value <= range->last) ||
           std::ranges::find(candidates, value, &Candidate::value) != candidates.end();
}

Certainty lower(Certainty a, Certainty b) { return std::max(a, b); }

std::string_view certainty_text(Certainty certainty)
{
    return certainty == Certainty::none ? "not certain" : certainty_name(certainty);
}

uint64_t Readings::add(std::string_view key, Certainty certainty, std::vector<Candidate> candidates,
                       const Range &range)
{
    NumberReading reading{.key = key, .certainty = certainty};
    if (certainty != Certainty::certain) {
        reading.range = range;
    }
    for (Candidate &candidate : candidates) {
        if (std::ranges::find(reading.candidates, candidate.value, &Candidate::value) ==
            reading.candidates.end()) {
            reading.candidates.push_back(std::move(candidate));
        }
    }
    for (const Hint &hint : hints_) {
        if (hint.layout == &layout_) {
            follow(hint, &reading);
        }
    }
    readings_.push_back(std::move(reading));
    return readings_.back().value();
}

uint64_t Readings::add(std::string_view key, Certainty certainty, uint64_t value,
                       std::string reason, const Range &range)
{
    std::vector<Candidate> candidates;
    candidates.push_back({value, std::move(reason)});
    return add(key, certainty, std::move(candidates), range);
}

uint64_t Readings::add(std::string_view key, Certainty certainty, uint64_t value,
                       std::string reason)
{
    readings_.push_back({.key = key, .certainty = certainty});
    readings_.back().candidates.push_back({value, std::move(reason)});
    return value;
}

Certainty Readings::certainty(std::string_view key) const
{
    return std::ranges::find(readings_, key, &NumberReading::key)->certainty;
}

/* A number that the tables chose themselves is surer when the hint says the same: certain when all
 * that is left of the block agrees, unless it is 0, as bytes are that were overwritten. One that
 * the tables allow is taken where they are not sure, and is likely then unless the hint contradicts
 * them elsewhere or is denied by its checksum; otherwise it is the runner-up. */
void Readings::follow(const Hint &hint, NumberReading *reading) const
{
    const uint64_t number = super_number(layout_, hint.block, reading->key).value();
    std::vector<Candidate> &candidates = reading->candidates;
    if (!reading->may_be(number)) {
        return;
    }
    const bool is_sure = reading->certainty != Certainty::none;
    const bool is_same = number == reading->value();
    const bool is_weak = hint.is_doubtful || (hint.is_denied && !is_same);
    const Certainty hinted = is_weak ? Certainty::none : Certainty::likely;
    if (is_same) {
        candidates.front().reason += "; so says " + hint.source;
        if (!is_sure) {
            reading->certainty = hinted;
        } else if (hint.is_proof && number != 0) {
            reading->certainty = Certainty::certain;
            reading->range.reset();
            candidates.resize(1);
        }
        return;
    }
    std::erase_if(candidates,
                  [&](const Candidate &candidate) { return candidate.value == number; });
    candidates.insert(candidates.begin() + (is_sure ? 1 : 0),
                      {number, "so says " + hint.source + ", and the tables do not contradict it"});
    if (!is_sure) {
        reading->certainty = hinted;
    }
}

std::optional<uint64_t> super_number(const tier_layout &layout, const Block &block,
                                     std::string_view key)
{
    const tier_columns columns = layout.tables.front()->keys();
    const auto column = std::ranges::find(columns, key, &tier_column::key);
    if (column == columns.end()) {
        return std::nullopt;
    }
    return column_number(*column, block.data());
}

Block sealed(const tier_layout &layout, Block block)
{
    Table(*layout.tables.front(), block.data()).seal_slot(block.data());
    return block;
}

Certainty end_certainty(uint64_t entries, uint64_t lost, bool clean_end)
{
    return clean_end && entries >= ENTRIES_FOR_AN_END && lost <= entries / ENTRIES_A_LOST_ONE
               ? Certainty::likely
               : Certainty::none;
}

} // namespace tierctl
