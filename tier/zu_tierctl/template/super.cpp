#include "zu_tier/layout/v1/super.h"
#include "zu_tier/layout/v2/inode.h"
#include "zu_tier/layout/v2/super.h"
#include "zu_tier/layout/v3/super.h"
#include "zu_tierctl/template/kinds.h"

namespace tierctl {

namespace {

constexpr auto FIELDS_V1 = TIER_SUPER_FIELDS_V1;
constexpr auto FIELDS_V2 = TIER_SUPER_FIELDS_V2;
constexpr auto FIELDS_V3 = TIER_SUPER_FIELDS_V3;

/* The two numbers that a file gives as texts. */
template <class Super>
void carry_ctime(Draft &draft, const Super &from, Super *to)
{
    draft.file.text("ctime", hex_text(from.sb_ctime));
    to->sb_ctime = from.sb_ctime;
}

/* A repair makes nothing but this version. */
template <class Super>
void carry_version(Draft &draft, uint32_t version, Super *to)
{
    draft.file.text("version", hex_text(version));
    to->sb_version = version;
}

template <class Super>
void carry_head(const Carrier<Super> &carrier, uint32_t version)
{
    carrier.carry(TIER_SUPER_SIZE_KEYS<Super>);
    carry_ctime(carrier.draft(), carrier.from(), &carrier.to());
    carrier.carry(TIER_SUPER_IDENTITY_KEYS<Super>);
    carry_version(carrier.draft(), version, &carrier.to());
    carrier.carry(TIER_SUPER_COUNT_KEYS<Super>);
}

template <size_t N>
void note_ssd_uuid(Draft &draft, const char (&ssd_uuid)[N])
{
    const size_t length = zutr_bounded(ssd_uuid).size();
    if (length != TIER_SSD_UUID_LEN) {
        draft.note_refusal("ssd_uuid has " + std::to_string(length) + " characters, not " +
                           std::to_string(TIER_SSD_UUID_LEN));
    }
}

/* Seals what the repair makes and notes how it differs. */
template <const auto &Fields, class Super>
void finish(Draft &draft, const Super &to)
{
    draft.repair(to);
    draft.table.seal_slot(draft.repaired.data());
    draft.note_fields<Fields, Super>();
    draft.note_cleared(sizeof(Super), {{{"", SIZE_4K}}});
}

/* An area is only carried as a whole, and only if it is one. */
void carry_expansion(Draft &draft, const tier_super_block_v2_t &from, tier_super_block_v2_t *to)
{
    tier_exp_config_v2 area{.cnt = tier_exp_cnt_v2(from), .magic = {}, .inuse = {}};
    hex_text(from.sb_inode_exp_magic).copy(area.magic, sizeof(area.magic) - 1);
    hex_text(from.sb_inode_exp_inuse).copy(area.inuse, sizeof(area.inuse) - 1);
    tier_exp_config_v2 read{};
    Carrier(draft, area, read)
        .carry(std::tuple{TIER_EXP_CNT_KEY_V2, TIER_EXP_MAGIC_KEY_V2, TIER_EXP_INUSE_KEY_V2});
    if (from.sb_inode_exp_magic != TIER_EXP_MAGIC_V2 || area.cnt == 0) {
        return;
    }
    to->sb_inode_exp_magic = from.sb_inode_exp_magic;
    to->sb_inode_exp_area = from.sb_inode_exp_area;
    to->sb_inode_exp_inuse = from.sb_inode_exp_inuse == TIER_EXP_INUSE_V2 ? TIER_EXP_INUSE_V2 : 0;
}

/* Whether slot `i` of the area holds its inode. */
bool holds_inode(const Device &device, const tier_super_block_v2_t &sb, uint32_t i)
{
    const tier_region area = tier_exp_inodes_v2(sb);
    alignas(SIZE_4K) std::array<uint8_t, SIZE_4K> slot;
    return device.read(area.slot(i), slot.data(), SIZE_4K) &&
           inode_table({area}, TIER_INODE_MAGIC_V2).flaws(sb.sb_inode_cnt + i, slot.data()) == 0;
}

/* A repair looks at the first and the last inode of an area. */
void note_expansion(Draft &draft, const tier_super_block_v2_t &to)
{
    const uint32_t cnt = tier_exp_cnt_v2(to);
    if (cnt == 0) {
        return;
    }
    const tier_region area = tier_exp_inodes_v2(to);
    if (cnt < TIER_EXP_CNT_MIN_V2 || to.sb_data_offset >= static_cast<uint64_t>(area.start) ||
        !holds_inode(draft.device, to, 0) || !holds_inode(draft.device, to, cnt - 1)) {
        draft.note_refusal("there is no expansion area of " + std::to_string(cnt) +
                           " inodes at offset " + std::to_string(area.start));
    }
}

} // namespace

void draft_super_v1(Draft &draft, const Metadata & /*metadata*/)
{
    const auto from = draft.record<tier_super_block_v1_t>();
    tier_super_block_v1_t to{};
    to.sb_magic = TIER_SB_MAGIC_V1;
    carry_head(Carrier(draft, from, to), TIER_SB_VERSION_V1);
    finish<FIELDS_V1>(draft, to);
    note_ssd_uuid(draft, to.sb_ssd_uuid);
}

void draft_super_v2(Draft &draft, const Metadata & /*metadata*/)
{
    const auto from = draft.record<tier_super_block_v2_t>();
    tier_super_block_v2_t to{};
    to.sb_magic = TIER_SB_MAGIC_V2;
    const Carrier carrier(draft, from, to);
    carry_head(carrier, TIER_SB_VERSION_V2);
    carry_expansion(draft, from, &to);
    carrier.carry(TIER_SUPER_MAP_KEYS_V2);
    to.sb_total_extent_size = to.sb_extent_size + to.sb_total_map_size + to.sb_hot_size;
    finish<FIELDS_V2>(draft, to);
    note_expansion(draft, to);
    note_ssd_uuid(draft, to.sb_ssd_uuid);
}

void draft_super_v3(Draft &draft, const Metadata & /*metadata*/)
{
    const auto from = draft.record<tier_super_block_v3_t>();
    tier_super_block_v3_t to{};
    to.sb_magic = TIER_SB_MAGIC_V3;
    const Carrier carrier(draft, from, to);
    carrier.carry(TIER_SUPER_AREA_KEYS_V3);
    carry_ctime(draft, from, &to);
    carrier.carry(TIER_SUPER_IDENTITY_KEYS_V3);
    carry_version(draft, TIER_SB_VERSION_V3, &to);
    carrier.carry(TIER_SUPER_TABLE_KEYS_V3);
    finish<FIELDS_V3>(draft, to);
    note_ssd_uuid(draft, to.sb_cdev_uuid);
}

} // namespace tierctl
