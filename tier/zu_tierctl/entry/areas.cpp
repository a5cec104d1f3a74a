#include "zu_tierctl/entry/areas.h"

#include <algorithm>
#include <limits>

namespace tierctl {

namespace {

constexpr uint64_t LARGEST = std::numeric_limits<uint64_t>::max();

uint64_t product(uint64_t count, uint64_t size)
{
    return size != 0 && count > LARGEST / size ? LARGEST : count * size;
}

/* A table of `size` bytes, or of what its entries need where that is more. */
Area table_area(std::string_view name, const tier_region &region, uint64_t size)
{
    return {name, static_cast<uint64_t>(region.start),
            std::max(size, product(region.count, SIZE_4K))};
}

/* What V1 and V2 have alike. */
template <class Super>
std::vector<Area> head_areas(const Super &sb)
{
    return {{"super block area", TIER_SUPER_OFFSET, sb.sb_size},
            table_area("brick table", tier_bricks(sb), sb.sb_brick_table_size),
            table_area("inode table", tier_inodes(sb), sb.sb_inode_table_size),
            table_area("extent table", tier_extents(sb), sb.sb_extent_table_size),
            {"data area", sb.sb_data_offset, uint64_t{sb.sb_block_size} * sb.sb_block_cnt, false}};
}

} // namespace

uint64_t Area::end() const
{
    return length > LARGEST - start ? LARGEST : start + length;
}

std::vector<Area> areas_of(const tier_super_block_v1_t &sb)
{
    return head_areas(sb);
}

std::vector<Area> areas_of(const tier_super_block_v2_t &sb)
{
    std::vector<Area> areas = head_areas(sb);
    if (sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        areas.push_back(table_area("expansion inode area", tier_exp_inodes_v2(sb), 0));
    }
    return areas;
}

std::vector<Area> areas_of(const tier_super_block_v3_t &sb)
{
    return {{"super block area", TIER_SUPER_OFFSET, sb.sb_sb_size},
            table_area("brick table", tier_bricks_v3(sb), sb.sb_brick_table_size),
            table_area("inode table", tier_inodes_v3(sb), sb.sb_inode_table_size),
            table_area("shard table", tier_shards_v3(sb), sb.sb_shard_table_size),
            table_area("hot table", tier_hot_v3(sb), sb.sb_hot_table_size),
            table_area("extent table", tier_extents_v3(sb), sb.sb_extent_table_size),
            {"data area", sb.sb_block_area_offset,
             std::max(sb.sb_block_area_size, product(sb.sb_block_cnt, sb.sb_block_size)), false}};
}

} // namespace tierctl
