#include "zu_tier/format/v2.h"
#include "zu_tier/format/v1.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/sample/cache.h"

#include <algorithm>
#include <fmt/core.h>

namespace tierctl {

/* Sample devices of layout V2, and for convert_super devices with its tables under a super block of
 * V1. */

namespace {

constexpr uint64_t TIB = uint64_t{1} << 40;

/* convert_super reads 1 MiB of extents. */
constexpr uint32_t CONVERSION_BLOCKS_MIN = SIZE_1M / SIZE_4K;

/* The room that the hot area and the largest number of mapped pieces leave in a slot. */
constexpr uint32_t EXTENT_SIZE_MAX =
    SIZE_4K - EXTENT_HOT_LEN * sizeof(tier_mapped_meta_v2_t) - TIER_HOT_SIZE_V2;

/* The numbers of inodes have a limit, which a larger area would exceed. */
constexpr uint32_t EXPANSION_MAX = TIER_INODE_NO_BOUND_V2 / TIER_EXP_UNIT_V2 * TIER_EXP_UNIT_V2;

/* Bytes of a mapped piece. Blocks between 2 MiB and 4 MiB have at most 64 pieces only when the
 * device is large; for the others the layout has no size. */
uint32_t map_size(const Sizes &sizes)
{
    const uint32_t blocks = sizes[BLOCKS];
    const uint32_t block_size = sizes[BLOCK_SIZE];
    if (block_size > 2 * SIZE_1M && block_size < 4 * SIZE_1M &&
        uint64_t{blocks} * block_size <= TIB) {
        throw UsageError(fmt::format("{} {}: a block would have more than {} mapped pieces",
                                     SIZE_OPTIONS[BLOCK_SIZE].name, block_size, EXTENT_HOT_LEN));
    }
    return static_cast<uint32_t>(get_def_min_alloc_size(blocks, block_size));
}

tier_super_block_v2_t make_super(const SampleCache &cache, const Sizes &sizes)
{
    auto super = cache.super<tier_super_block_v2_t>(TIER_SB_MAGIC_V2, TIER_SB_VERSION_V2);
    super.sb_min_alloc_size = map_size(sizes);
    super.sb_map_cnt = static_cast<uint32_t>(
        tier_round_up(super.sb_block_size, super.sb_min_alloc_size) / super.sb_min_alloc_size);
    super.sb_size_mapped_meta = sizeof(tier_mapped_meta_v2_t);
    super.sb_total_map_size = super.sb_map_cnt * super.sb_size_mapped_meta;
    super.sb_hot_size = TIER_HOT_SIZE_V2;
    super.sb_total_extent_size = super.sb_extent_size + super.sb_total_map_size + super.sb_hot_size;
    if (sizes[EXPANSION] != 0) {
        super.sb_inode_exp_magic = TIER_EXP_MAGIC_V2;
        super.sb_inode_exp_area = static_cast<uint8_t>(sizes[EXPANSION] / TIER_EXP_UNIT_V2);
        super.sb_inode_exp_inuse = TIER_EXP_INUSE_V2;
    }
    return super;
}

class SampleV2 {
public:
    SampleV2(const Sizes &sizes, uint64_t seed)
        : cache_(sizes, seed), super_(make_super(cache_, sizes))
    {
    }

    const tier_super_block_v2_t &super() const { return super_; }

    tier_super_block_v1_t super_v1() const
    {
        return cache_.super<tier_super_block_v1_t>(TIER_SB_MAGIC_V1, TIER_SB_VERSION_V1);
    }

    tier_brick_info_v2_t brick(uint64_t no) { return cache_.brick(TIER_BRICK_MAGIC_V2, no); }

    tier_inode_v2_t inode(uint64_t no);
    void fill_extent(uint64_t no, uint8_t *slot);

private:
    tier_mapped_meta_v2_t piece(uint32_t mapno, const Held &held) const;
    void fill_pieces(tier_extent_v2_t *extent, const Held &held, uint8_t *slot);

    SampleCache cache_;
    tier_super_block_v2_t super_;
};

tier_inode_v2_t SampleV2::inode(uint64_t no)
{
    tier_inode_v2_t inode = cache_.inode(TIER_INODE_MAGIC_V2, no);
    if (inode.i_use != 0) {
        inode.new_data = cache_.random().below(inode.i_size);
        inode.i_blocks = tier_round_up(inode.i_size, super_.sb_block_size) / super_.sb_block_size;
    }
    return inode;
}

void SampleV2::fill_extent(uint64_t no, uint8_t *slot)
{
    std::optional<Held> held;
    tier_extent_v2_t extent = cache_.extent(no, &held);
    if (held) {
        fill_pieces(&extent, *held, slot);
        uint8_t *hot = slot + super_.sb_extent_size + super_.sb_total_map_size;
        for (uint32_t i = 0; i < super_.sb_hot_size; i++) {
            hot[i] = static_cast<uint8_t>(cache_.random().below(256));
        }
    }
    put(slot, extent);
}

/* Puts pieces of `held` into the extent: always the first, and most of the others. The first piece
 * of an extent that is not clean is not clean either. */
void SampleV2::fill_pieces(tier_extent_v2_t *extent, const Held &held, uint8_t *slot)
{
    const uint64_t block_offset = uint64_t{extent->te_block} * super_.sb_block_size;
    uint8_t *pieces = slot + super_.sb_extent_size;
    extent->te_size = 0;
    for (uint32_t mapno = 0; mapno < super_.sb_map_cnt; mapno++) {
        const bool first = extent->te_size == 0;
        tier_mapped_meta_v2_t meta = piece(mapno, held);
        if (meta.cnt == 0 || (!first && cache_.random().one_in(8))) {
            continue;
        }
        const bool clean = extent->te_clean != 0 || (!first && cache_.random().one_in(2));
        meta.offset += block_offset;
        meta.clean_length = tier_clean_length_v2(clean ? 1 : 0, meta.orig_len());
        put(pieces + mapno * sizeof(meta), meta);
        cache_.hold(slot, meta.begin, uint64_t{meta.begin} + meta.cnt);
        extent->te_size += meta.orig_len();
    }
}

/* The part of `held` in the piece `mapno`, with its offset within the block; without pages when
 * there is none. */
tier_mapped_meta_v2_t SampleV2::piece(uint32_t mapno, const Held &held) const
{
    const uint64_t pages = super_.sb_min_alloc_size / SIZE_4K;
    const uint64_t begin = std::max(held.begin, mapno * pages);
    const uint64_t end = std::min(held.end, (mapno + 1) * pages);
    if (begin >= end) {
        return {};
    }
    const uint64_t length = std::min(held.length, end * SIZE_4K) - begin * SIZE_4K;
    return {begin * SIZE_4K, tier_clean_length_v2(0, length), static_cast<uint16_t>(begin),
            static_cast<uint16_t>(end - begin)};
}

SamplePlan plan_v2(const Sizes &sizes, uint64_t seed)
{
    const auto contents = std::make_shared<SampleV2>(sizes, seed);
    const tier_super_block_v2_t &super = contents->super();
    const tier_region expansion = tier_exp_inodes_v2(super);
    const uint64_t end = expansion.count == 0
                             ? data_end(super)
                             : static_cast<uint64_t>(expansion.slot(expansion.count));
    return sample_plan(contents, super, sample_tables("v2", super), end);
}

/* The tables of V2 under a super block of V1. */
SamplePlan plan_for_conversion(const Sizes &sizes, uint64_t seed)
{
    const auto contents = std::make_shared<SampleV2>(sizes, seed);
    const tier_super_block_v1_t super = contents->super_v1();
    std::vector<Table> tables = sample_tables("v2", contents->super());
    tables.front() = sample_tables("v1", super).front();
    return sample_plan(contents, super, tables, data_end(super));
}

constexpr auto BOUNDS_FOR_CONVERSION = [] {
    auto bounds = CACHE_BOUNDS;
    bounds[BLOCKS].min = CONVERSION_BLOCKS_MIN;
    bounds[EXTENT_SIZE].max = EXTENT_SIZE_MAX;
    return bounds;
}();

constexpr auto BOUNDS_V2 = [] {
    auto bounds = CACHE_BOUNDS;
    bounds[EXTENT_SIZE].max = EXTENT_SIZE_MAX;
    bounds[EXPANSION] = {TIER_EXP_CNT_MIN_V2, EXPANSION_MAX, TIER_EXP_UNIT_V2, 0};
    return bounds;
}();

} // namespace

constinit const SampleLayout SAMPLE_LAYOUT_FOR_CONVERSION = {"v1", BOUNDS_FOR_CONVERSION,
                                                             plan_for_conversion, nullptr};

constinit const SampleLayout SAMPLE_LAYOUT_V2 = {"v2", BOUNDS_V2, plan_v2, nullptr};

} // namespace tierctl
