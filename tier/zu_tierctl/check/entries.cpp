#include "zu_tierctl/check/entries.h"

#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <array>
#include <span>

namespace {

constexpr tierctl_kind BAD_BRICK_PATH = {"bad_brick_path"};
constexpr tierctl_kind PIECE_TOO_LONG = {"piece_too_long"};
constexpr tierctl_kind PIECE_OUTSIDE_BLOCK = {"piece_outside_block"};
constexpr tierctl_kind PIECES_OVERLAP = {"pieces_overlap"};

std::string identity_text(const uint8_t *uuid)
{
    return std::string("identity ") + zutr_uuid_utoa(uuid);
}

/* Pages of a block that a mapped piece holds. */
struct page_range {
    uint32_t begin;
    uint32_t end;
    uint32_t mapno;
};

constexpr size_t PIECES_MAX = SIZE_4K / sizeof(tier_mapped_meta_v2_t); /* in a slot */

void check_overlap(std::span<page_range> ranges, const tierctl_tell &tell)
{
    std::ranges::sort(ranges, {}, &page_range::begin);
    page_range furthest{0, 0, 0};
    for (const page_range &range : ranges) {
        if (range.begin < furthest.end) {
            tell(PIECES_OVERLAP, tierctl_text("piece %u holds page %u, as piece %u does",
                                              range.mapno, range.begin, furthest.mapno));
        }
        if (range.end > furthest.end) {
            furthest = range;
        }
    }
}

} // namespace

std::string tierctl_brick_entries::claim_text(const uint8_t *slot, uint32_t)
{
    return identity_text(slot + offsetof(tier_brick_info_t, bi_uuid));
}

void tierctl_brick_entries::check(const uint8_t *slot, const tierctl_tell &tell)
{
    const auto brick = tierctl_record<tier_brick_info_t>(slot);
    const size_t length = strnlen(brick.bi_brickid, sizeof(brick.bi_brickid));
    if (length != TIER_BRICKID_LEN) {
        tell(BAD_BRICK_PATH, tierctl_text("its path has %zu characters, expected are %zu", length,
                                          TIER_BRICKID_LEN));
    }
}

std::string tierctl_inode_entries::claim_text(const uint8_t *slot, uint32_t)
{
    return identity_text(slot + offsetof(tier_inode_t, i_uuid));
}

std::string tierctl_extent_entries::claim_text(const uint8_t *slot, uint32_t)
{
    const auto extent = tierctl_record<tier_extent_t>(slot);
    return tierctl_text("block %u of inode %u", extent.te_block, extent.te_inode_no);
}

tierctl_extent_entries_v2::tierctl_extent_entries_v2(const tier_super_block_v2_t &super)
    : pieces_(super.sb_map_cnt), pieces_at_(super.sb_extent_size), block_size_(super.sb_block_size)
{
    const uint64_t length = uint64_t{pieces_} * sizeof(tier_mapped_meta_v2_t);
    if (super.sb_size_mapped_meta != sizeof(tier_mapped_meta_v2_t) ||
        pieces_at_ < TIER_EXTENT_SIZE_MIN || pieces_at_ + length > super.sb_total_extent_size) {
        pieces_ = 0;
    }
}

void tierctl_extent_entries_v2::check(const uint8_t *slot, const tierctl_tell &tell) const
{
    std::array<page_range, PIECES_MAX> ranges;
    size_t held = 0;
    for (uint32_t mapno = 0; mapno < pieces_; mapno++) {
        const auto piece = tierctl_record<tier_mapped_meta_v2_t>(
            slot + pieces_at_ + size_t{mapno} * sizeof(tier_mapped_meta_v2_t));
        if (piece.orig_len() == 0) {
            continue;
        }
        if (piece.orig_len() > block_size_) {
            tell(PIECE_TOO_LONG, tierctl_text("piece %u has %u bytes, a block has %u", mapno,
                                              piece.orig_len(), block_size_));
        }
        const uint32_t end = uint32_t{piece.begin} + piece.cnt;
        if (uint64_t{end} * SIZE_4K > block_size_) {
            tell(PIECE_OUTSIDE_BLOCK,
                 tierctl_text("piece %u ends with page %u, a block has %u pages", mapno, end,
                              block_size_ / SIZE_4K));
        }
        if (piece.cnt != 0) {
            ranges[held++] = {piece.begin, end, mapno};
        }
    }
    check_overlap(std::span(ranges).first(held), tell);
}

std::string tierctl_shard_entries::claim_text(const uint8_t *slot, uint32_t k)
{
    return tierctl_text("index %lu of inode %lu", SHARD_INDEX_V3.get(word(slot, k)),
                        owner(slot, k));
}

std::string tierctl_extent_entries_v3::claim_text(const uint8_t *slot, uint32_t k)
{
    return tierctl_text("address %lu of shard %lu", EXTENT_LBA_V3.get(word(slot, k)),
                        owner(slot, k));
}
