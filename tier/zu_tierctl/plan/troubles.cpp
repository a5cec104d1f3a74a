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

void Troubles::add_in_use(uint64_t no, const uint8_t *entry)
{
    const tier_owner &owner = table_->row->owner;
    const auto freed = freed_.find(owner.table);
    if (freed == freed_.end() || !table_->row->ends_with_owner) {
        return;
    }
    const uint64_t owner_no = owner.no.get(entry);
    if (freed->second.contains(owner_no)) {
        add_orphan(*table_, no,
                   fmt::format("it refers to {} {}, which becomes free", owner.table, owner_no));
    }
}

void Troubles::write(const Finding &finding)
{
    const Table &table = find_table(metadata_.tables, finding.table);
    if (finding.kind.severity != Severity::error || table.count() == 0) {
        return;
    }
    if (finding.no_owner && table.row->ends_with_owner) {
        add_orphan(table, finding.no, finding.text);
        return;
    }
    Trouble &trouble = slots_[table.name][finding.table == SUPER_TABLE ? 0 : finding.slot];
    trouble.slots = finding.count;
    trouble.other = true;
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

} // namespace tierctl
