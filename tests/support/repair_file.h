#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tier_test {

// Plain text as a JSON string: nothing in it is escaped.
std::string json_string(std::string_view plain);

// The JSON object of a repair file, key by key in writing order. Values are JSON text.
class RepairFile {
public:
    RepairFile &number(std::string_view key, std::uint64_t value);
    RepairFile &string(std::string_view key, std::string_view value);

    // Replaces the value of the key, or appends the key.
    RepairFile &set(std::string_view key, std::string_view value);

    // The key must be there.
    RepairFile &erase(std::string_view key);
    RepairFile &rename(std::string_view key, std::string_view name);

    std::string text() const;

private:
    using Member = std::pair<std::string, std::string>;

    std::vector<Member>::iterator find(std::string_view key);
    std::vector<Member>::iterator existing(std::string_view key);

    std::vector<Member> members_;
};

} // namespace tier_test
