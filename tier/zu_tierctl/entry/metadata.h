#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/table.h"

#include <array>
#include <cstdint>
#include <vector>

namespace tierctl {

/* The block in which the super block lies. */
struct alignas(uint64_t) Block : std::array<uint8_t, SIZE_4K> {};

/* The layout of a device's super block, and the tables that it describes. */
struct Metadata {
    const tier_layout *layout;
    Block super_block;
    std::vector<Table> tables; /* the first is the super block itself */

    const void *super() const { return super_block.data(); }
};

/* Whether a block has the magic and the version of the layout. */
bool looks_like(const tier_layout &layout, const Block &block);

/* Whether it is a sound super block of the layout, as the tool tests it. */
bool is_super(const tier_layout &layout, const Block &block);

/* The layout of which it is a sound super block; null: it is none. */
const tier_layout *layout_of(const Block &block);

/* Reads the block in which the super block lies, whatever it holds. Throws. */
Block read_super(const Device &device);

/* The metadata of a device by a sound super block of the layout. Throws when the list of unreadable
 * blocks beside the device is of others. */
Metadata make_metadata(const tier_layout &layout, const Block &super_block, const Device &device);

/* Reads the super block and finds its layout as the tool does. Throws when it cannot be read or is
 * of none. */
Metadata read_metadata(const Device &device);

} // namespace tierctl
