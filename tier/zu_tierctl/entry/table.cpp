#include "zu_tierctl/entry/table.h"

#include "zu_tierctl/device/error.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tierctl {

namespace {

/* Where a number ends within its entry. */
size_t end_of(const tier_number &number)
{
    return number ? number.at + (static_cast<size_t>(std::bit_width(number.mask)) + 7) / 8 : 0;
}

} // namespace

std::string flaws_text(uint32_t flaws)
{
    constexpr std::pair<Flaw, const char *> NAMES[] = {
        {BAD_MAGIC, "magic"}, {BAD_NUMBER, "number"}, {BAD_CHECKSUM, "checksum"}};
    std::vector<const char *> names;
    for (const auto &[flaw, name] : NAMES) {
        if ((flaws & flaw) != 0) {
            names.push_back(name);
        }
    }
    return fmt::format("{}", fmt::join(names, ", "));
}

Table::Table(const tier_table &table, const void *sb)
    : row(&table), name(table.name), record_length(table.record_length(sb)),
      first_word(table.packed() ? table.parts->first : 0),
      end_word(table.packed() ? SIZE_4K / table.parts->size : 1)
{
    const tier_regions all = table.regions(sb);
    regions.push_back(all[0]);
    if (all[1].count != 0) {
        regions.push_back(all[1]);
    }
}

uint64_t Table::count() const
{
    uint64_t entries = 0;
    for (const tier_region &region : regions) {
        entries += region.count;
    }
    return entries;
}

bool Table::identifies() const
{
    return fits() && record_length >=
                         std::max({end_of(row->magic), end_of(row->number), end_of(row->in_use)});
}

int64_t Table::slot(uint64_t no) const
{
    auto region = regions.begin();
    while (no >= region->count) {
        no -= region->count;
        ++region;
    }
    return region->slot(no);
}

void Table::seal_slot(uint8_t *slot) const
{
    tier_seal(*row, slot, static_cast<uint32_t>(record_length));
}

uint32_t Table::checksum_difference(const uint8_t *slot) const
{
    alignas(uint64_t) std::array<uint8_t, SIZE_4K> copy;
    memcpy(copy.data(), slot, record_length);
    const uint32_t stored = row->checksum->get(copy.data());
    return stored ^ row->crc(copy.data(), static_cast<uint32_t>(record_length));
}

uint32_t Table::flaws(uint64_t no, const uint8_t *slot) const
{
    uint32_t flaws = 0;
    if (row->magic && row->magic.get(slot) != row->magic_value) {
        flaws |= BAD_MAGIC;
    }
    if (row->number && row->number.get(slot) != no) {
        flaws |= BAD_NUMBER;
    }
    if (row->crc != nullptr && checksum_difference(slot) != 0) {
        flaws |= BAD_CHECKSUM;
    }
    return flaws;
}

std::vector<Table> tables_of(const tier_layout &layout, const void *sb)
{
    std::vector<Table> tables;
    for (const tier_table *row : layout.tables) {
        tables.emplace_back(*row, sb);
    }
    return tables;
}

const Table &find_table(const std::vector<Table> &tables, std::string_view name)
{
    const auto table = std::ranges::find(tables, name, &Table::name);
    if (table != tables.end()) {
        return *table;
    }
    std::vector<std::string_view> known(tables.size());
    std::ranges::transform(tables, known.begin(), &Table::name);
    throw UsageError(fmt::format("there is no table {}, but {}", name, fmt::join(known, ", ")));
}

std::string tables_text()
{
    const auto layouts = tier_layouts();
    const auto is_common = [layouts](const tier_table *table) {
        return std::ranges::all_of(layouts, [table](const tier_layout *layout) {
            return std::ranges::find(layout->tables, table->name, &tier_table::name) !=
                   layout->tables.end();
        });
    };
    std::string common;
    std::string others;
    for (const tier_layout *layout : layouts) {
        std::vector<std::string_view> own;
        for (const tier_table *table : layout->tables) {
            if (!is_common(table)) {
                own.push_back(table->name);
            } else if (layout == layouts.front()) {
                common += fmt::format("{}{}", common.empty() ? "" : ", ", table->name);
            }
        }
        if (!own.empty()) {
            const std::string_view last = own.back();
            own.pop_back();
            others += fmt::format("; in {} also {}{}{}", layout->name, fmt::join(own, ", "),
                                  own.empty() ? "" : " and ", last);
        }
    }
    return common + others;
}

bool is_referred_to(const tier_layout &layout, const tier_table &table)
{
    return std::ranges::any_of(layout.tables, [&table](const tier_table *other) {
        return other->owner.table == table.name;
    });
}

const tier_layout *find_layout(std::string_view name)
{
    const auto layouts = tier_layouts();
    const auto found = std::ranges::find(layouts, name, &tier_layout::name);
    return found == layouts.end() ? nullptr : *found;
}

} // namespace tierctl
