#include "zu_tierctl/entry/metadata.h"

#include "zu_tierctl/device/error.h"

#include <cstring>

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
    for (const tier_layout *layout : tier_layouts()) {
        if (is_super(*layout, block)) {
            return {layout, block, tables_of(*layout, block.data())};
        }
    }
    throw std::runtime_error(device.path() + " has no super block of a known layout");
}

} // namespace tierctl
