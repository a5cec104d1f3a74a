#include "zu_tierctl/check/table.h"

#include <fmt/format.h>

namespace tierctl {

namespace {

constexpr EntryPlace SUPER_PLACE = {0, 0, TIER_SUPER_OFFSET};

/* Where an area ends, or TIER_PAST_ANY. */
uint64_t end_of(const tier_area &area) { return tier_add(area.start, area.length); }

std::string area_text(const tier_area &area)
{
    if (area.start == TIER_PAST_ANY) {
        return fmt::format("the {} (past any offset)", area.name);
    }
    const char *past = end_of(area) == TIER_PAST_ANY ? ", past any offset" : "";
    return area.length == TIER_PAST_ANY
               ? fmt::format("the {} (from {} on{})", area.name, area.start, past)
               : fmt::format("the {} ({} bytes from {} on{})", area.name, area.length, area.start,
                             past);
}

void check_area(const tier_area &area, uint64_t device_size, const TableFindings &findings)
{
    if (area.length != 0 && end_of(area) > device_size) {
        findings.add(
            {"area_past_end"}, SUPER_PLACE,
            fmt::format("{} reaches past the device's end at {}", area_text(area), device_size));
    }
    if (area.aligned && area.start != TIER_PAST_ANY && area.start % SIZE_4K != 0) {
        findings.add({"area_misaligned"}, SUPER_PLACE,
                     area_text(area) + " does not begin at a multiple of 4096");
    }
}

bool overlap(const tier_area &one, const tier_area &other)
{
    return one.length != 0 && other.length != 0 && one.start < end_of(other) &&
           other.start < end_of(one);
}

void check_areas(const std::vector<tier_area> &areas, uint64_t device_size,
                 const TableFindings &findings)
{
    for (auto area = areas.begin(); area != areas.end(); ++area) {
        check_area(*area, device_size, findings);
        for (auto other = areas.begin(); other != area; ++other) {
            if (overlap(*other, *area)) {
                findings.add({"areas_overlap"}, SUPER_PLACE,
                             area_text(*area) + " overlaps " + area_text(*other));
            }
        }
    }
}

} // namespace

void check_super(const Metadata &metadata, const std::optional<Cause> &conversion,
                 uint64_t device_size, const TableFindings &findings)
{
    if (conversion) {
        findings.add({"tables_of_another_layout"}, SUPER_PLACE, conversion->text);
    }
    EntryFindings rule_findings(findings, SUPER_PLACE);
    const void *sb = metadata.super();
    for (const tier_rule &rule : metadata.tables.front().row->rules) {
        if (!rule.holds(sb)) {
            rule.explain(sb, rule.kind, rule_findings);
        }
    }
    check_areas(metadata.layout->areas(sb), device_size, findings);
}

} // namespace tierctl
