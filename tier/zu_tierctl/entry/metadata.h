#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/table.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace tierctl {

enum class Version { v1 = 1, v2, v3 };

using Block = std::array<uint8_t, SIZE_4K>;

/* How to tell a super block. */
struct SuperLayout {
    std::string_view name; /* "v1" */
    Version version;
    uint32_t magic;
    uint32_t code; /* of the version, as the super block has it */
    size_t length; /* of the super block */

    /* The super block as a table. */
    Table table() const;

    /* The version that a super block of any layout names. */
    static uint32_t version_of(const uint8_t *block);
};

std::span<const SuperLayout> super_layouts();

/* What a device says of itself: the layout of its super block, and the tables that this describes.
 */
struct Metadata {
    Version version;
    std::string_view layout_name; /* "v1" */
    Block super_block;
    std::vector<Table> tables; /* the first is the super block itself */

    /* The super block as the record of its layout. */
    template <class Super>
    Super super() const
    {
        Super super;
        memcpy(&super, super_block.data(), sizeof(super));
        return super;
    }

    /* What `use` gives for the super block as the record of its layout. */
    template <class Use>
    auto with_super(const Use &use) const
    {
        switch (version) {
        case Version::v1:
            return use(super<tier_super_block_v1_t>());
        case Version::v2:
            return use(super<tier_super_block_v2_t>());
        default:
            return use(super<tier_super_block_v3_t>());
        }
    }
};

/* Reads the block in which the super block lies, whatever it holds. Throws. */
Block read_super(const Device &device);

/* Reads the super block and asks each layout, as the tool does, whether it is one of its own.
 * Throws when it cannot be read or is none. */
Metadata read_metadata(const Device &device);

} // namespace tierctl
