#include "zu_tierctl/check/table.h"

#include "zu_tierctl/check/claims.h"
#include "zu_tierctl/check/large_claims.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <fmt/format.h>
#include <span>
#include <stdexcept>

namespace tierctl {

namespace {

/* Only a super block that breaks the rules lets entries refer to higher numbers. */
constexpr uint64_t OWNERS_MAX = uint64_t{1} << 19;

/* Entries that refer to the same one. */
struct Referrers {
    uint64_t first = 0;
    uint64_t count = 0;
};

/* Slots of the table that fit on a device of that size. */
uint64_t slots_present(const Table &table, uint64_t device_size)
{
    uint64_t slots = 0;
    for (const tier_region &region : table.regions) {
        slots += std::min(region.count, device_size / SIZE_4K);
    }
    return slots;
}

/* What entries claim, as keys: an identity, a text, or a number within what its owner has. */
template <class Key>
class ClaimKeys {
public:
    ClaimKeys(const tier_table &row, const tier_claim &claim)
        : claim_(claim), owner_(row.owner.no), number_width_(std::popcount(claim.number.mask))
    {
    }

    Key key(const uint8_t *entry) const
    {
        if constexpr (std::is_same_v<Key, Identity>) {
            Key identity;
            memcpy(&identity, entry + claim_.number.at, sizeof(identity));
            return identity;
        } else if constexpr (std::is_same_v<Key, Text>) {
            static_assert(sizeof(Key) == TIER_CLAIM_TEXT);
            Key padded{};
            const std::string_view text = claimed_text(claim_, entry);
            memcpy(&padded, text.data(), text.size());
            return padded;
        } else {
            return owner_.get(entry) << number_width_ | claim_.number.get(entry);
        }
    }

private:
    tier_claim claim_;
    tier_number owner_;
    int number_width_;
};

constexpr size_t WORDS_MAX = SIZE_4K / sizeof(uint64_t);

/* The words of a slot that are entries in use, and where the slot is. */
struct UsedWords {
    uint64_t slot_no;
    int64_t offset;
    const uint8_t *slot;
    size_t count = 0;
    std::array<uint16_t, WORDS_MAX> places;

    /* Without branches: which are in use is not to be foreseen. */
    UsedWords(const Table &table, uint64_t no, int64_t at, const uint8_t *data)
        : slot_no(no), offset(at), slot(data)
    {
        const tier_number in_use = table.row->in_use;
        const bool always = !in_use;
        size_t found = 0;
        for (uint32_t k = table.first_word; k < table.end_word; k++) {
            places[found] = static_cast<uint16_t>(k);
            found += always || in_use.get(Table::entry(slot, k)) != 0 ? 1 : 0;
        }
        count = found;
    }

    std::span<const uint16_t> words() const { return {places.data(), count}; }
};

/* Whether any word of a slot breaks one of the rules. Without branches, because there are many
 * words and hardly ever such a one: `differing` less one borrows from all of its bits only when it
 * is 0.
 */
bool breaks_rules(std::span<const tier_word_rule> rules, const uint8_t *slot)
{
    uint64_t broken = 0;
    for (const auto &[kind, mask, bits, text] : rules) {
        for (size_t at = 0; at < SIZE_4K; at += sizeof(uint64_t)) {
            uint64_t word = 0;
            memcpy(&word, slot + at, sizeof(word));
            const uint64_t differing = (word & mask) ^ bits;
            broken |= (differing - 1) & ~differing;
        }
    }
    return broken >> 63 != 0;
}

class TableCheck {
public:
    explicit TableCheck(const TableContext &context)
        : context_(context), table_(context.table), row_(*context.table.row),
          first_(context.table.first_word), end_(context.table.end_word),
          is_owner_(is_referred_to(*context.metadata.layout, row_)),
          checks_each_(is_owner_ || row_.check != nullptr || row_.check_with_owner != nullptr)
    {
        outcome_.states = States(table_.count() * end_);
        outcome_.counts.entries = table_.entries();
    }

    TableOutcome run(size_t claims_memory)
    {
        if (row_.claims.empty() || !context_.findings.wanted() || claims_memory == 0) {
            first_pass([](const UsedWords &) {});
        } else {
            for (const tier_claim &claim : row_.claims) {
                check_claim(claim, claims_memory);
            }
        }
        add_unknown_owners();
        set_bounds();
        return std::move(outcome_);
    }

private:
    EntryPlace place(uint64_t slot, int64_t offset, uint32_t k) const
    {
        return {slot * end_ + k, slot, offset + k * int64_t{sizeof(uint64_t)}};
    }

    void check_claim(const tier_claim &claim, size_t claims_memory)
    {
        switch (claim.type) {
        case tier_claim_type::number:
            return check_with_claims<uint64_t>(claim, claims_memory);
        case tier_claim_type::identity:
            return check_with_claims<Identity>(claim, claims_memory);
        case tier_claim_type::text:
            return check_with_claims<Text>(claim, claims_memory);
        }
    }

    /* The fewer claims there may be, the less memory is taken. */
    template <class Key>
    void check_with_claims(const tier_claim &claim, size_t claims_memory)
    {
        const uint64_t present =
            slots_present(table_, context_.device.size()) * table_.entries_a_slot();
        if (present <= Claims<Key>::capacity(claims_memory)) {
            Claims<Key> claims(present);
            find_repeated<Key>(claim, claims);
        } else {
            passes_ = pass_ + LargeClaims<Key>::PASSES;
            LargeClaims<Key> claims(std::min<uint64_t>(claims_memory, present));
            find_repeated<Key>(claim, claims);
        }
    }

    template <class Key, class AnyClaims>
    void find_repeated(const tier_claim &claim, AnyClaims &claims)
    {
        const ClaimKeys<Key> claimed(row_, claim);
        std::array<Key, WORDS_MAX> keys;
        const auto keys_of = [&](const UsedWords &used) -> std::span<const Key> {
            for (size_t i = 0; i < used.count; i++) {
                keys[i] = claimed.key(Table::entry(used.slot, used.places[i]));
            }
            return {keys.data(), used.count};
        };
        const auto add = [&](const UsedWords &used) { claims.add(keys_of(used)); };
        const auto tell = [&](const UsedWords &used) {
            claims.for_suspects(keys_of(used), [&](size_t i) {
                const uint16_t k = used.places[i];
                const auto first = claims.first_claim(keys[i], used.slot_no * end_ + k);
                if (first) {
                    context_.findings.add_claim(claim, Table::entry(used.slot, k), *first,
                                                place(used.slot_no, used.offset, k));
                }
            });
        };
        if (&claim == row_.claims.data()) {
            first_pass(add);
        } else {
            later_pass(add);
        }
        while (true) {
            if (claims.end_pass()) {
                later_pass(tell);
            }
            if (!claims.next_round()) {
                return;
            }
            later_pass(add);
        }
    }

    Progress next_pass()
    {
        pass_++;
        return {pass_title(table_.name, pass_, passes_),
                slots_present(table_, context_.device.size()), passes_ - std::min(pass_, passes_)};
    }

    template <class Visit>
    void walk(const Visit &visit)
    {
        Progress progress = next_pass();
        read_table(context_.device, table_.regions, [&](const Slots &slots) {
            visit(slots);
            progress.add(slots.count);
        });
    }

    /* Checks everything, and visits what is in use. */
    template <class Visit>
    void first_pass(const Visit &visit)
    {
        walk([this, &visit](const Slots &slots) {
            if (slots.data == nullptr) {
                context_.findings.add_unread(slots, context_.device.size());
                add_lost(slots.first_no, slots.count, &Counts::unreadable);
                return;
            }
            for (uint64_t i = 0; i < slots.count; i++) {
                check_slot(slots.first_no + i, slots.offset + static_cast<int64_t>(i * SIZE_4K),
                           slots.slot(i), visit);
            }
        });
    }

    /* Visits again what is in use; throws when that has changed and must not. */
    template <class Visit>
    void later_pass(const Visit &visit)
    {
        uint64_t visited = 0;
        walk([this, &visit, &visited](const Slots &slots) {
            for (uint64_t i = 0; slots.data != nullptr && i < slots.count; i++) {
                const uint64_t no = slots.first_no + i;
                if (table_.flaws(no, slots.slot(i)) == 0) {
                    const UsedWords used(table_, no,
                                         slots.offset + static_cast<int64_t>(i * SIZE_4K),
                                         slots.slot(i));
                    visited += used.count;
                    visit(used);
                }
            }
        });
        if (!context_.live && visited != outcome_.counts.in_use) {
            throw std::runtime_error(fmt::format("{}: table {} has changed since it was first read",
                                                 context_.device.path(), table_.name));
        }
    }

    template <class Visit>
    void check_slot(uint64_t no, int64_t offset, const uint8_t *slot, const Visit &visit)
    {
        set_states(no, 0, first_, State::head);
        const uint32_t flaws = table_.flaws(no, slot);
        if (flaws != 0) {
            context_.findings.add_flaws(context_.metadata, flaws, no, offset, slot);
            set_states(no, first_, end_, State::damaged);
            add_lost(no, 1, &Counts::damaged);
            return;
        }
        const UsedWords used(table_, no, offset, slot);
        outcome_.counts.in_use += used.count;
        outcome_.counts.free += table_.entries_a_slot() - used.count;
        const bool odd = breaks_rules(row_.word_rules, slot);
        if (odd || checks_each_ || !are_owners_in_use(used)) {
            check_words(used, odd);
        } else if (context_.watcher != nullptr) {
            context_.watcher->add_sound({no, slot, first_, end_, used.words()});
        }
        visit(used);
    }

    /* The entries of a slot one by one. */
    void check_words(const UsedWords &used, bool odd)
    {
        std::span<const uint16_t> left = used.words();
        for (uint32_t k = first_; k < end_; k++) {
            const uint8_t *entry = Table::entry(used.slot, k);
            const EntryPlace at = place(used.slot_no, used.offset, k);
            if (odd) {
                check_word(at, entry);
            }
            const auto in_use = left.first(!left.empty() && left.front() == k ? 1 : 0);
            left = left.subspan(in_use.size());
            if (context_.watcher != nullptr) {
                context_.watcher->add_sound({used.slot_no, used.slot, k, k + 1, in_use});
            }
            if (in_use.empty()) {
                set_states(used.slot_no, k, k + 1, State::free);
                continue;
            }
            set_states(used.slot_no, k, k + 1, State::in_use);
            if (row_.for_referrers) {
                outcome_.states.set_number(at.no, row_.for_referrers.get(entry));
            }
            check_entry(at, entry);
        }
    }

    bool are_owners_in_use(const UsedWords &used) const
    {
        const tier_number owner = row_.owner.no;
        return row_.owner.table.empty() || std::ranges::all_of(used.words(), [&](uint16_t k) {
                   return context_.owners.get(owner.get(Table::entry(used.slot, k))) ==
                          State::in_use;
               });
    }

    /* Of the words of a slot from `first` up to, but not at, `end`. */
    void set_states(uint64_t slot, uint32_t first, uint32_t end, State state)
    {
        for (uint32_t k = first; is_owner_ && k < end; k++) {
            outcome_.states.set(slot * end_ + k, state);
        }
    }

    void add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count)
    {
        outcome_.counts.*count += slots * table_.entries_a_slot();
        if (context_.watcher != nullptr) {
            context_.watcher->add_lost(first_slot, slots, count);
        }
    }

    void check_word(const EntryPlace &place, const uint8_t *entry)
    {
        uint64_t word = 0;
        memcpy(&word, entry, sizeof(word));
        for (const tier_word_rule &rule : row_.word_rules) {
            if ((word & rule.mask) == rule.bits) {
                context_.findings.add({std::string(rule.kind.name), rule.kind.severity}, place,
                                      std::string(rule.text));
            }
        }
    }

    void check_entry(const EntryPlace &place, const uint8_t *entry)
    {
        if (!row_.owner.table.empty()) {
            const uint64_t owner = row_.owner.no.get(entry);
            const State state = context_.owners.get(owner);
            if (state != State::in_use) {
                check_owner(owner, state, place);
            } else if (row_.check_with_owner != nullptr) {
                check_with_owner(owner, place, entry);
            }
        }
        if (row_.check != nullptr) {
            EntryFindings findings(context_.findings, place);
            row_.check(context_.metadata.super(), entry, findings);
        }
    }

    void check_with_owner(uint64_t owner, const EntryPlace &place, const uint8_t *entry) const
    {
        const std::optional<uint64_t> number = context_.owners.number(owner);
        if (number) {
            EntryFindings findings(context_.findings, place);
            row_.check_with_owner(context_.metadata.super(), entry, *number, findings);
        }
    }

    /* Millions may refer to one damaged block: it is reported once, at the end. */
    void check_owner(uint64_t owner, State state, const EntryPlace &place)
    {
        if (!context_.findings.wanted()) {
            return;
        }
        const bool known = state != State::damaged && state != State::unreadable;
        if (known || owner >= OWNERS_MAX) {
            context_.findings.add_owner(owner, state, place);
            return;
        }
        if (owner >= unknown_owners_.size()) {
            unknown_owners_.resize(owner + 1);
        }
        Referrers &referrers = unknown_owners_[owner];
        if (referrers.count++ == 0) {
            referrers.first = place.no;
        }
    }

    /* They are joined, wherever their first referrers are, unless a sound owner lies between. */
    void add_unknown_owners() const
    {
        uint64_t joins = 0;
        for (uint64_t owner = 0; owner < unknown_owners_.size(); owner++) {
            const auto [first, count] = unknown_owners_[owner];
            const State state = context_.owners.get(owner);
            if (count != 0) {
                const uint64_t slot = first / end_;
                context_.findings.add_owner(
                    owner, state,
                    place(slot, table_.slot(slot), static_cast<uint32_t>(first % end_)),
                    TableFindings::Others{count - 1, joins});
            }
            if (count != 0 || (state != State::damaged && state != State::unreadable)) {
                joins++;
            }
        }
    }

    /* The layout may forbid references to some numbers, whatever lies there. */
    void set_bounds()
    {
        if (row_.bounds != nullptr) {
            const tier_bounds bounds = row_.bounds(context_.metadata.super());
            outcome_.states.set_from(bounds.closed, State::closed);
            outcome_.states.set_from(bounds.missing, State::missing);
        }
    }

    const TableContext &context_;
    const Table &table_;
    const tier_table &row_;
    const uint32_t first_;
    const uint32_t end_;
    const bool is_owner_;
    const bool checks_each_;                /* every entry by itself, though nothing may be wrong */
    std::vector<Referrers> unknown_owners_; /* by number: damaged or unreadable, but referred to */
    TableOutcome outcome_;
    unsigned pass_ = 0;   /* over the table */
    unsigned passes_ = 0; /* how many there will be, if that is known */
};

} // namespace

std::string pass_title(std::string_view table, unsigned pass, unsigned passes)
{
    if (pass <= passes) {
        return fmt::format("checking {}, pass {} of {}", table, pass, passes);
    }
    return fmt::format("checking {}{}", table, text_if(pass > 1, fmt::format(", pass {}", pass)));
}

TableOutcome check_entries(const TableContext &context, size_t claims_memory)
{
    return TableCheck(context).run(claims_memory);
}

} // namespace tierctl
