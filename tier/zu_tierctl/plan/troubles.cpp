#include "zu_tierctl/plan/troubles.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

namespace {

/* A block of packed entries may have hundreds. */
constexpr size_t TEXT_MAX = 400;

/* What is wrong with one entry of a block. */
std::string word_text(const Table &table, uint64_t no, const std::string &text)
{
    return fmt::format("{} {}: {}", table.name, no, text);
}

/* Entries of other tables may refer to those of a table below this number. */
uint64_t owners_end(const Metadata &metadata, const Table &table)
{
    const uint64_t count = table.count() * table.end_word;
    if (table.row->bounds == nullptr) {
        return count;
    }
    const tier_bounds bounds = table.row->bounds(metadata.super());
    return std::min({count, bounds.closed, bounds.missing});
}

void add_text(Trouble &trouble, const std::string &text)
{
    if (trouble.text.size() + text.size() > TEXT_MAX) {
        trouble.left_out++;
        return;
    }
    trouble.text += trouble.text.empty() ? "" : "; ";
    trouble.text += text;
}

} // namespace

void Troubles::add_sound(const SlotWords &words)
{
    const tier_owner &owner = table_->row->owner;
    const auto freed = freed_.find(owner.table);
    if (freed == freed_.end() || !table_->row->ends_with_owner) {
        return;
    }
    for (const uint16_t k : words.used) {
        const uint64_t owner_no = owner.no.get(Table::entry(words.data, k));
        if (freed->second.contains(owner_no)) {
            add_orphan(
                *table_, words.slot * table_->end_word + k,
                fmt::format("it refers to {} {}, which becomes free", owner.table, owner_no));
        }
    }
}

void Troubles::write(const Finding &finding)
{
    const Table &table = find_table(metadata_.tables, finding.table);
    if (finding.kind.severity != Severity::error || table.count() == 0) {
        return;
    }
    std::string doubt;
    if (finding.no_owner && table.row->ends_with_owner) {
        doubt = doubt_about(find_table(metadata_.tables, finding.other_table), finding.other);
        if (doubt.empty()) {
            add_orphan(table, finding.no, finding.text);
            return;
        }
    }
    Trouble &trouble = slots_[table.name][finding.table == SUPER_TABLE ? 0 : finding.slot];
    trouble.slots = finding.count;
    trouble.other = true;
    if (trouble.doubt.empty()) {
        trouble.doubt = doubt;
    }
    const bool is_word = finding.packed && finding.unit == "entry";
    add_text(trouble, is_word ? word_text(table, finding.no, finding.text) : finding.text);
}

void Troubles::add_orphan(const Table &table, uint64_t no, const std::string &text)
{
    Trouble &trouble = slots_[table.name][no / table.end_word];
    trouble.orphans.push_back(no);
    add_text(trouble, table.row->packed() ? word_text(table, no, text) : text);
    if (free_orphans_) {
        freed_[table.name].insert(no);
    }
}

/* A super block that contradicts itself proves nothing about what it counts. */
std::string Troubles::doubt_about(const Table &owners, uint64_t no)
{
    if (!slots_[SUPER_TABLE].empty()) {
        return "nothing is freed while the super block contradicts itself";
    }
    const auto [known, is_new] = past_end_.try_emplace({owners.name, no}, false);
    if (is_new) {
        known->second = is_past_end(owners, no);
    }
    if (!known->second) {
        return "";
    }
    return fmt::format("{} {} is there, sound and in use: perhaps the super block counts too few",
                       owners.name, no);
}

/* Whether an entry that may not be referred to lies all the same, sound and in use, where a longer
 * table would have it. */
bool Troubles::is_past_end(const Table &owners, uint64_t no) const
{
    const uint64_t slot = no / owners.end_word;
    const auto word = static_cast<uint32_t>(no % owners.end_word);
    if (!owners.identifies() || word < owners.first_word || no < owners_end(metadata_, owners)) {
        return false;
    }
    alignas(SIZE_4K) Block block;
    uint64_t first = 0; /* of the region */
    for (const tier_region &region : owners.regions) {
        if (slot >= first && slot - first < device_.size() / SIZE_4K &&
            device_.read(region.slot(slot - first), block.data(), SIZE_4K) &&
            owners.flaws(slot, block.data()) == 0 &&
            owners.in_use(Table::entry(block.data(), word))) {
            return true;
        }
        first += region.count;
    }
    return false;
}

} // namespace tierctl
