#pragma once

// Extent records of layout version 2 in every size: those that fit a slot, and those that do not.

#include "v2_device.h"

#include <string>
#include <vector>

namespace tier_test {

struct ExtentSizes {
    std::uint32_t extent_size;
    std::uint32_t map_cnt;
    std::uint32_t hot_size;
};

inline const std::vector<ExtentSizes> FITTING_SIZES{
    {56, 0, 64}, {56, 1, 64},  {56, 252, 8},  {57, 16, 64},   {57, 252, 0}, {60, 248, 0},
    {63, 3, 1},  {72, 64, 64}, {568, 64, 64}, {3000, 64, 64}, {4080, 1, 0}, {4096, 0, 0}};

inline void set_sizes(SuperV2 &sb, const ExtentSizes &sizes)
{
    sb.extent_size = sizes.extent_size;
    sb.hot_size = sizes.hot_size;
    set_maps(sb, sizes.map_cnt);
}

// A super block whose extents do not fit, and why.
struct RefusedSizes {
    SuperV2 super;
    std::string message;
};

// Of several wrong sizes the first in the order extent size, maps, total size is named.
inline std::vector<RefusedSizes> refused_sizes(SuperV2 super)
{
    std::vector<RefusedSizes> refused;
    for (const std::uint32_t bytes : {3U, 4097U, 0xFFFFFFFFU}) {
        super.total_extent_size = bytes;
        refused.push_back(
            {super, text("sb_total_extent_size %u is invalid, expect:[4-4096]", bytes)});
    }
    const std::vector<std::pair<std::uint32_t, std::uint32_t>> most_maps{
        {0, 256}, {56, 252}, {57, 252}, {64, 252}, {65, 251}, {4080, 1}, {4081, 0}, {4096, 0}};
    for (const auto &[extent_size, maps] : most_maps) {
        super.extent_size = extent_size;
        for (const std::uint32_t map_cnt : {maps + 1, 0x10000000U, 0xFFFFFFFFU}) {
            super.map_cnt = map_cnt;
            refused.push_back(
                {super, text("sb_map_cnt %u is invalid, expect:[0-%u]", map_cnt, maps)});
        }
        super.map_cnt = maps;
        refused.push_back({super, text("sb_total_extent_size %u is invalid, expect:[4-4096]",
                                       super.total_extent_size)});
    }
    super.map_cnt = 0xFFFFFFFF;
    for (const std::uint32_t bytes : {4097U, 0x80000000U, 0xFFFFFFFFU}) {
        super.extent_size = bytes;
        refused.push_back({super, text("sb_extent_size %u is invalid, expect:[0-4096]", bytes)});
    }
    return refused;
}

} // namespace tier_test
