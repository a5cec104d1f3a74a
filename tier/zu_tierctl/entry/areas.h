#pragma once

#include "zu_tier/format/v1.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/format/v3.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace tierctl {

/* An area of a device, as a super block describes it. It may lie anywhere, and past everything. */
struct Area {
    std::string_view name;
    uint64_t start;
    uint64_t length;
    bool aligned = true; /* it is read in blocks of 4096 bytes, and begins with one */

    /* Behind its last byte; the largest number when that is no offset. */
    uint64_t end() const;
};

/* All areas of the layout, in the order of the device. */
std::vector<Area> areas_of(const tier_super_block_v1_t &sb);
std::vector<Area> areas_of(const tier_super_block_v2_t &sb);
std::vector<Area> areas_of(const tier_super_block_v3_t &sb);

} // namespace tierctl
