#include "damage_values.h"

namespace tier_test {

std::uint64_t get_field(const Block &super, const SuperField &field)
{
    return get_u64(super, field.byte) & (~std::uint64_t{0} >> (64 - 8 * field.width));
}

void put_field(Block &super, const SuperField &field, std::uint64_t value)
{
    for (unsigned i = 0; i < field.width; ++i)
        put_u8(super, field.byte + i, static_cast<std::uint8_t>(value >> (8 * i)));
}

std::set<std::uint64_t> damage_values(const SuperField &field, std::uint64_t old)
{
    const std::uint64_t max = ~std::uint64_t{0} >> (64 - 8 * field.width);
    std::set<std::uint64_t> all;
    for (const std::uint64_t value :
         {std::uint64_t{0}, std::uint64_t{1}, max, max - 1, max - 4095, std::uint64_t{0x7FFF'FFFF},
          std::uint64_t{0x8000'0000}, std::uint64_t{0xFFFF'FFFF}, std::uint64_t{0x1'0000'0000},
          max / 2, max / 2 + 1, max / 2 - 4095, old - 1, old + 1, old - 4096, old + 4096})
        all.insert(value & max);
    all.erase(old);
    return all;
}

} // namespace tier_test
