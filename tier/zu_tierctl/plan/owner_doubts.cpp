#include "zu_tierctl/plan/owner_doubts.h"

#include "zu_tierctl/device/text.h"

#include <cstring>
#include <fmt/format.h>

namespace tierctl {

namespace {

constexpr size_t IDENTITY_SIZE = 16;

} // namespace

bool OwnerDoubts::Slots::may_own(uint64_t no)
{
    const uint8_t *found = entry(no);
    return found == nullptr || table_.in_use(found);
}

const uint8_t *OwnerDoubts::Slots::entry(uint64_t no)
{
    const uint64_t slot = no / table_.end_word;
    const auto word = static_cast<uint32_t>(no % table_.end_word);
    if (slot >= table_.count() || word < table_.first_word) {
        return nullptr;
    }
    if (slots_.size() == SLOTS_MAX) {
        slots_.clear();
    }
    const auto [found, is_new] = slots_.try_emplace(slot);
    if (is_new) {
        alignas(SIZE_4K) Block block;
        if (table_.identifies() && device_.read(table_.slot(slot), block.data(), SIZE_4K) &&
            table_.flaws(slot, block.data()) == 0) {
            found->second = block;
        }
    }
    return found->second ? Table::entry(found->second->data(), word) : nullptr;
}

OwnerDoubts::Slots &OwnerDoubts::slots(const Device &device, const Table &table)
{
    return slots_.try_emplace({&device, table.name}, device, table).first->second;
}

template <class Text>
std::string OwnerDoubts::find(const Table &table, const Block &block, const Text &text) const
{
    if (table.row->owner.table.empty()) {
        return "";
    }
    const Table &owners = find_table(metadata_.tables, table.row->owner.table);
    for (uint32_t k = table.first_word; k < table.end_word; k++) {
        const uint8_t *entry = Table::entry(block.data(), k);
        if (!table.in_use(entry)) {
            continue;
        }
        std::string found = text(owners, table.row->owner.no.get(entry));
        if (!found.empty()) {
            return found;
        }
    }
    return "";
}

std::string OwnerDoubts::missing(const Table &table, const Block &block)
{
    return find(table, block, [this](const Table &owners, uint64_t owner) {
        return text_if(!slots(device_, owners).may_own(owner),
                       fmt::format("it refers to {} {}, which is not in use", owners.name, owner));
    });
}

bool OwnerDoubts::may_be_same(const Table &table, uint64_t no)
{
    const Table *looked_at = &table;
    while (true) {
        const uint8_t *now = slots(device_, *looked_at).entry(no);
        const uint8_t *then = slots(*saved_, *looked_at).entry(no);
        if (now == nullptr || then == nullptr || !looked_at->in_use(then)) {
            return true;
        }
        const tier_table &row = *looked_at->row;
        for (const tier_claim &claim : row.claims) {
            if (claim.type == tier_claim_type::identity) {
                return memcmp(now + claim.number.at, then + claim.number.at, IDENTITY_SIZE) == 0;
            }
            if (claim.number.get(now) != claim.number.get(then)) {
                return false;
            }
        }
        if (row.owner.table.empty()) {
            return true;
        }
        no = row.owner.no.get(now);
        if (no != row.owner.no.get(then)) {
            return false;
        }
        looked_at = &find_table(metadata_.tables, row.owner.table);
    }
}

std::string OwnerDoubts::replaced(const Table &table, const Block &then)
{
    return find(table, then, [this](const Table &owners, uint64_t owner) {
        return text_if(
            !may_be_same(owners, owner),
            fmt::format("it refers to {} {}, which was another one then", owners.name, owner));
    });
}

} // namespace tierctl
