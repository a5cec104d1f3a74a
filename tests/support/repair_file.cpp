#include "repair_file.h"

#include <algorithm>
#include <stdexcept>

namespace tier_test {

std::string json_string(std::string_view plain)
{
    return std::string("\"").append(plain).append("\"");
}

RepairFile &RepairFile::number(std::string_view key, std::uint64_t value)
{
    return set(key, std::to_string(value));
}

RepairFile &RepairFile::string(std::string_view key, std::string_view value)
{
    return set(key, json_string(value));
}

RepairFile &RepairFile::set(std::string_view key, std::string_view value)
{
    if (const auto member = find(key); member != members_.end())
        member->second = value;
    else
        members_.emplace_back(key, value);
    return *this;
}

RepairFile &RepairFile::erase(std::string_view key)
{
    members_.erase(existing(key));
    return *this;
}

RepairFile &RepairFile::rename(std::string_view key, std::string_view name)
{
    existing(key)->first = name;
    return *this;
}

std::string RepairFile::text() const
{
    std::string result = "{";
    for (const auto &[key, value] : members_)
        result += (result.size() > 1 ? ",\n \"" : "\"") + key + "\": " + value;
    return result + "}\n";
}

std::vector<RepairFile::Member>::iterator RepairFile::find(std::string_view key)
{
    return std::ranges::find(members_, key, &Member::first);
}

std::vector<RepairFile::Member>::iterator RepairFile::existing(std::string_view key)
{
    const auto member = find(key);
    if (member == members_.end())
        throw std::invalid_argument(std::string(key));
    return member;
}

} // namespace tier_test
