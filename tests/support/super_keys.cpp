#include "super_keys.h"

#include "parsed.h"

#include <algorithm>

namespace tier_test {

namespace {

// A file may give more of the identity than the block keeps.
std::vector<SuperKey> super_keys(const TableModel &table, const Block &block,
                                 const std::string &ssd_uuid)
{
    std::vector<SuperKey> keys;
    const RepairFile file = repair_file(table, block, block).set("ssd_uuid", json_string(ssd_uuid));
    for (const auto &[name, value] : json_members(file.text())) {
        const Key &key = *std::ranges::find(table.keys, name, &Key::name);
        const bool is_text = value.front() == '"';
        const std::string plain = is_text ? value.substr(1, value.size() - 2) : value;
        keys.push_back({name, value, plain.substr(0, key.most != 0 ? key.most : plain.size()),
                        key.func.empty() ? table.parser : key.func});
    }
    return keys;
}

} // namespace

std::vector<SuperKey> super_keys(const SuperV1 &sb)
{
    return super_keys(model(1, "super"), encode(sb), sb.ssd_uuid);
}

std::vector<SuperKey> super_keys(const SuperV2 &sb)
{
    return super_keys(model(2, "super"), encode(sb), sb.ssd_uuid);
}

std::vector<SuperKey> super_keys(const SuperV3 &sb)
{
    return super_keys(model(3, "super"), encode(sb), sb.ssd_uuid);
}

RepairFile file_of(const std::vector<SuperKey> &keys)
{
    RepairFile file;
    for (const SuperKey &key : keys)
        file.set(key.name, key.value);
    return file;
}

std::size_t keys_before(const std::vector<SuperKey> &keys, const std::string &name)
{
    return static_cast<std::size_t>(std::ranges::find(keys, name, &SuperKey::name) - keys.begin());
}

Log key_log(const std::vector<SuperKey> &keys, std::size_t count)
{
    Log log;
    for (std::size_t i = 0; i < count; ++i)
        log.push_back(debug_line(keys.at(i).func, keys.at(i).name + ": " + keys.at(i).logged));
    return log;
}

} // namespace tier_test
