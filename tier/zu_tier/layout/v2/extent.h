#pragma once

#include "zu_tier/format/v2.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/extent.h"

#include <cstdint>
#include <tuple>

/* The commands on the V2 extent table. */

/* A mapped piece as a dump shows it. */
struct tier_shown_piece_v2 {
    uint64_t offset;
    uint32_t clean;
    uint32_t orig_len;
    uint16_t begin;
    uint16_t cnt;
    uint32_t mapno;
    uint64_t data_phy_offset;
};

constexpr auto TIER_PIECE_FIELDS_V2 = std::tuple{
    zutr_field{"offset", &tier_shown_piece_v2::offset},
    zutr_field{"clean", &tier_shown_piece_v2::clean},
    zutr_field{"orig_len", &tier_shown_piece_v2::orig_len},
    zutr_field{"begin", &tier_shown_piece_v2::begin},
    zutr_field{"cnt", &tier_shown_piece_v2::cnt},
    zutr_field{"mapno", &tier_shown_piece_v2::mapno},
    zutr_field{"data_phy_offset", &tier_shown_piece_v2::data_phy_offset},
};

/* A mapped piece in a repair file: "mapno", then these, with "clean" and "len" between them. */
inline constexpr zutr_key TIER_PIECE_OFFSET_KEY_V2 = {"offset", &tier_mapped_meta_v2_t::offset,
                                                      zutr_to_u64};
constexpr auto TIER_PIECE_PAGES_KEYS_V2 = std::tuple{
    zutr_key{"begin", &tier_mapped_meta_v2_t::begin, zutr_to_s32},
    zutr_key{"cnt", &tier_mapped_meta_v2_t::cnt, zutr_to_s32},
};

int32_t zutr_dump_extent_v2(zutr_params_t *params);
int32_t zutr_repair_extent_v2(zutr_params_t *params);
