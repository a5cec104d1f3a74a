#include "damage_kinds.h"

#include "v1_device.h"

#include <algorithm>

namespace tier_test {

namespace {

bool always(const DamagedTable &)
{
    return true;
}

template <std::size_t DamagedTable::*Field>
bool has(const DamagedTable &table)
{
    return table.*Field != 0;
}

// The checksum is made right again.
template <std::size_t DamagedTable::*Field>
void spoil_field(const DamagedTable &table, Block &slot)
{
    slot[table.*Field] ^= 0x10;
    table.repair->seal(slot);
}

const std::vector<DamageKind> KINDS{
    {"checksum", always, [](const DamagedTable &, Block &slot) { slot[0] ^= 1; }},
    {"bit", always, [](const DamagedTable &, Block &slot) { slot[51] ^= 0x80; }},
    {"magic", has<&DamagedTable::magic_at>, spoil_field<&DamagedTable::magic_at>},
    {"number", has<&DamagedTable::number_at>, spoil_field<&DamagedTable::number_at>},
    {"zero", always, [](const DamagedTable &, Block &slot) { slot.fill(0); }},
    {"ones", always, [](const DamagedTable &, Block &slot) { slot.fill(0xFF); }},
    {"noise", always,
     [](const DamagedTable &, Block &slot) {
         std::uint32_t state = 1;
         for (std::uint8_t &byte : slot)
             byte = static_cast<std::uint8_t>((state = state * 1103515245 + 12345) >> 16);
     }},
    {"torn", always, // the first bytes are those of another entry, with its checksum
     [](const DamagedTable &table, Block &slot) {
         std::copy_n(table.repair->sample.block.begin(), 40, slot.begin());
     }},
    {"a super block", always,
     [](const DamagedTable &, Block &slot) { slot = encode(super_v1(1, 1, 1)); }},
};

} // namespace

const std::vector<DamageKind> &damage_kinds()
{
    return KINDS;
}

} // namespace tier_test
