#include "zu_tier/layout/v1/extent.h"
#include "zu_tier/layout/v2/extent.h"
#include "zu_tier/layout/v2/inode.h"
#include "zu_tierctl/template/kinds.h"

#include <stdexcept>

namespace tierctl {

/* Extents of V1 and V2, which have a slot each. */

namespace {

constexpr auto HEAD_FIELDS = TIER_EXTENT_HEAD_FIELDS;

[[noreturn]] void refuse_sizes()
{
    throw std::runtime_error("an extent as the super block describes it does not fit its slot, "
                             "zu_tier repairs none of them");
}

/* The head as it stands, in the numbers of a file. */
tier_extent_t readable_head(const Draft &draft)
{
    auto head = draft.record<tier_extent_t>();
    head.te_reserved1 = draft.no;
    head.te_sampling_low = __builtin_bswap32(head.te_sampling_low);
    return head;
}

template <class Keys>
void carry_head(Draft &draft, const tier_extent_t &from, const Keys &in_use_keys)
{
    tier_extent_t to{};
    Carrier(draft, from, to).carry(TIER_EXTENT_KEYS);
    Carrier(draft, from, to, from.te_use != 0).carry(in_use_keys);
    to.te_sampling_low = __builtin_bswap32(to.te_sampling_low);
    draft.repair(to);
}

/* Seals what the repair makes and notes how it differs. */
void finish(Draft &draft, std::span<const Stretch> behind_the_head)
{
    draft.table.seal_slot(draft.repaired.data());
    draft.note_fields<HEAD_FIELDS, tier_extent_t>();
    draft.note_cleared(sizeof(tier_extent_t), behind_the_head);
}

void note_inode(Draft &draft, uint32_t no)
{
    draft.note_refusal("the super block does not have inode " + std::to_string(no) + " in use");
}

constexpr size_t PIECE_SIZE = sizeof(tier_mapped_meta_v2_t);

/* A piece that holds anything goes into the file, and all that it holds with it. */
void carry_pieces(Draft &draft, const tier_super_block_v2_t &sb, bool read)
{
    draft.file.open_array("te_mapped_meta");
    for (uint32_t mapno = 0; mapno < sb.sb_map_cnt; mapno++) {
        const size_t at = sb.sb_extent_size + mapno * PIECE_SIZE;
        tier_mapped_meta_v2_t from;
        memcpy(&from, draft.block + at, PIECE_SIZE);
        if (from.offset == 0 && from.clean_length == 0 && from.begin == 0 && from.cnt == 0) {
            continue;
        }
        tier_mapped_meta_v2_t to{};
        const Carrier carrier(draft, from, to);
        draft.file.open_object();
        draft.file.number("mapno", mapno);
        carrier.carry(TIER_PIECE_OFFSET_KEY_V2);
        draft.file.number("clean", from.clean());
        draft.file.number("len", from.orig_len());
        to.clean_length = from.clean_length;
        carrier.carry(TIER_PIECE_PAGES_KEYS_V2);
        draft.file.close();
        if (!read) {
            continue;
        }
        draft.repair(to, at);
        if (from.orig_len() > sb.sb_block_size) {
            draft.note_refusal("piece " + std::to_string(mapno) + " is longer than a block, " +
                               std::to_string(from.orig_len()) + " of " +
                               std::to_string(sb.sb_block_size) + " bytes");
        }
    }
    draft.file.close();
}

} // namespace

void draft_extent_v1(Draft &draft, const Metadata &metadata)
{
    const auto sb = metadata.super<tier_super_block_v1_t>();
    if (sb.sb_extent_size < TIER_EXTENT_SIZE_MIN || sb.sb_extent_size > TIER_EXTENT_SIZE_MAX) {
        refuse_sizes();
    }
    const tier_extent_t from = readable_head(draft);
    carry_head(draft, from, TIER_EXTENT_IN_USE_KEYS_V1);
    std::vector<uint64_t> bitmap(static_cast<size_t>(tier_bitmap_words_v1(sb.sb_extent_size)));
    const size_t bitmap_end = sizeof(from) + bitmap.size() * sizeof(uint64_t);
    std::copy(draft.block + sizeof(from), draft.block + bitmap_end,
              reinterpret_cast<uint8_t *>(bitmap.data()));
    draft.file.numbers("te_bitmap", bitmap);
    if (from.te_use != 0) {
        std::copy(draft.block + sizeof(from), draft.block + bitmap_end,
                  draft.repaired.data() + sizeof(from));
    }
    finish(draft, {{{"bitmap", bitmap_end}, {"", SIZE_4K}}});
    const uint32_t owner = from.te_use != 0 ? from.te_inode_no : 0;
    if (owner >= sb.sb_inode_cnt) {
        note_inode(draft, owner);
    }
}

void draft_extent_v2(Draft &draft, const Metadata &metadata)
{
    const auto sb = metadata.super<tier_super_block_v2_t>();
    const uint64_t pieces_end = sb.sb_extent_size + uint64_t{sb.sb_map_cnt} * PIECE_SIZE;
    if (sb.sb_extent_size < TIER_EXTENT_SIZE_MIN || pieces_end > SIZE_4K || !draft.table.fits()) {
        refuse_sizes();
    }
    const tier_extent_t from = readable_head(draft);
    carry_head(draft, from, TIER_EXTENT_OWNER_KEYS);
    carry_pieces(draft, sb, from.te_use != 0);
    const Stretch areas[] = {
        {"bitmap", sb.sb_extent_size},
        {"mapped pieces", pieces_end},
        {"hot area", std::max(pieces_end, uint64_t{sb.sb_total_extent_size})},
        {"", SIZE_4K},
    };
    finish(draft, areas);
    const uint32_t owner = from.te_use != 0 ? from.te_inode_no : 0;
    if (!tier_inode_is_usable_v2(sb, owner)) {
        note_inode(draft, owner);
    }
}

} // namespace tierctl
