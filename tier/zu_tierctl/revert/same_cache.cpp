#include "zu_tierctl/revert/same_cache.h"

#include "zu_tierctl/entry/entry.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <span>

namespace tierctl {

namespace {

constexpr size_t IDENTITY_SIZE = 16;

/* The super block of one side. */
struct Side {
    bool sound;
    std::string identity;
};

/* What the identities in the entries of both sides say. */
struct Evidence {
    uint64_t same = 0;
    uint64_t other = 0;
    std::string tables; /* that were compared */
};

/* Where the entries of a table have their identity; null: they have none. */
const tier_claim *identity_claim(const tier_table &row)
{
    const auto found = std::ranges::find(row.claims, tier_claim_type::identity, &tier_claim::type);
    return found == row.claims.end() ? nullptr : &*found;
}

} // namespace

std::string cache_identity(const tier_layout &layout, const Block &super_block)
{
    const tier_claim *claim = identity_claim(*layout.tables.front());
    if (claim == nullptr) {
        return "";
    }
    const auto identity = std::span(super_block).subspan(claim->number.at, IDENTITY_SIZE);
    const bool is_nil = std::ranges::all_of(identity, [](uint8_t byte) { return byte == 0; });
    return is_nil ? "" : zutr_uuid_utoa(identity.data());
}

namespace {

/* A super block that is damaged is taken for one of `layout`. */
Side read_side(const Device &device, const tier_layout &layout)
{
    alignas(SIZE_4K) Block block;
    if (!device.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K)) {
        return {false, ""};
    }
    const tier_layout *own = layout_of(block);
    return {own != nullptr, cache_identity(own != nullptr ? *own : layout, block)};
}

bool is_sound_and_in_use(const Table &table, uint64_t no, const uint8_t *slot)
{
    return table.flaws(no, slot) == 0 && table.in_use(slot);
}

/* Compares the entries that are sound and in use on both sides. */
void compare(const Device &saved, const Device &device, const Table &table, Evidence &evidence)
{
    const uint32_t at = identity_claim(*table.row)->number.at;
    alignas(SIZE_4K) Block now;
    read_table(saved, table.regions, [&](const Slots &slots) {
        for (uint64_t i = 0; slots.data != nullptr && i < slots.count; i++) {
            const uint64_t no = slots.first_no + i;
            const uint8_t *then = slots.slot(i);
            if (is_sound_and_in_use(table, no, then) &&
                device.read(table.slot(no), now.data(), SIZE_4K) &&
                is_sound_and_in_use(table, no, now.data())) {
                const bool same = memcmp(then + at, now.data() + at, IDENTITY_SIZE) == 0;
                (same ? evidence.same : evidence.other)++;
            }
        }
    });
}

/* Of entries that belong to no others, like bricks. What belongs to these comes and goes. */
bool tells_the_cache(const Table &table)
{
    return table.name != SUPER_TABLE && identity_claim(*table.row) != nullptr &&
           table.row->owner.table.empty() && table.identifies();
}

Evidence compare_tables(const Device &saved, const Device &device, const Metadata &metadata)
{
    Evidence evidence;
    for (const Table &table : metadata.tables) {
        if (tells_the_cache(table)) {
            compare(saved, device, table, evidence);
            evidence.tables += fmt::format("{}{}", evidence.tables.empty() ? "" : ", ", table.name);
        }
    }
    return evidence;
}

} // namespace

std::string other_cache_reason(const Device &saved, const Device &device, const Metadata &metadata)
{
    const Side then = read_side(saved, *metadata.layout);
    const Side now = read_side(device, *metadata.layout);
    if (!then.identity.empty() && then.identity == now.identity) {
        return "";
    }
    if (then.sound && now.sound && !then.identity.empty() && !now.identity.empty()) {
        return fmt::format("{} is the cache {}, {} was saved from the cache {}", device.path(),
                           now.identity, saved.path(), then.identity);
    }
    const auto [same, other, tables] = compare_tables(saved, device, metadata);
    if (other != 0) {
        return fmt::format("{} of the {} entries ({}) that are sound in both have another identity "
                           "on {} than in {}",
                           other, same + other, tables, device.path(), saved.path());
    }
    return same != 0 ? ""
                     : fmt::format("nothing shows that {} is the device of {}: no entry ({}) is "
                                   "sound and in use in both",
                                   device.path(), saved.path(), tables);
}

void require_same_layout(const Device &saved, const Metadata &then, const Device &device,
                         const Metadata &now)
{
    if (then.layout != now.layout) {
        throw std::runtime_error(fmt::format("{} is of layout {}, {} of layout {}", saved.path(),
                                             then.layout->name, device.path(), now.layout->name));
    }
}

void require_same_super(const Device &saved, const Metadata &then, const Device &device,
                        const Metadata &now)
{
    const auto entry = [](const Metadata &metadata) -> Entry {
        return {metadata, metadata.tables.front(), 0, metadata.super_block.data()};
    };
    const std::string fields = differing_fields(entry_differences(entry(then), entry(now)));
    if (!fields.empty()) {
        throw std::runtime_error(fmt::format("the super blocks of {} and {} differ: {}",
                                             saved.path(), device.path(), fields));
    }
}

} // namespace tierctl
