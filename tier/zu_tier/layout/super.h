#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tier/layout/layout.h"
#include "zu_tier/record/log.h"

/* What the super blocks of several layouts have in common. */

/* The first two fields, which no repair file gives. */
template <class Super>
constexpr auto TIER_SUPER_HEAD_FIELDS = std::tuple{
    zutr_field{"checksum", &Super::sb_checksum, zutr_form::hex},
    zutr_field{"magic", &Super::sb_magic, zutr_form::hex},
};

/* The two numbers that a repair file gives as texts. */
template <class Super>
constexpr auto tier_ctime_key(uint64_t Super::*ctime)
{
    constexpr size_t LIMIT = 18; /* "0x" and 16 digits */
    return zutr_hex_key{"ctime", ctime, zutr_form::hex_and_time, LIMIT, "ctime"};
}
template <class Super>
constexpr auto tier_version_key(uint32_t Super::*version, uint32_t expected)
{
    return zutr_hex_key{"version", version, zutr_form::hex, 31, "version str", expected};
}

/* The keys that V1 and V2 begin with, and the fields of their dumps; `expected` is the version that
 * a repair file must have, 0: any. */
template <class Super>
constexpr auto tier_super_keys(uint32_t expected)
{
    return std::tuple{
        zutr_key{"brick_table_size", &Super::sb_brick_table_size, zutr_to_u64},
        zutr_key{"inode_table_size", &Super::sb_inode_table_size, zutr_to_u64},
        zutr_key{"extent_table_size", &Super::sb_extent_table_size, zutr_to_u64},
        zutr_key{"data_offset", &Super::sb_data_offset, zutr_to_u64},
        tier_ctime_key(&Super::sb_ctime),
        zutr_key{"uuid", &Super::sb_uuid},
        zutr_key{"ssd_uuid", &Super::sb_ssd_uuid},
        tier_version_key(&Super::sb_version, expected),
        zutr_key{"super block size", &Super::sb_size, zutr_to_s64},
        zutr_key{"brick_cnt", &Super::sb_brick_cnt, zutr_to_s64},
        zutr_key{"inode_cnt", &Super::sb_inode_cnt, zutr_to_s64},
        zutr_key{"block_size", &Super::sb_block_size, zutr_to_s64},
        zutr_key{"block_cnt", &Super::sb_block_cnt, zutr_to_s64},
        zutr_key{"extent_size", &Super::sb_extent_size, zutr_to_s64},
    };
}

template <class Super>
constexpr tier_claim TIER_SUPER_CLAIMS[] = {
    {"identity", tier_number_at(offsetof(Super, sb_uuid), 8), tier_claim_type::identity}};

/* A layout's super block as a table of one slot. */
template <class Super>
constexpr tier_table tier_super_table(uint32_t magic,
                                      uint32_t (*crc)(void *record, uint32_t length),
                                      tier_columns (*fields)(), tier_columns (*keys)(),
                                      const zutr_repair_t &repair, std::span<const tier_rule> rules)
{
    return {
        .name = "super",
        .regions =
            [](const void *) {
                return tier_regions{{{TIER_SUPER_OFFSET, 1}}};
            },
        .record_length = [](const void *) { return uint64_t{sizeof(Super)}; },
        .crc = crc,
        .checksum = &TIER_HEAD_CHECKSUM,
        .magic = tier_number_at(offsetof(Super, sb_magic), 4),
        .magic_value = magic,
        .fields = fields,
        .keys = keys,
        .repair = repair,
        .claims = TIER_SUPER_CLAIMS<Super>,
        .rules = rules,
    };
}

/* Prints a super block as a JSON object. */
template <const auto &Fields, class Super>
void tier_print_super(const Super &sb, FILE *fp)
{
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<Fields>(out, sb);
    out.put("}");
}

/* Whether an image whose checksum should be `crc` is a super block of a layout: 0, or -EFAULT after
 * a DEBUG line on behalf of `func` that begins with the layout's name. */
template <class Super>
int32_t tier_check_super(const char *func, const char *layout, const Super &sb, uint32_t crc,
                         uint32_t magic, uint32_t version)
{
    if (sb.sb_magic == magic && sb.sb_version == version && sb.sb_checksum == crc) {
        return 0;
    }
    zutr_debug(func, "%s check super block failed. magic:0x%x, ver:0x%x, cksum:0x%x:0x%x", layout,
               sb.sb_magic, sb.sb_version, sb.sb_checksum, crc);
    return -EFAULT;
}

/* The command dump_super. */
int32_t tier_dump_super(const zutr_params_t *params, zutr_super_check_t check,
                        zutr_print_func_t print);

/* The last step of the parser of every super block: tests the rules, unless the force flag is set,
 * on behalf of `check`, and seals the block. Gives its device offset, or -EINVAL. */
int64_t tier_finish_super(const zutr_json_reader &in, const tier_table &table,
                          const zutr_params_t *params, int32_t (*check)(const void *new_sb),
                          void *sb);

/* The findings about a table with a wrong count or size, and about a wrong block size. */
void tier_explain_table(const tier_kind &kind, tier_findings &to, uint64_t count, uint64_t most,
                        uint64_t size, const char *expected, uint64_t expected_size);
void tier_explain_block_size(const tier_kind &kind, tier_findings &to, uint64_t size,
                             uint64_t least, uint64_t most);

/* Where the tables of V1 and V2 begin, and where the last ends with the gap after it, up to the
 * next MiB; TIER_PAST_ANY when it is no offset. */
template <class Super>
uint64_t tier_inodes_start(const Super &sb)
{
    return tier_add(static_cast<uint64_t>(tier_bricks(sb).start), sb.sb_brick_table_size);
}

template <class Super>
uint64_t tier_extents_start(const Super &sb)
{
    return tier_add(tier_inodes_start(sb), sb.sb_inode_table_size);
}

template <class Super>
uint64_t tier_extents_end(const Super &sb)
{
    return tier_add(tier_add(tier_extents_start(sb), sb.sb_extent_table_size),
                    TIER_DATA_GAP + SIZE_1M);
}

/* The inode table size that the counts ask for, or TIER_PAST_ANY. */
template <class Super>
uint64_t tier_inode_bytes(const Super &sb)
{
    const uint64_t end =
        tier_add(tier_inodes_start(sb), uint64_t{sb.sb_inode_cnt} * SIZE_4K + SIZE_1M);
    return end == TIER_PAST_ANY ? end : tier_inode_table_size(sb);
}

/* The identity of the SSD, in every layout. */
template <class Super, auto SsdUuid>
constexpr tier_rule TIER_SSD_UUID_RULE = tier_make_rule<Super>(
    {"bad_ssd_uuid"},
    [](const Super &sb) { return zutr_bounded(sb.*SsdUuid).size() == TIER_SSD_UUID_LEN; },
    [](const char *func, const Super &sb) {
        const auto length = static_cast<int64_t>(zutr_bounded(sb.*SsdUuid).size());
        zutr_error(func, "ssd uuid(%.*s) length(%ld) is invalid. expect:%ld",
                   static_cast<int>(length), sb.*SsdUuid, length,
                   static_cast<int64_t>(TIER_SSD_UUID_LEN));
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        to.add(kind, "the identity of the SSD has %zu characters, expected %zu",
               zutr_bounded(sb.*SsdUuid).size(), TIER_SSD_UUID_LEN);
    });

/* The rules of V1 and V2. */

template <class Super>
constexpr tier_rule TIER_SUPER_SIZE_RULE = tier_make_rule<Super>(
    {"bad_super_block_size"}, [](const Super &sb) { return sb.sb_size == TIER_SB_AREA_SIZE; },
    [](const char *func, const Super &sb) {
        zutr_error(func, "sb size is invalid. expect:%u, real:%u", TIER_SB_AREA_SIZE, sb.sb_size);
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        to.add(kind, "the super block area has %u bytes, expected %u", sb.sb_size,
               TIER_SB_AREA_SIZE);
    });

template <class Super>
constexpr tier_rule TIER_BRICKS_RULE = tier_make_rule<Super>(
    {"bad_brick_table"},
    [](const Super &sb) {
        return sb.sb_brick_cnt >= 1 && sb.sb_brick_cnt <= TIER_BRICK_CNT_MAX &&
               sb.sb_brick_table_size == uint64_t{sb.sb_brick_cnt} * SIZE_4K;
    },
    [](const char *func, const Super &sb) {
        zutr_error(func,
                   "brick params is invalid. brick_cnt:%u, brick_table_size:%lu, "
                   "expect brick_cnt:[%u-%u]",
                   sb.sb_brick_cnt, sb.sb_brick_table_size, 1U, TIER_BRICK_CNT_MAX);
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        tier_explain_table(kind, to, sb.sb_brick_cnt, TIER_BRICK_CNT_MAX, sb.sb_brick_table_size,
                           "", uint64_t{sb.sb_brick_cnt} * SIZE_4K);
    });

template <class Super>
constexpr tier_rule TIER_INODES_RULE = tier_make_rule<Super>(
    {"bad_inode_table"},
    [](const Super &sb) {
        return sb.sb_inode_cnt >= 1 && sb.sb_inode_cnt <= TIER_INODE_CNT_MAX &&
               sb.sb_inode_table_size == tier_inode_table_size(sb);
    },
    [](const char *func, const Super &sb) {
        zutr_error(func,
                   "inode params is invalid. inode_cnt:%u, itable_size:%lu, "
                   "expect inode_cnt:[%u-%u]",
                   sb.sb_inode_cnt, sb.sb_inode_table_size, 1U, TIER_INODE_CNT_MAX);
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        tier_explain_table(kind, to, sb.sb_inode_cnt, TIER_INODE_CNT_MAX, sb.sb_inode_table_size,
                           "", tier_inode_bytes(sb));
    });

template <class Super>
constexpr tier_rule TIER_BLOCK_SIZE_RULE = tier_make_rule<Super>(
    {"bad_block_size"},
    [](const Super &sb) {
        return sb.sb_block_size >= TIER_BLOCK_SIZE_MIN && sb.sb_block_size <= TIER_BLOCK_SIZE_MAX &&
               sb.sb_block_size % SIZE_4K == 0;
    },
    [](const char *func, const Super &sb) {
        zutr_error(func, "block size(%u) is invalid. expect block_size:[%u-%u] and must 4k aligned",
                   sb.sb_block_size, TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX);
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        tier_explain_block_size(kind, to, sb.sb_block_size, TIER_BLOCK_SIZE_MIN,
                                TIER_BLOCK_SIZE_MAX);
    });

/* Whether the head of an extent and its bitmap fit a slot. */
template <class Super>
bool tier_extent_size_holds(const Super &sb)
{
    return sb.sb_extent_size >= TIER_EXTENT_SIZE_MIN && sb.sb_extent_size <= TIER_EXTENT_SIZE_MAX;
}

template <class Super>
void tier_explain_extent_size(const Super &sb, const tier_kind &kind, tier_findings &to)
{
    to.add(kind, "extents have %u bytes, expected %u..%u", sb.sb_extent_size, TIER_EXTENT_SIZE_MIN,
           TIER_EXTENT_SIZE_MAX);
}

template <class Super>
constexpr tier_rule TIER_EXTENTS_RULE = tier_make_rule<Super>(
    {"bad_extent_table"},
    [](const Super &sb) { return sb.sb_extent_table_size == uint64_t{sb.sb_block_cnt} * SIZE_4K; },
    [](const char *func, const Super &sb) {
        zutr_error(func, "extent table size(%lu) is invalid. block_cnt:%u", sb.sb_extent_table_size,
                   sb.sb_block_cnt);
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        to.add(kind, "the table has %u entries in %lu bytes, expected %lu bytes", sb.sb_block_cnt,
               sb.sb_extent_table_size, uint64_t{sb.sb_block_cnt} * SIZE_4K);
    });

template <class Super>
constexpr tier_rule TIER_DATA_OFFSET_RULE = tier_make_rule<Super>(
    {"bad_data_area"}, [](const Super &sb) { return sb.sb_data_offset == tier_data_offset(sb); },
    [](const char *func, const Super &sb) {
        zutr_error(func, "data offset(%lu) is invalid. expect:%lu", sb.sb_data_offset,
                   tier_data_offset(sb));
    },
    [](const Super &sb, const tier_kind &kind, tier_findings &to) {
        if (tier_extents_end(sb) == TIER_PAST_ANY) {
            to.add(kind, "the tables before the data area reach past any offset");
        } else {
            to.add(kind, "the data area begins at %lu, expected %lu", sb.sb_data_offset,
                   tier_data_offset(sb));
        }
    });

/* The areas that V1 and V2 have, in the order of the device. */
template <class Super>
std::vector<tier_area> tier_head_areas(const Super &sb)
{
    return {{"super block area", TIER_SUPER_OFFSET, sb.sb_size},
            tier_table_area("brick table", static_cast<uint64_t>(tier_bricks(sb).start),
                            sb.sb_brick_cnt, sb.sb_brick_table_size),
            tier_table_area("inode table", tier_inodes_start(sb), sb.sb_inode_cnt,
                            sb.sb_inode_table_size),
            tier_table_area("extent table", tier_extents_start(sb), sb.sb_block_cnt,
                            sb.sb_extent_table_size),
            {"data area", sb.sb_data_offset, uint64_t{sb.sb_block_size} * sb.sb_block_cnt, false}};
}
