#include "zu_tierctl/sample/damage.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/sample/random.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/core.h>
#include <optional>
#include <string_view>

namespace tierctl {

/* Every kind but "zero" flips a single bit, which every checksum detects. After a flip in the magic
 * or the number the slot is sealed again, so that nothing else is wrong. */
struct DamageKind {
    std::string_view name;
    bool (*applies)(const Table &table);
    void (*spoil)(const Table &table, uint8_t *slot, Random &random);
};

namespace {

void flip(uint8_t *slot, uint64_t bit)
{
    slot[bit / 8] = static_cast<uint8_t>(slot[bit / 8] ^ (1U << (bit % 8)));
}

bool always(const Table &) { return true; }

constexpr DamageKind KINDS[] = {
    {"checksum", [](const Table &table) { return table.row->crc != nullptr; },
     [](const Table &, uint8_t *slot, Random &) {
         flip(slot, 0); /* a bit of the checksum in every layout */
     }},
    {"magic", [](const Table &table) { return static_cast<bool>(table.row->magic); },
     [](const Table &table, uint8_t *slot, Random &) {
         flip(slot, table.row->magic.at * 8);
         table.seal_slot(slot);
     }},
    {"number", [](const Table &table) { return static_cast<bool>(table.row->number); },
     [](const Table &table, uint8_t *slot, Random &) {
         flip(slot, table.row->number.at * 8);
         table.seal_slot(slot);
     }},
    {"zero", always, [](const Table &, uint8_t *slot, Random &) { memset(slot, 0, SIZE_4K); }},
    {"bit", always,
     [](const Table &table, uint8_t *slot, Random &random) {
         flip(slot, random.below(table.record_length * 8));
     }},
};

[[noreturn]] void refuse(std::string_view text, std::string_view why)
{
    throw UsageError(fmt::format("--damage {}: {}", text, why));
}

/* The item called `name` among those of `list` that apply. If there is none, throws a complaint
 * about `text` in which `what` names the list. */
template <class List, class Applies>
const auto &find(const List &list, std::string_view name, const std::string &text, const char *what,
                 const Applies &applies)
{
    std::string known;
    for (const auto &item : list) {
        if (!applies(item)) {
            continue;
        }
        if (item.name == name) {
            return item;
        }
        known += fmt::format("{}{}", known.empty() ? "" : ", ", item.name);
    }
    refuse(text, fmt::format("expected one of the {} {}", what, known));
}

const DamageKind &choose_kind(const Table &table, std::span<const std::string_view> parts,
                              const std::string &text)
{
    const auto applies = [&table](const auto &kind) { return kind.applies(table); };
    if (parts.size() == 3) {
        return find(KINDS, parts[2], text, "kinds", applies);
    }
    return *std::ranges::find_if(KINDS, applies);
}

Damage parse(const std::string &text, std::span<const Table> tables)
{
    const std::vector<std::string_view> parts = split(text, ':'); /* "inode:7:bit" */
    if (parts.size() != 2 && parts.size() != 3) {
        refuse(text, "expected TABLE:NO or TABLE:NO:KIND");
    }
    const Table &table = find(tables, parts[0], text, "tables", [](const auto &) { return true; });
    const std::optional<uint64_t> no = parse_number(parts[1]);
    if (!no || *no >= table.count()) {
        refuse(text, fmt::format("expected an entry of 0..{}", table.count() - 1));
    }
    return {&table, *no, &choose_kind(table, parts, text)};
}

} // namespace

std::vector<Damage> parse_damage(const std::vector<std::string> &texts,
                                 std::span<const Table> tables)
{
    std::vector<Damage> damages;
    for (const std::string &text : texts) {
        const Damage damage = parse(text, tables);
        for (const Damage &other : damages) {
            if (other.table == damage.table && other.no == damage.no) {
                refuse(text, "that entry is damaged already");
            }
        }
        damages.push_back(damage);
    }
    return damages;
}

void apply_damage(Image &image, std::span<const Damage> damages, uint64_t seed)
{
    Random random(seed);
    std::array<uint8_t, SIZE_4K> slot;
    for (const Damage &damage : damages) {
        const int64_t offset = damage.table->slot(damage.no);
        image.read(offset, slot.data(), slot.size());
        damage.kind->spoil(*damage.table, slot.data(), random);
        image.write(offset, slot.data(), slot.size());
    }
}

} // namespace tierctl
