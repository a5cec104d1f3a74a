#include "zu_tierctl/entry/owners.h"

#include <algorithm>
#include <cstring>
#include <fmt/core.h>
#include <tuple>
#include <uuid/uuid.h>

namespace tierctl {

namespace {

/* Where the uuid of an entry lies. */
std::optional<uint32_t> find_uuid(const tier_table &row)
{
    const tier_columns columns = row.fields();
    const auto column = std::ranges::find(columns, tier_column_type::uuid, &tier_column::type);
    return column != columns.end() ? std::optional(column->at) : std::nullopt;
}

} // namespace

std::string uuid_text(const OwnerName &uuid)
{
    std::array<char, UUID_STR_LEN> text;
    uuid_unparse_lower(uuid.data(), text.data());
    return text.data();
}

Owners::Owners(const std::vector<Table> &tables, const Table &table)
{
    std::string_view name = table.row->owner.table;
    while (!name.empty()) {
        const Table &owner = find_table(tables, name);
        levels_.push_back({&owner, find_uuid(*owner.row), {}});
        name = owner.row->owner.table;
    }
}

/* An entry without a uuid is told apart by the number that it claims among those of its owner. */
void Owners::add(size_t level, uint64_t no, const uint8_t *entry)
{
    Level &to = levels_[level];
    const tier_table &row = *to.table->row;
    Owner owner{no, row.owner.table.empty() ? 0 : row.owner.no.get(entry), {}, false};
    if (to.uuid_at) {
        memcpy(owner.name.data(), entry + *to.uuid_at, owner.name.size());
    } else {
        const uint64_t number = row.claims.front().number.get(entry);
        memcpy(owner.name.data(), &number, sizeof(number));
    }
    to.owners.push_back(owner);
}

void Owners::finish()
{
    const auto by_name = [](const Owner &owner) {
        return std::tie(owner.above, owner.name, owner.no);
    };
    for (Level &level : levels_) {
        std::ranges::sort(level.owners, {}, by_name);
        for (size_t i = 1; i < level.owners.size(); i++) {
            const Owner &before = level.owners[i - 1];
            Owner &owner = level.owners[i];
            owner.again = owner.above == before.above && owner.name == before.name;
        }
        std::ranges::sort(level.owners, {}, &Owner::no);
    }
}

const Owners::Owner *Owners::Level::find(uint64_t no) const
{
    const auto owner = std::ranges::lower_bound(owners, no, {}, &Owner::no);
    return owner != owners.end() && owner->no == no ? &*owner : nullptr;
}

std::string Owners::path(uint64_t no) const
{
    std::string path;
    for (const Level &level : levels_) {
        const Owner *owner = level.find(no);
        const std::string below = path.empty() ? "" : "/" + path;
        if (owner == nullptr || (level.uuid_at && owner->name == OwnerName{})) {
            return fmt::format("unknown/{}-{}{}", level.table->name, no, below);
        }
        if (level.uuid_at) {
            path = uuid_text(owner->name);
        } else {
            uint64_t number = 0;
            memcpy(&number, owner->name.data(), sizeof(number));
            path = fmt::format("{}", number);
        }
        if (owner->again) {
            path += fmt::format(".{}-{}", level.table->name, no);
        }
        path += below;
        no = owner->above;
    }
    return path;
}

OwnerName Owners::uuid(uint64_t no) const
{
    for (const Level &level : levels_) {
        const Owner *owner = level.find(no);
        if (owner == nullptr) {
            break;
        }
        if (level.uuid_at) {
            return owner->name;
        }
        no = owner->above;
    }
    return {};
}

bool Owners::belongs(uint64_t no, const OwnerFilter &filter) const
{
    for (const Level &level : levels_) {
        const Owner *owner = level.find(no);
        if (level.table->name == filter.table) {
            return filter.uuid ? owner != nullptr && owner->name == *filter.uuid : no == filter.no;
        }
        if (owner == nullptr) {
            return false;
        }
        no = owner->above;
    }
    return false;
}

} // namespace tierctl
