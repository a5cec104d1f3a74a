#include "zu_tierctl/check/entries.h"

#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <array>
#include <span>

namespace tierctl {

namespace {

constexpr Kind BAD_BRICK_PATH = {"bad_brick_path"};
constexpr Kind PIECE_TOO_LONG = {"piece_too_long"};
constexpr Kind PIECE_OUTSIDE_BLOCK = {"piece_outside_block"};
constexpr Kind PIECES_OVERLAP = {"pieces_overlap"};

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

void check_overlap(std::span<page_range> ranges, const Tell &tell)
{
    std::ranges::sort(ranges, {}, &page_range::begin);
    page_range furthest{0, 0, 0};
    for (const page_range &range : ranges) {
        if (range.begin < furthest.end) {
            tell(PIECES_OVERLAP, format_text("piece %u holds page %u, as piece %u does",
                                             range.mapno, range.begin, furthest.mapno));
        }
        if (range.end > furthest.end) {
            furthest = range;
        }
    }
}

} // namespace

std::string BrickEntries::claim_text(const uint8_t *slot, uint32_t)
{
    return identity_text(slot + offsetof(tier_brick_info_t, bi_uuid));
}

void BrickEntries::check(const uint8_t *slot, const Tell &tell)
{
    const auto brick = load_record<tier_brick_info_t>(slot);
    const size_t length = strnlen(brick.bi_brickid, sizeof(brick.bi_brickid));
    if (length != TIER_BRICKID_LEN) {
        tell(BAD_BRICK_PATH, format_text("its path has %zu characters, expected are %zu", length,
                                         TIER_BRICKID_LEN));
    }
}

std::string InodeEntries::claim_text(const uint8_t *slot, uint32_t)
{
    return identity_text(slot + offsetof(tier_inode_t, i_uuid));
}

std::string ExtentEntries::claim_text(const uint8_t *slot, uint32_t)
{
    const auto extent = load_record<tier_extent_t>(slot);
    return format_text("block %u of inode %u", extent.te_block, extent.te_inode_no);
}

ExtentEntriesV2::ExtentEntriesV2(const tier_super_block_v2_t &super)
    : pieces_(super.sb_map_cnt), pieces_at_(super.sb_extent_size), block_size_(super.sb_block_size)
{
    const uint64_t length = uint64_t{pieces_} * sizeof(tier_mapped_meta_v2_t);
    if (super.sb_size_mapped_meta != sizeof(tier_mapped_meta_v2_t) ||
        pieces_at_ < TIER_EXTENT_SIZE_MIN || pieces_at_ + length > super.sb_total_extent_size) {
        pieces_ = 0;
    }
}

void ExtentEntriesV2::check(const uint8_t *slot, const Tell &tell) const
{
    std::array<page_range, PIECES_MAX> ranges;
    size_t held = 0;
    for (uint32_t mapno = 0; mapno < pieces_; mapno++) {
        const auto piece = load_record<tier_mapped_meta_v2_t>(
            slot + pieces_at_ + size_t{mapno} * sizeof(tier_mapped_meta_v2_t));
        if (piece.orig_len() == 0) {
            continue;
        }
        if (piece.orig_len() > block_size_) {
            tell(PIECE_TOO_LONG, format_text("piece %u has %u bytes, a block has %u", mapno,
                                             piece.orig_len(), block_size_));
        }
        const uint32_t end = uint32_t{piece.begin} + piece.cnt;
        if (uint64_t{end} * SIZE_4K > block_size_) {
            tell(PIECE_OUTSIDE_BLOCK,
                 format_text("piece %u ends with page %u, a block has %u pages", mapno, end,
                             block_size_ / SIZE_4K));
        }
        if (piece.cnt != 0) {
            ranges[held++] = {piece.begin, end, mapno};
        }
    }
    check_overlap(std::span(ranges).first(held), tell);
}

std::string ShardEntries::claim_text(const uint8_t *slot, uint32_t k)
{
    return format_text("index %lu of inode %lu", SHARD_INDEX_V3.get(word(slot, k)), owner(slot, k));
}

std::string ExtentEntriesV3::claim_text(const uint8_t *slot, uint32_t k)
{
    return format_text("address %lu of shard %lu", EXTENT_LBA_V3.get(word(slot, k)),
                       owner(slot, k));
}

} // namespace tierctl
