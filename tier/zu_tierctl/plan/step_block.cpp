#include "zu_tierctl/plan/step_block.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/rebuild.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <functional>
#include <map>
#include <utility>

namespace tierctl {

namespace {

/* The first error of each kind; what is merely odd is left out. */
using Errors = std::map<std::string, std::string, std::less<>>;

class ErrorFindings : public tier_findings {
public:
    Errors take_all() { return std::move(errors_); }

private:
    void take(const tier_kind &kind, std::string_view text) override
    {
        if (kind.severity == tier_severity::error) {
            errors_.emplace(kind.name, text);
        }
    }

    Errors errors_;
};

/* Entries of other tables may refer to those of a table below this number. */
uint64_t owners_end(const Metadata &metadata, std::string_view name)
{
    const Table &table = *std::ranges::find(metadata.tables, name, &Table::name);
    const uint64_t count = table.count() * table.end_word;
    if (table.row->bounds == nullptr) {
        return count;
    }
    const tier_bounds bounds = table.row->bounds(metadata.super());
    return std::min({count, bounds.closed, bounds.missing});
}

/* A table's own checks of its entries. */
class EntryCheck {
public:
    EntryCheck(const Metadata &metadata, const Table &table)
        : metadata_(metadata), table_(table), row_(*table.row)
    {
        if (!row_.owner.table.empty()) {
            owners_end_ = owners_end(metadata, row_.owner.table);
        }
    }

    /* Of a slot, whatever its magic, number and checksum are. */
    Errors errors(const Block &slot) const
    {
        ErrorFindings findings;
        for (uint32_t k = table_.first_word; k < table_.end_word; k++) {
            const uint8_t *entry = Table::entry(slot.data(), k);
            check_word(entry, findings);
            if (table_.in_use(entry)) {
                check_entry(entry, findings);
            }
        }
        return findings.take_all();
    }

private:
    void check_word(const uint8_t *entry, tier_findings &findings) const
    {
        uint64_t word = 0;
        memcpy(&word, entry, sizeof(word));
        for (const tier_word_rule &rule : row_.word_rules) {
            if ((word & rule.mask) == rule.bits) {
                findings.add(rule.kind, "%.*s", static_cast<int>(rule.text.size()),
                             rule.text.data());
            }
        }
    }

    void check_entry(const uint8_t *entry, tier_findings &findings) const
    {
        if (!row_.owner.table.empty()) {
            check_owner(row_.owner.no.get(entry), findings);
        }
        if (row_.check != nullptr) {
            row_.check(metadata_.super(), entry, findings);
        }
    }

    void check_owner(uint64_t owner, tier_findings &findings) const
    {
        if (owner >= owners_end_) {
            const std::string text = fmt::format("it refers to {} {}, but they end before {}",
                                                 row_.owner.table, owner, owners_end_);
            findings.add({"owner"}, "%s", text.c_str());
        }
    }

    const Metadata &metadata_;
    const Table &table_;
    const tier_table &row_;
    uint64_t owners_end_ = 0; /* if they refer to anything */
};

void require_sound(const Metadata &metadata, const Table &table, uint64_t no, const Block &block,
                   const Block *now)
{
    if (!table.identifies()) {
        throw std::runtime_error(fmt::format("entries of {} do not fit their slots", table.name));
    }
    const uint32_t flaws = table.flaws(no, block.data());
    if (flaws != 0) {
        throw std::runtime_error("its block is damaged itself: " + flaws_text(flaws));
    }
    const EntryCheck check(metadata, table);
    const Errors before = now != nullptr ? check.errors(*now) : Errors();
    for (const auto &[kind, text] : check.errors(block)) {
        if (!before.contains(kind)) {
            throw std::runtime_error(
                fmt::format("its block has an error that is not there now: {} ({})", text, kind));
        }
    }
}

Block build(const Device &device, const Metadata &metadata, const Table &table, const Step &step)
{
    Rebuilt rebuilt = rebuild(device, metadata, table, *step.keys, false);
    if (!rebuilt.block) {
        throw std::runtime_error(
            fmt::format("zu_tier refuses its keys: {}",
                        shown_text(fmt::format("{}", fmt::join(rebuilt.messages, "; ")))));
    }
    if (rebuilt.offset != step.offset) {
        throw std::runtime_error(fmt::format(
            "its keys are those of the block at byte {}, not at {}", rebuilt.offset, step.offset));
    }
    if (step.makes && zutr_crc32(rebuilt.block->data(), SIZE_4K) != *step.makes) {
        throw std::runtime_error(
            "its keys no longer make the block of the plan: they were changed, "
            "perhaps by a program that rounds numbers beyond 2^53");
    }
    return *rebuilt.block;
}

} // namespace

Block make_step_block(const Device &device, const Metadata &metadata, const Table &table,
                      const Step &step, const Block *now)
{
    Block block = step.keys ? build(device, metadata, table, step) : *step.block;
    require_sound(metadata, table, step.no, block, now);
    return block;
}

} // namespace tierctl
