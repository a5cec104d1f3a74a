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

Certainty lower(Certainty a, Certainty b) { return std::max(a, b); }

uint64_t Readings::add(std::string_view key, Certainty certainty, std::vector<Values> values)
{
    NumberReading reading{key, certainty, std::move(values)};
    for (const Hint &hint : hints_) {
        if (hint.layout == &layout_) {
            follow(hint, &reading);
        }
    }
    readings_.push_back(std::move(reading));
    return readings_.back().value();
}

uint64_t Readings::add(std::string_view key, Certainty certainty, uint64_t value,
                       std::string reason)
{
    readings_.push_back({key, certainty, {value_of(value, std::move(reason))}});
    return value;
}

Certainty Readings::certainty(std::string_view key) const
{
    return std::ranges::find(readings_, key, &NumberReading::key)->certainty;
}

void Readings::limit(std::string_view key, Certainty certainty)
{
    const auto reading = std::ranges::find(readings_, key, &NumberReading::key);
    reading->certainty = lower(reading->certainty, certainty);
}

/* A number of the hint that the tables allow is taken; one that they chose themselves is surer. */
void Readings::follow(const Hint &hint, NumberReading *reading) const
{
    const std::optional<uint64_t> number = super_number(layout_, hint.block, reading->key);
    if (!number) {
        return;
    }
    if (*number == reading->value()) {
        const bool twice = hint.own && reading->certainty == Certainty::likely;
        if (twice) {
            reading->certainty = Certainty::certain;
        } else if (reading->certainty == Certainty::none) {
            reading->certainty = Certainty::likely;
        }
        reading->values.front().reason += "; so says " + hint.source;
        return;
    }
    const bool allowed = std::ranges::any_of(
        reading->values, [&](const Values &values) { return values.has(*number); });
    if (allowed && reading->certainty == Certainty::none) {
        reading->certainty = Certainty::likely;
        reading->values.insert(
            reading->values.begin(),
            value_of(*number, "so says " + hint.source + ", and the tables do not contradict it"));
    }
}

std::optional<uint64_t> super_number(const tier_layout &layout, const Block &block,
                                     std::string_view key)
{
    const tier_columns columns = layout.tables.front()->keys();
    const auto column = std::ranges::find(columns, key, &tier_column::key);
    if (column == columns.end() || column->type != tier_column_type::number) {
        return std::nullopt;
    }
    return column_number(*column, block.data());
}

Certainty end_certainty(uint64_t entries, uint64_t lost, bool clean_end)
{
    return clean_end && entries >= ENTRIES_FOR_AN_END && lost <= entries / ENTRIES_A_LOST_ONE
               ? Certainty::likely
               : Certainty::none;
}

} // namespace tierctl
