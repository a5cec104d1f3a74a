#include "zu_tierctl/entry/metadata.h"

#include "zu_tierctl/device/error.h"

namespace tierctl {

namespace {

constexpr size_t VERSION_AT = offsetof(tier_super_block_v1_t, sb_version);
static_assert(VERSION_AT == offsetof(tier_super_block_v2_t, sb_version));
static_assert(VERSION_AT == offsetof(tier_super_block_v3_t, sb_version));

constexpr SuperLayout SUPER_LAYOUTS[] = {
    {"v1", Version::v1, TIER_SB_MAGIC_V1, TIER_SB_VERSION_V1, sizeof(tier_super_block_v1_t)},
    {"v2", Version::v2, TIER_SB_MAGIC_V2, TIER_SB_VERSION_V2, sizeof(tier_super_block_v2_t)},
    {"v3", Version::v3, TIER_SB_MAGIC_V3, TIER_SB_VERSION_V3, sizeof(tier_super_block_v3_t)},
};

} // namespace

Table SuperLayout::table() const
{
    return super_table(length, magic);
}

uint32_t SuperLayout::version_of(const uint8_t *block)
{
    return static_cast<uint32_t>(Place{VERSION_AT, sizeof(uint32_t)}.get(block));
}

std::span<const SuperLayout> super_layouts()
{
    return SUPER_LAYOUTS;
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
    Metadata metadata{};
    metadata.super_block = read_super(device);
    const uint8_t *block = metadata.super_block.data();
    for (const SuperLayout &layout : SUPER_LAYOUTS) {
        if (layout.table().flaws(0, block) == 0 && layout.version_of(block) == layout.code) {
            metadata.version = layout.version;
            metadata.layout_name = layout.name;
            metadata.tables =
                metadata.with_super([](const auto &super) { return tables_of(super); });
            return metadata;
        }
    }
    throw std::runtime_error(device.path() + " has no super block of a known layout");
}

} // namespace tierctl
