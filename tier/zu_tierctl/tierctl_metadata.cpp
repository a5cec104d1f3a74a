#include "zu_tierctl/tierctl_metadata.h"

#include "zu_tierctl/tierctl_error.h"

namespace {

struct layout {
    std::string_view name;
    tierctl_version version;
    uint32_t magic;
    uint32_t code; /* of the version, as the super block has it */
    size_t length; /* of the super block */
};

constexpr size_t VERSION_AT = offsetof(tier_super_block_v1_t, sb_version);
static_assert(VERSION_AT == offsetof(tier_super_block_v2_t, sb_version));
static_assert(VERSION_AT == offsetof(tier_super_block_v3_t, sb_version));

constexpr layout LAYOUTS[] = {
    {"v1", tierctl_version::v1, TIER_SB_MAGIC_V1, TIER_SB_VERSION_V1,
     sizeof(tier_super_block_v1_t)},
    {"v2", tierctl_version::v2, TIER_SB_MAGIC_V2, TIER_SB_VERSION_V2,
     sizeof(tier_super_block_v2_t)},
    {"v3", tierctl_version::v3, TIER_SB_MAGIC_V3, TIER_SB_VERSION_V3,
     sizeof(tier_super_block_v3_t)},
};

bool is_super_of(const layout &layout, const uint8_t *block)
{
    return tierctl_super_table(layout.length, layout.magic).flaws(0, block) == 0 &&
           tierctl_place{VERSION_AT, sizeof(uint32_t)}.get(block) == layout.code;
}

} // namespace

tierctl_metadata tierctl_read_metadata(const tierctl_device &device)
{
    tierctl_metadata metadata{};
    if (!device.read(TIER_SUPER_OFFSET, metadata.super_block.data(), SIZE_4K)) {
        tierctl_throw_errno("cannot read the super block of " + device.path());
    }
    for (const layout &layout : LAYOUTS) {
        if (is_super_of(layout, metadata.super_block.data())) {
            metadata.version = layout.version;
            metadata.layout_name = layout.name;
            metadata.tables =
                metadata.with_super([](const auto &super) { return tierctl_tables(super); });
            return metadata;
        }
    }
    throw std::runtime_error(device.path() + " has no super block of a known layout");
}
