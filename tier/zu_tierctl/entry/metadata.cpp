#include "zu_tierctl/entry/metadata.h"

#include "zu_tierctl/device/error.h"

#include <algorithm>

namespace tierctl {

bool looks_like(const tier_layout &layout, const Block &block)
{
    const tier_table &super = *layout.tables.front();
    return super.magic.get(block.data()) == super.magic_value &&
           layout.version_number.get(block.data()) == layout.version_value;
}

bool is_super(const tier_layout &layout, const Block &block)
{
    return looks_like(layout, block) &&
           Table(*layout.tables.front(), block.data()).flaws(0, block.data()) == 0;
}

const tier_layout *layout_of(const Block &block)
{
    const auto layouts = tier_layouts();
    const auto found = std::ranges::find_if(
        layouts, [&block](const tier_layout *layout) { return is_super(*layout, block); });
    return found == layouts.end() ? nullptr : *found;
}

Block read_super(const Device &device)
{
    alignas(SIZE_4K) Block block;
    if (!device.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K)) {
        throw_errno("cannot read the super block of " + device.path());
    }
    return block;
}

Metadata read_metadata(const Device &device)
{
    const Block block = read_super(device);
    const tier_layout *layout = layout_of(block);
    if (layout == nullptr) {
        throw std::runtime_error(device.path() + " has no super block of a known layout");
    }
    return {layout, block, tables_of(*layout, block.data())};
}

} // namespace tierctl
