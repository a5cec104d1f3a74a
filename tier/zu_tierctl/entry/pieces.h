#pragma once

#include "zu_tier/layout/layout.h"

#include <cstdint>
#include <functional>
#include <string_view>

namespace tierctl {

/* How it is known which bytes of a data block an entry holds. */
enum class HeldBy : uint8_t {
    piece, /* the entry describes the piece */
    pages, /* it marks the pages of 4096 bytes */
    size,  /* it has a size, from the start of the block */
    block, /* it holds a part of the block, but only the service knows which */
};

/* "piece", "bitmap", "size", "block" */
std::string_view held_by_text(HeldBy by);

/* Calls `use` with each stretch of data that an entry in use holds, none of them empty. Where it
 * marks pages these are runs of marked pages; an entry that marks none goes by its size. */
void each_piece(const tier_data &data, const void *sb, const uint8_t *entry, uint64_t no,
                const std::function<void(const tier_piece &piece, HeldBy by)> &use);

/* Whether the size of an entry that marks pages, `marked` bytes of them, is that of these pages:
 * all of them, or the last not whole. */
bool size_fits_pages(const tier_data &data, const void *sb, const uint8_t *entry, uint64_t no,
                     uint64_t marked);

} // namespace tierctl
