#include "zu_tierctl/check/table.h"

#include "zu_tierctl/device/text.h"

#include <array>
#include <cstring>

namespace tierctl {

namespace {

constexpr Kind PAST_END = {"past_end"};
constexpr Kind MISALIGNED = {"misaligned"};
constexpr Kind UNREADABLE = {"unreadable"};
constexpr Kind UNFIT = {"records_do_not_fit"};

std::string magic_text(const Table &table, const uint8_t *content)
{
    return format_text("its magic is 0x%lx, not 0x%x", table.magic->place.get(content),
                       table.magic->value);
}

std::string number_text(const Table &table, const uint8_t *content)
{
    return format_text("its number is %lu", table.number->get(content));
}

std::string checksum_text(const Table &, const uint8_t *)
{
    return "its checksum is not that of its content";
}

struct flaw {
    Flaw bit;
    Kind kind;
    std::string (*text)(const Table &table, const uint8_t *content);
};

constexpr flaw FLAWS[] = {
    {BAD_MAGIC, {"bad_magic"}, magic_text},
    {BAD_NUMBER, {"bad_number"}, number_text},
    {BAD_CHECKSUM, {"bad_checksum"}, checksum_text},
};

/* What is said of an owner that is not in use. */
struct owner_state {
    State state;
    Kind Owner::*kind;
    const char *text;
};

constexpr owner_state OWNER_STATES[] = {
    {State::free, &Owner::free, "is free"},
    {State::damaged, &Owner::unknown, "is damaged"},
    {State::unreadable, &Owner::unknown, "cannot be read"},
    {State::missing, &Owner::missing, "does not exist"},
    {State::head, &Owner::head, "is the head of a block and no entry"},
    {State::closed, &Owner::closed, "lies in the expansion inode area, which is not in use"},
};

/* Why a run of slots could not be read. */
struct unread {
    Kind kind;
    std::string text;
};

unread reason(const Slots &slots, uint64_t device_size)
{
    const auto start = static_cast<uint64_t>(slots.offset);
    if (start % SIZE_4K != 0) {
        return {MISALIGNED, "not at multiples of 4096"};
    }
    if (start >= device_size || device_size - start < SIZE_4K) {
        return {PAST_END, "past the end of the device"};
    }
    return {UNREADABLE, strerror(slots.error)};
}

/* An entry and so many others name. */
std::string who_names(uint64_t others)
{
    if (others == 0) {
        return "it names";
    }
    return others == 1 ? "it and 1 other name" : format_text("it and %lu others name", others);
}

} // namespace

void TableFindings::add(const Kind &kind, const EntryPlace &place, const std::string &text) const
{
    if (wanted()) {
        report_->add({kind, table_->name, "entry", place.no, place.offset, place.slot, text});
    }
}

void TableFindings::add_slot(const Kind &kind, uint64_t slot, int64_t offset,
                             const std::string &text) const
{
    if (wanted()) {
        report_->add({kind, table_->name, slot_unit_, slot, offset, slot, text});
    }
}

void TableFindings::add_flaws(uint32_t flaws, uint64_t slot, int64_t offset,
                              const uint8_t *content) const
{
    for (const flaw &flaw : FLAWS) {
        if ((flaws & flaw.bit) != 0) {
            add_slot(flaw.kind, slot, offset, flaw.text(*table_, content));
        }
    }
}

void TableFindings::add_unread(const Slots &slots, uint64_t device_size) const
{
    const auto [kind, why] = reason(slots, device_size);
    const uint64_t last = slots.first_no + slots.count - 1;
    const std::string which = slots.count == 1
                                  ? "it cannot be read: "
                                  : format_text("it and all up to %lu cannot be read: ", last);
    add_slot(kind, slots.first_no, slots.offset, which + why);
}

void TableFindings::add_owner(const Owner &owner, uint64_t owner_no, State state,
                              const EntryPlace &place, uint64_t others) const
{
    for (const owner_state &known : OWNER_STATES) {
        if (known.state == state) {
            add(owner.*known.kind, place,
                who_names(others) +
                    format_text(" %s %lu, which %s", owner.table, owner_no, known.text));
        }
    }
}

void TableFindings::add_claim(const std::string &claim, uint64_t first,
                              const EntryPlace &place) const
{
    constexpr struct {
        std::string_view table;
        Kind kind;
    } KINDS[] = {{"brick", {"duplicate_brick"}},
                 {"inode", {"duplicate_inode"}},
                 {"shard", {"duplicate_shard"}},
                 {"extent", {"duplicate_extent"}}};
    for (const auto &[table, kind] : KINDS) {
        if (table == table_->name) {
            add(kind, place,
                format_text("%s is that of %s %lu, too", claim.c_str(), std::string(table).c_str(),
                            first));
        }
    }
}

void TableFindings::add_unfit() const
{
    add_slot(UNFIT, 0, table_->regions.front().start,
             format_text("records of %zu bytes do not fit their slots: no entry is checked",
                         table_->record_length));
}

uint64_t slots_there(const Table &table, uint64_t device_size)
{
    uint64_t slots = 0;
    for (const tier_region &region : table.regions) {
        slots += std::min(region.count, device_size / SIZE_4K);
    }
    return slots;
}

} // namespace tierctl
