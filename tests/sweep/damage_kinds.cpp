#include "damage_kinds.h"

#include "v1_device.h"

#include <algorithm>

namespace tier_test {

namespace {

bool always(const DamagedTable &) { return true; }

bool has_magic(const DamagedTable &table) { return table.magic != 0; }

bool has_number(const DamagedTable &table) { return !table.number.empty(); }

// The checksum is made right again.
void spoil(const DamagedTable &table, Block &slot, std::size_t byte)
{
    slot[byte] ^= 0x10;
    seal(table, table.sample->super, slot);
}

const std::vector<DamageKind> KINDS{
    {"checksum", always, [](const DamagedTable &, Block &slot) { slot[0] ^= 1; }},
    {"bit", always, [](const DamagedTable &, Block &slot) { slot[51] ^= 0x80; }},
    {"magic", has_magic, [](const DamagedTable &table, Block &slot) { spoil(table, slot, 4); }},
    {"number", has_number,
     [](const DamagedTable &table, Block &slot) {
         spoil(table, slot, table.field(table.number).byte);
     }},
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
         const Block other = table.sample->block();
         std::copy_n(other.begin(), 40, slot.begin());
     }},
    {"a super block", always,
     [](const DamagedTable &, Block &slot) { slot = encode(super_v1(1, 1, 1)); }},
};

} // namespace

const std::vector<DamageKind> &damage_kinds() { return KINDS; }

} // namespace tier_test
