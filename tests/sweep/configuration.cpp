#include "configuration_keys.h"

#include "repair_file.h"

#include <algorithm>
#include <ostream>

namespace tier_test {

namespace {

std::uint64_t mask(unsigned width)
{
    return width == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << width) - 1;
}

std::uint64_t turned(std::uint64_t value, const ConfigKey &key)
{
    return key.reversed ? __builtin_bswap32(static_cast<std::uint32_t>(value)) : value;
}

std::string sample_value(const ConfigKey &key, const Block &block)
{
    switch (key.holds) {
    case Holds::NUMBER:
        return key.sample.empty() ? std::to_string(get_bits(block, key)) : key.sample;
    case Holds::HEX:
        return json_string(text("0x%lx", get_bits(block, key)));
    case Holds::UUID:
        return json_string(uuid_text(get_uuid(block, key.byte)));
    case Holds::TEXT:
        return json_string(key.sample.empty() ? get_text(block, key.byte) : key.sample);
    case Holds::ARRAY:
        return key.sample;
    }
    return {};
}

} // namespace

std::uint64_t get_bits(const Block &block, const ConfigKey &key)
{
    return turned(get_u64(block, key.byte) >> key.shift & mask(key.width), key);
}

void put_bits(Block &block, const ConfigKey &key, std::uint64_t value)
{
    const std::uint64_t bits = mask(key.width) << key.shift;
    const std::uint64_t field = turned(value & mask(key.width), key) << key.shift;
    put_u64(block, key.byte, (get_u64(block, key.byte) & ~bits) | field);
}

Members sample_members(const ConfigTable &table)
{
    Members members;
    for (const ConfigKey &key : table.keys)
        members.emplace_back(key.name, sample_value(key, table.sample.block));
    return members;
}

std::string object_of(const Members &members)
{
    std::string object;
    for (const auto &[name, value] : members)
        object.append(object.empty() ? "{" : ",").append(json_string(name) + ":" + value);
    return object.append(object.empty() ? "{}" : "}");
}

std::string object_text(const ConfigTable &table)
{
    return object_of(sample_members(table));
}

const std::vector<ConfigTable> &config_tables()
{
    static const std::vector<ConfigTable> TABLES = [] {
        std::vector<ConfigTable> all;
        for (const auto &tables : {super_configs(), brick_configs(), inode_configs(),
                                   extent_configs(), packed_configs()})
            all.insert(all.end(), tables.begin(), tables.end());
        return all;
    }();
    return TABLES;
}

std::ostream &operator<<(std::ostream &out, const ConfigTable *table)
{
    return out << table->name;
}

} // namespace tier_test
