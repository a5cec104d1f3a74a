#include "zu_tierctl/check/table_findings.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/mend.h"

#include <cstring>
#include <fmt/format.h>
#include <utility>

namespace tierctl {

namespace {

/* The finding about an owner that is not in use; in the kind's name {0} is the table, {1} the
 * owner's table. */
struct OwnerState {
    State state;
    Severity severity;
    const char *kind;
    const char *text;
};

constexpr OwnerState OWNER_STATES[] = {
    {State::free, Severity::error, "{}_of_free_{}", "is free"},
    {State::damaged, Severity::warning, "{}_of_unknown_{}", "is damaged"},
    {State::unreadable, Severity::warning, "{}_of_unknown_{}", "cannot be read"},
    {State::missing, Severity::error, "{}_of_missing_{}", "does not exist"},
    {State::head, Severity::error, "{}_of_{}_head", "is the head of a block and no entry"},
    {State::closed, Severity::error, "{}_of_unused_expansion",
     "lies in the expansion inode area, which is not in use"},
};

/* Why a run of slots could not be read: the kind of finding, and the text. */
std::pair<Kind, std::string> reason(const Slots &slots, uint64_t device_size)
{
    const auto start = static_cast<uint64_t>(slots.offset);
    if (start % SIZE_4K != 0) {
        return {{"misaligned"}, "not at multiples of 4096"};
    }
    if (start >= device_size || device_size - start < SIZE_4K) {
        return {{"past_end"}, "past the end of the device"};
    }
    return {{"unreadable"}, error_text(slots.error)};
}

/* The entry and so many others as the start of a sentence. */
std::string referrers_text(uint64_t others)
{
    if (others == 0) {
        return "it refers to";
    }
    return others == 1 ? "it and 1 other refer to"
                       : fmt::format("it and {} others refer to", others);
}

/* The same for people. */
std::string claimed_value(const tier_table &row, const tier_claim &claim, const uint8_t *entry)
{
    switch (claim.type) {
    case tier_claim_type::identity:
        return zutr_uuid_utoa(entry + claim.number.at);
    case tier_claim_type::text:
        return quoted(claimed_text(claim, entry));
    default:
        return fmt::format("{} of {} {}", claim.number.get(entry), row.owner.table,
                           row.owner.no.get(entry));
    }
}

} // namespace

Finding TableFindings::about(const Kind &kind, const EntryPlace &place,
                             const std::string &text) const
{
    return {.kind = kind,
            .table = table_->name,
            .unit = "entry",
            .packed = table_->row->packed(),
            .no = place.no,
            .last = place.no,
            .offset = place.offset,
            .slot = place.slot,
            .last_slot = place.slot,
            .joins = place.no,
            .joins_end = table_->number(table_->index(place.no) + 1),
            .text = text};
}

Finding TableFindings::about_slots(const Kind &kind, uint64_t first, uint64_t count, int64_t offset,
                                   const std::string &text) const
{
    const bool packed = table_->row->packed();
    return {.kind = kind,
            .table = table_->name,
            .unit = packed ? "block" : "entry",
            .packed = packed,
            .no = first,
            .last = first + count - 1,
            .count = count,
            .offset = offset,
            .slot = first,
            .last_slot = first + count - 1,
            .joins = first,
            .joins_end = first + count,
            .text = text};
}

void TableFindings::add(const Kind &kind, const EntryPlace &place, const std::string &text) const
{
    if (wanted()) {
        report_->add(about(kind, place, text));
    }
}

void TableFindings::add_flaws(const Metadata &metadata, uint32_t flaws, uint64_t slot,
                              int64_t offset, const uint8_t *content) const
{
    if (!wanted()) {
        return;
    }
    const tier_table &row = *table_->row;
    const bool zero = is_zero(content);
    Block block;
    memcpy(block.data(), content, block.size());
    const size_t bits = mend(metadata, *table_, slot, block).bits.size();
    const auto add_flaw = [&](const char *kind, const std::string &text) {
        Finding finding = about_slots({kind}, slot, 1, offset, text);
        finding.zero = zero;
        finding.one_bit = bits == 1 ? 1 : 0;
        finding.two_bits = bits == 2 ? 1 : 0;
        report_->add(finding);
    };
    if ((flaws & BAD_MAGIC) != 0) {
        add_flaw("bad_magic", fmt::format("its magic is {:#x}, not {:#x}", row.magic.get(content),
                                          row.magic_value));
    }
    if ((flaws & BAD_NUMBER) != 0) {
        add_flaw("bad_number", fmt::format("its number is {}", row.number.get(content)));
    }
    if ((flaws & BAD_CHECKSUM) != 0) {
        add_flaw("bad_checksum", "its checksum does not match its content");
    }
}

void TableFindings::add_unread(const Slots &slots, uint64_t device_size) const
{
    if (wanted()) {
        const auto [kind, why] = reason(slots, device_size);
        Finding finding = about_slots(kind, slots.first_no, slots.count, slots.offset,
                                      "it cannot be read: " + why);
        finding.unread = true;
        report_->add(finding);
    }
}

void TableFindings::add_owner(uint64_t owner_no, State state, const EntryPlace &place,
                              std::optional<Others> others) const
{
    if (!wanted()) {
        return;
    }
    const std::string_view owner = table_->row->owner.table;
    for (const OwnerState &known : OWNER_STATES) {
        if (known.state == state) {
            Finding finding = about(
                {fmt::format(fmt::runtime(known.kind), table_->name, owner), known.severity}, place,
                fmt::format("{} {} {}, which {}", referrers_text(others ? others->count : 0), owner,
                            owner_no, known.text));
            finding.other_table = owner;
            finding.other = owner_no;
            finding.no_owner = known.severity == Severity::error;
            if (others) {
                finding.joins = others->joins;
                finding.joins_end = others->joins + 1;
                finding.alike = known.text;
            }
            report_->add(finding);
        }
    }
}

void TableFindings::add_claim(const tier_claim &claim, const uint8_t *entry, uint64_t first,
                              const EntryPlace &place) const
{
    Finding finding =
        about({fmt::format("duplicate_{}", table_->name)}, place,
              fmt::format("{} {} is also that of {} {}", claim.what,
                          claimed_value(*table_->row, claim, entry), table_->name, first));
    finding.other_table = table_->name;
    finding.other = first;
    report_->add(finding);
}

void TableFindings::add_unfit() const
{
    if (wanted()) {
        report_->add(about_slots({"records_do_not_fit"}, 0, 1, table_->regions.front().start,
                                 fmt::format("records of {} bytes do not fit their slots: no entry "
                                             "is checked",
                                             table_->record_length)));
    }
}

std::string_view claimed_text(const tier_claim &claim, const uint8_t *entry)
{
    const auto *text = reinterpret_cast<const char *>(entry + claim.number.at);
    return {text, strnlen(text, TIER_CLAIM_TEXT)};
}

} // namespace tierctl
