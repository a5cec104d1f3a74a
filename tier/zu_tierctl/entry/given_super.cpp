#include "zu_tierctl/entry/given_super.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/rebuild.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>

namespace tierctl {

namespace {

constexpr size_t TEXT_MAX = SIZE_1M; /* of a repair file */

/* The block where the super block lies, or the only one. */
Block read_block(const Device &file)
{
    alignas(SIZE_4K) Block block{};
    const int64_t offset = file.size() == SIZE_4K ? 0 : TIER_SUPER_OFFSET;
    if (file.size() >= static_cast<uint64_t>(offset) + SIZE_4K &&
        !file.read(offset, block.data(), SIZE_4K)) {
        throw_errno("cannot read the super block of " + file.path());
    }
    return block;
}

std::string read_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(TEXT_MAX, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    return text;
}

/* The keys of a repair file whose value is null: those that rescue does not know. */
std::vector<std::string> null_keys(const std::string &text)
{
    std::vector<std::string> keys;
    const auto file = nlohmann::ordered_json::parse(text, nullptr, false);
    for (const auto &[key, value] : file.items()) {
        if (value.is_null()) {
            keys.push_back(shown_text(key));
        }
    }
    return keys;
}

/* What the parser of the first layout that takes the text makes of it. */
Metadata build(const std::string &path, const Device &device)
{
    std::string complaint = path + " holds no super block, and is no repair file for one";
    const std::string text = read_text(path);
    if (!text.starts_with('{')) {
        throw std::runtime_error(complaint);
    }
    const std::vector<std::string> unknown = null_keys(text);
    if (!unknown.empty()) {
        throw std::runtime_error(fmt::format(
            "{}: it has null for {}; rescue writes their values when they are given, by --uuid, "
            "--ssd-uuid, --ctime or --like",
            complaint, fmt::join(unknown, ", ")));
    }
    for (const tier_layout *layout : tier_layouts()) {
        const Block empty{};
        const Metadata metadata{layout, empty, {Table(*layout->tables.front(), empty.data())}};
        const Rebuilt rebuilt = rebuild(device, metadata, metadata.tables.front(), text, false);
        if (rebuilt.block) {
            return make_metadata(*layout, *rebuilt.block, device);
        }
        for (const std::string &message : rebuilt.messages) {
            complaint += fmt::format("; {}: {}", layout->name, shown_text(message));
        }
    }
    throw std::runtime_error(complaint);
}

} // namespace

bool has_super(const Device &device)
{
    alignas(SIZE_4K) Block block;
    return device.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K) && layout_of(block) != nullptr;
}

Metadata read_metadata(const Device &device, const std::string &super_file)
{
    if (super_file.empty()) {
        return read_metadata(device);
    }
    const Device file(super_file, Access::read_only);
    const Block block = read_block(file);
    const tier_layout *layout = layout_of(block);
    Metadata metadata =
        layout != nullptr ? make_metadata(*layout, block, device) : build(super_file, device);
    complain(fmt::format("the super block is that of {}, not of {}{}", super_file, device.path(),
                         has_super(device) ? "" : ", which needs one before zu_tier can read it"));
    return metadata;
}

} // namespace tierctl
