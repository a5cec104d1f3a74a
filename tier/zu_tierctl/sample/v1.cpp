#include "zu_tier/format/v1.h"
#include "zu_tierctl/sample/cache.h"

namespace tierctl {

/* Sample devices of layout V1. */

namespace {

class SampleV1 {
public:
    SampleV1(const Sizes &sizes, uint64_t seed) : cache_(sizes, seed) {}

    tier_super_block_v1_t super() const
    {
        return cache_.super<tier_super_block_v1_t>(TIER_SB_MAGIC_V1, TIER_SB_VERSION_V1);
    }

    tier_brick_info_v1_t brick(uint64_t no) { return cache_.brick(TIER_BRICK_MAGIC_V1, no); }

    tier_inode_v1_t inode(uint64_t no) { return cache_.inode(TIER_INODE_MAGIC_V1, no); }

    void fill_extent(uint64_t no, uint8_t *slot)
    {
        std::optional<Held> held;
        put(slot, cache_.extent(no, &held));
        if (held) {
            cache_.hold(slot, held->begin, held->end);
        }
    }

private:
    SampleCache cache_;
};

SamplePlan plan_v1(const Sizes &sizes, uint64_t seed)
{
    const auto contents = std::make_shared<SampleV1>(sizes, seed);
    const tier_super_block_v1_t super = contents->super();
    return sample_plan(contents, super, sample_tables("v1", super), data_end(super));
}

} // namespace

/* NOLINTNEXTLINE(cppcoreguidelines-interfaces-global-init): constinit needs no order */
constinit const SampleLayout SAMPLE_LAYOUT_V1 = {"v1", CACHE_BOUNDS, plan_v1,
                                                 &SAMPLE_LAYOUT_FOR_CONVERSION};

} // namespace tierctl
