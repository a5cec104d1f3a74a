#pragma once

// What the tables of keys are made of.

#include "configuration.h"
#include "v2_device.h"

namespace tier_test {

// A number that fills whole bytes.
inline ConfigKey number(const char *name, std::size_t byte, unsigned width,
                        Taken taken = Taken::SIGNED_64, Needed needed = Needed::IN_USE)
{
    return {.name = name, .needed = needed, .taken = taken, .byte = byte, .width = width};
}

// The number of an entry in a table of so many.
inline ConfigKey bounded(ConfigKey key, std::uint64_t count)
{
    for (const std::uint64_t value : {count - 1, count, count + 1})
        key.more.push_back(std::to_string(value));
    return key;
}

const std::vector<TextCase> &uuid_cases();

// The object of these keys with the values of the sample.
std::string object_text(const ConfigTable &table);

// The line about an inode number of a device without an expansion area.
LogLine invalid_inode_v2(std::uint32_t no, const SuperV2 &super);

} // namespace tier_test
