#pragma once

#include "zu_tier/format/v3.h"
#include "zu_tier/layout/inode.h"

#include <cstdint>
#include <tuple>

/* How a repair file gives a V3 inode. */

constexpr auto TIER_INODE_KEYS_V3 = std::tuple{
    zutr_key{"i_no", &tier_inode_v3_t::i_signed_no, zutr_to_s64},
    zutr_key{"i_use", &tier_inode_v3_t::i_use, zutr_to_u64},
};

/* Read only for an inode in use. */
constexpr auto TIER_INODE_IN_USE_KEYS_V3 = std::tuple_cat(
    TIER_INODE_FILE_KEYS,
    std::tuple{
        zutr_key{"i_priority", &tier_inode_v3_t::i_priority, zutr_to_u64},
        zutr_key{"i_brick_no", &tier_inode_v3_t::i_brick_no, zutr_to_u64},
        zutr_key{"i_unlink", &tier_inode_v3_t::i_unlink, zutr_to_u64, zutr_need::optional},
        TIER_INODE_NEW_DATA_KEY,
    });

constexpr uint32_t TIER_INODE_BLOCK_SHIFT_V3 = 17; /* i_blocks counts units of 128 KiB */
