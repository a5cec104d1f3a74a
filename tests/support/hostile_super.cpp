#include "hostile_super.h"

#include "model.h"

#include <set>

namespace tier_test {

namespace {

std::set<std::uint64_t> hostile_values(unsigned bits)
{
    const std::uint64_t most = ~std::uint64_t{0} >> (64 - bits);
    const std::uint64_t half = most / 2 + 1;
    if (bits < 64)
        return {0, 1, half - 1, most};
    return {0, 1, BLOCK_SIZE, BIT_32, half - BLOCK_SIZE, half, most - (BLOCK_SIZE - 1), most};
}

} // namespace

std::vector<HostileSuper> hostile_supers(int version, const Block &super)
{
    const TableModel &table = model(version, "super");
    const std::set<std::string> known{"checksum", "magic", "version"};
    std::vector<HostileSuper> all;
    for (const Field &field : table.fields) {
        if (!field.is_number() || known.contains(field.name))
            continue;
        for (const std::uint64_t value : hostile_values(field.width)) {
            Block block = super;
            put_number(block, field, value);
            seal(table, block, block);
            all.push_back({text("v%d %s %lu", version, field.name.c_str(), value), block});
        }
    }
    return all;
}

std::vector<Device> hostile_devices(int version, const Block &super,
                                    const std::function<Device()> &make)
{
    std::vector<Device> devices;
    for (const HostileSuper &hostile : hostile_supers(version, super)) {
        devices.push_back(make());
        devices.back().write(SUPER_OFFSET, hostile.block);
    }
    return devices;
}

} // namespace tier_test
