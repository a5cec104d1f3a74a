#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/v2/inode.h"
#include "zu_tier/layout/v3/inode.h"
#include "zu_tierctl/template/kinds.h"

namespace tierctl {

namespace {

constexpr auto BRICK_FIELDS = TIER_BRICK_FIELDS;
constexpr auto INODE_FIELDS_V1 = TIER_INODE_FIELDS_V1;
constexpr auto INODE_FIELDS_V2 = TIER_INODE_FIELDS_V2;

constexpr Stretch BEHIND_THE_RECORD[] = {{"", SIZE_4K}};

/* A repair of a free brick invents its identity, and the checksum with it. Both are told here, and
 * taken for unchanged in what follows. */
void keep_identity(Draft &draft, const tier_brick_info_t &from, tier_brick_info_t *to)
{
    draft.note_change("bi_uuid", zutr_uuid_utoa(from.bi_uuid), "a new random one");
    draft.note_change("bi_checksum", hex_text(from.bi_checksum), "the one that belongs to it");
    memcpy(to->bi_uuid, from.bi_uuid, sizeof(to->bi_uuid));
    to->bi_checksum = from.bi_checksum;
}

/* A layout's way with inodes: the keys and what else follows them. */
template <const auto &Fields, class... Keys>
tier_inode_t draft_inode(Draft &draft, const Keys &...in_use_keys)
{
    auto from = draft.record<tier_inode_t>();
    from.i_no = static_cast<uint32_t>(draft.no);
    tier_inode_t to{};
    to.i_magic = draft.table.magic->value;
    Carrier(draft, from, to).carry(TIER_INODE_KEYS);
    const Carrier in_use(draft, from, to, from.i_use != 0);
    (in_use.carry(in_use_keys), ...);
    draft.repair(to);
    draft.table.seal_slot(draft.repaired.data());
    draft.note_fields<Fields, tier_inode_t>();
    draft.note_cleared(sizeof(to), BEHIND_THE_RECORD);
    return to;
}

void note_brick_no(Draft &draft, const tier_inode_t &inode, uint64_t brick_cnt)
{
    if (inode.i_brick_no >= brick_cnt) {
        draft.note_refusal("there is no brick " + std::to_string(inode.i_brick_no));
    }
}

} // namespace

void draft_brick(Draft &draft, const Metadata & /*metadata*/)
{
    auto from = draft.record<tier_brick_info_t>();
    from.bi_no = static_cast<uint32_t>(draft.no);
    const bool in_use = from.bi_use != 0;
    tier_brick_info_t to{};
    to.bi_magic = draft.table.magic->value;
    Carrier(draft, from, to).carry(TIER_BRICK_KEYS);
    const Carrier carrier(draft, from, to, in_use);
    carrier.carry(TIER_BRICK_IN_USE_KEYS);
    carrier.carry(tier_brick_unlink_key(zutr_need::required));
    if (in_use) {
        to.bi_checksum = zutr_record_crc(to);
    } else {
        keep_identity(draft, from, &to);
    }
    draft.repair(to);
    draft.note_fields<BRICK_FIELDS, tier_brick_info_t>();
    draft.note_cleared(sizeof(to), BEHIND_THE_RECORD);
    const size_t length = zutr_bounded(to.bi_brickid).size();
    if (in_use && length != TIER_BRICKID_LEN) {
        draft.note_refusal("bi_brickid has " + std::to_string(length) + " characters, not " +
                           std::to_string(TIER_BRICKID_LEN));
    }
}

void draft_inode_v1(Draft &draft, const Metadata &metadata)
{
    const tier_inode_t inode = draft_inode<INODE_FIELDS_V1>(draft, TIER_INODE_IN_USE_KEYS);
    note_brick_no(draft, inode, metadata.super<tier_super_block_v1_t>().sb_brick_cnt);
}

void draft_inode_v2(Draft &draft, const Metadata &metadata)
{
    const tier_inode_t inode = draft_inode<INODE_FIELDS_V2>(draft, TIER_INODE_IN_USE_KEYS_V2);
    const auto sb = metadata.super<tier_super_block_v2_t>();
    note_brick_no(draft, inode, sb.sb_brick_cnt);
    if (!tier_inode_is_usable_v2(sb, inode.i_no)) {
        draft.note_refusal("the super block does not have inode " + std::to_string(inode.i_no) +
                           " in use");
    }
}

void draft_inode_v3(Draft &draft, const Metadata &metadata)
{
    const tier_inode_t inode =
        draft_inode<INODE_FIELDS_V2>(draft, TIER_INODE_IN_USE_KEYS_V3, TIER_INODE_BLOCKS_KEY);
    note_brick_no(draft, inode, metadata.super<tier_super_block_v3_t>().sb_brick_table_cnt);
    if (inode.i_signed_no < 0) {
        draft.note_refusal("inode numbers from 2147483648 on are negative");
    }
}

} // namespace tierctl
