#include "zu_tierctl/entry/metadata.h"

#include "zu_tierctl/device/error.h"

namespace {

constexpr size_t VERSION_AT = offsetof(tier_super_block_v1_t, sb_version);
static_assert(VERSION_AT == offsetof(tier_super_block_v2_t, sb_version));
static_assert(VERSION_AT == offsetof(tier_super_block_v3_t, sb_version));

constexpr tierctl_super_layout SUPER_LAYOUTS[] = {
    {"v1", tierctl_version::v1, TIER_SB_MAGIC_V1, TIER_SB_VERSION_V1,
     sizeof(tier_super_block_v1_t)},
    {"v2", tierctl_version::v2, TIER_SB_MAGIC_V2, TIER_SB_VERSION_V2,
     sizeof(tier_super_block_v2_t)},
    {"v3", tierctl_version::v3, TIER_SB_MAGIC_V3, TIER_SB_VERSION_V3,
     sizeof(tier_super_block_v3_t)},
};

} // namespace

tierctl_table tierctl_super_layout::table() const
{
    return tierctl_super_table(length, magic);
}

uint32_t tierctl_super_layout::version_of(const uint8_t *block)
{
    return static_cast<uint32_t>(tierctl_place{VERSION_AT, sizeof(uint32_t)}.get(block));
}

std::span<const tierctl_super_layout> tierctl_super_layouts()
{
    return SUPER_LAYOUTS;
}

tierctl_block tierctl_read_super(const tierctl_device &device)
{
    alignas(SIZE_4K) tierctl_block block;
    if (!device.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K)) {
        tierctl_throw_errno("cannot read the super block of " + device.path());
    }
    return block;
}

tierctl_metadata tierctl_read_metadata(const tierctl_device &device)
{
    tierctl_metadata metadata{};
    metadata.super_block = tierctl_read_super(device);
    const uint8_t *block = metadata.super_block.data();
    for (const tierctl_super_layout &layout : SUPER_LAYOUTS) {
        if (layout.table().flaws(0, block) == 0 && layout.version_of(block) == layout.code) {
            metadata.version = layout.version;
            metadata.layout_name = layout.name;
            metadata.tables =
                metadata.with_super([](const auto &super) { return tierctl_tables(super); });
            return metadata;
        }
    }
    throw std::runtime_error(device.path() + " has no super block of a known layout");
}
