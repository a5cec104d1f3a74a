#include "zu_tierctl/check/super.h"

#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/areas.h"

#include <cstring>
#include <span>

namespace tierctl {

namespace {

constexpr Kind BAD_SUPER_SIZE = {"bad_super_block_size"};
constexpr Kind BAD_BRICKS = {"bad_brick_table"};
constexpr Kind BAD_INODES = {"bad_inode_table"};
constexpr Kind BAD_SHARDS = {"bad_shard_table"};
constexpr Kind BAD_EXTENTS = {"bad_extent_table"};
constexpr Kind BAD_BLOCK_SIZE = {"bad_block_size"};
constexpr Kind BAD_EXTENT_SIZE = {"bad_extent_size"};
constexpr Kind BAD_ALLOC_SIZE = {"bad_min_alloc_size"};
constexpr Kind BAD_MAP = {"bad_map"};
constexpr Kind BAD_DATA = {"bad_data_area"};
constexpr Kind BAD_SSD_UUID = {"bad_ssd_uuid"};
constexpr Kind AREA_PAST_END = {"area_past_end"};
constexpr Kind AREA_MISALIGNED = {"area_misaligned"};
constexpr Kind AREAS_OVERLAP = {"areas_overlap"};
constexpr Kind AREAS_OUT_OF_ORDER = {"areas_out_of_order"};

/* What no parameter check asks for, although the tables of the layout's fields say so. */
constexpr Kind ODD_EXTENT_LENGTH = {"odd_extent_length", Severity::warning};
constexpr Kind ODD_PIECE_SIZE = {"odd_piece_size", Severity::warning};
constexpr Kind ODD_EXPANSION = {"odd_expansion", Severity::warning};

/* A rule, and what is to be said of a super block that breaks it. */
template <class Super>
struct rule {
    Kind kind;
    bool (*holds)(const Super &sb);
    std::string (*broken)(const Super &sb);
};

bool in_range(uint64_t value, uint64_t least, uint64_t most)
{
    return value >= least && value <= most;
}

std::string table_text(uint64_t count, uint64_t most, uint64_t size, const char *expected,
                       uint64_t expected_size)
{
    return format_text("the table has %lu entries in %lu bytes, expected are 1..%lu entries and "
                       "%s%lu bytes",
                       count, size, most, expected, expected_size);
}

std::string block_size_text(uint64_t size, uint64_t least, uint64_t most)
{
    return format_text("blocks have %lu bytes, expected is a multiple of 4096 from %lu to %lu",
                       size, least, most);
}

template <size_t N>
std::string ssd_uuid_text(const char (&text)[N])
{
    return format_text("the identity of the SSD has %zu characters, expected are %zu",
                       strnlen(text, N), TIER_SSD_UUID_LEN);
}

template <class Super>
constexpr rule<Super> HEAD_RULES[] = {
    {BAD_SUPER_SIZE, [](const Super &sb) { return sb.sb_size == TIER_SB_AREA_SIZE; },
     [](const Super &sb) {
         return format_text("the super block area has %u bytes, expected are %u", sb.sb_size,
                            TIER_SB_AREA_SIZE);
     }},
    {BAD_BRICKS,
     [](const Super &sb) {
         return in_range(sb.sb_brick_cnt, 1, TIER_BRICK_CNT_MAX) &&
                sb.sb_brick_table_size == uint64_t{sb.sb_brick_cnt} * SIZE_4K;
     },
     [](const Super &sb) {
         return table_text(sb.sb_brick_cnt, TIER_BRICK_CNT_MAX, sb.sb_brick_table_size, "",
                           uint64_t{sb.sb_brick_cnt} * SIZE_4K);
     }},
    {BAD_INODES,
     [](const Super &sb) {
         return in_range(sb.sb_inode_cnt, 1, TIER_INODE_CNT_MAX) &&
                sb.sb_inode_table_size == tier_inode_table_size(sb);
     },
     [](const Super &sb) {
         return table_text(sb.sb_inode_cnt, TIER_INODE_CNT_MAX, sb.sb_inode_table_size, "",
                           tier_inode_table_size(sb));
     }},
    {BAD_BLOCK_SIZE,
     [](const Super &sb) {
         return in_range(sb.sb_block_size, TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX) &&
                sb.sb_block_size % SIZE_4K == 0;
     },
     [](const Super &sb) {
         return block_size_text(sb.sb_block_size, TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX);
     }},
    {BAD_EXTENT_SIZE,
     [](const Super &sb) {
         return in_range(sb.sb_extent_size, TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX);
     },
     [](const Super &sb) {
         return format_text("extents have %u bytes, expected are %u..%u", sb.sb_extent_size,
                            TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX);
     }},
    {BAD_EXTENTS,
     [](const Super &sb) { return sb.sb_extent_table_size == uint64_t{sb.sb_block_cnt} * SIZE_4K; },
     [](const Super &sb) {
         return format_text("the table has %u entries in %lu bytes, expected are %lu bytes",
                            sb.sb_block_cnt, sb.sb_extent_table_size,
                            uint64_t{sb.sb_block_cnt} * SIZE_4K);
     }},
    {BAD_DATA, [](const Super &sb) { return sb.sb_data_offset == tier_data_offset(sb); },
     [](const Super &sb) {
         return format_text("the data area begins at %lu, expected is %lu", sb.sb_data_offset,
                            tier_data_offset(sb));
     }},
    {BAD_SSD_UUID,
     [](const Super &sb) {
         return strnlen(sb.sb_ssd_uuid, sizeof(sb.sb_ssd_uuid)) == TIER_SSD_UUID_LEN;
     },
     [](const Super &sb) { return ssd_uuid_text(sb.sb_ssd_uuid); }},
};

using super_v2 = tier_super_block_v2_t;

constexpr rule<super_v2> RULES_V2[] = {
    {BAD_EXTENT_SIZE,
     [](const super_v2 &sb) { return sb.sb_total_extent_size <= TIER_EXTENT_SIZE_MAX; },
     [](const super_v2 &sb) {
         return format_text("extents have %u bytes in all, expected are up to %u",
                            sb.sb_total_extent_size, TIER_EXTENT_SIZE_MAX);
     }},
    {BAD_ALLOC_SIZE, [](const super_v2 &sb) { return sb.sb_min_alloc_size <= sb.sb_block_size; },
     [](const super_v2 &sb) {
         return format_text("mapped pieces are for %u bytes, expected are up to the %u of a block",
                            sb.sb_min_alloc_size, sb.sb_block_size);
     }},
    {BAD_MAP,
     [](const super_v2 &sb) {
         return sb.sb_map_cnt <= EXTENT_HOT_LEN &&
                sb.sb_total_map_size == uint64_t{sb.sb_size_mapped_meta} * sb.sb_map_cnt;
     },
     [](const super_v2 &sb) {
         return format_text("an extent has %u mapped pieces of %u bytes in %u bytes, expected are "
                            "up to %u pieces and the product",
                            sb.sb_map_cnt, sb.sb_size_mapped_meta, sb.sb_total_map_size,
                            EXTENT_HOT_LEN);
     }},
    {ODD_EXTENT_LENGTH,
     [](const super_v2 &sb) {
         return sb.sb_total_extent_size ==
                uint64_t{sb.sb_extent_size} + sb.sb_total_map_size + sb.sb_hot_size;
     },
     [](const super_v2 &sb) {
         return format_text("extents have %u bytes in all, but their parts have %lu",
                            sb.sb_total_extent_size,
                            uint64_t{sb.sb_extent_size} + sb.sb_total_map_size + sb.sb_hot_size);
     }},
    {ODD_PIECE_SIZE,
     [](const super_v2 &sb) { return sb.sb_size_mapped_meta == sizeof(tier_mapped_meta_v2_t); },
     [](const super_v2 &sb) {
         return format_text("mapped pieces have %u bytes, usual are %zu: they are not checked",
                            sb.sb_size_mapped_meta, sizeof(tier_mapped_meta_v2_t));
     }},
    {ODD_EXPANSION,
     [](const super_v2 &sb) {
         const bool none = sb.sb_inode_exp_magic == 0;
         return none ? sb.sb_inode_exp_area == 0 && sb.sb_inode_exp_inuse == 0
                     : sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2 &&
                           (sb.sb_inode_exp_inuse == 0 ||
                            sb.sb_inode_exp_inuse == TIER_EXP_INUSE_V2);
     },
     [](const super_v2 &sb) {
         return format_text("the expansion inode area has magic 0x%x, size %u and use 0x%x, usual "
                            "are 0x%x, a size and 0x%x or 0, or three zeros",
                            sb.sb_inode_exp_magic, sb.sb_inode_exp_area, sb.sb_inode_exp_inuse,
                            TIER_EXP_MAGIC_V2, TIER_EXP_INUSE_V2);
     }},
};

using super_v3 = tier_super_block_v3_t;

constexpr rule<super_v3> RULES_V3[] = {
    {BAD_SUPER_SIZE, [](const super_v3 &sb) { return sb.sb_sb_size == TIER_SB_AREA_SIZE_V3; },
     [](const super_v3 &sb) {
         return format_text("the super block area has %lu bytes, expected are %u", sb.sb_sb_size,
                            TIER_SB_AREA_SIZE_V3);
     }},
    {BAD_BLOCK_SIZE,
     [](const super_v3 &sb) {
         return in_range(sb.sb_block_size, TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3) &&
                sb.sb_block_size % SIZE_4K == 0;
     },
     [](const super_v3 &sb) {
         return block_size_text(sb.sb_block_size, TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3);
     }},
    {BAD_BRICKS,
     [](const super_v3 &sb) {
         return in_range(sb.sb_brick_table_cnt, 1, TIER_BRICK_CNT_MAX_V3) &&
                sb.sb_brick_table_size >= sb.sb_brick_table_cnt * SIZE_4K;
     },
     [](const super_v3 &sb) {
         return table_text(sb.sb_brick_table_cnt, TIER_BRICK_CNT_MAX_V3, sb.sb_brick_table_size,
                           "at least ", sb.sb_brick_table_cnt * SIZE_4K);
     }},
    {BAD_INODES,
     [](const super_v3 &sb) {
         return in_range(sb.sb_inode_table_cnt, 1, TIER_INODE_CNT_MAX_V3) &&
                sb.sb_inode_table_size == sb.sb_inode_table_cnt * SIZE_4K;
     },
     [](const super_v3 &sb) {
         return table_text(sb.sb_inode_table_cnt, TIER_INODE_CNT_MAX_V3, sb.sb_inode_table_size, "",
                           sb.sb_inode_table_cnt * SIZE_4K);
     }},
    {BAD_SHARDS,
     [](const super_v3 &sb) {
         return in_range(sb.sb_shard_table_cnt, 1, TIER_SHARD_CNT_MAX_V3) &&
                sb.sb_shard_table_size == sb.sb_shard_table_cnt * TIER_PACKED_SIZE_V3;
     },
     [](const super_v3 &sb) {
         return table_text(sb.sb_shard_table_cnt, TIER_SHARD_CNT_MAX_V3, sb.sb_shard_table_size, "",
                           sb.sb_shard_table_cnt * TIER_PACKED_SIZE_V3);
     }},
    {BAD_EXTENTS,
     [](const super_v3 &sb) {
         return in_range(sb.sb_extent_table_cnt, 1, TIER_EXTENT_CNT_MAX_V3) &&
                sb.sb_extent_table_size == sb.sb_extent_table_cnt * TIER_PACKED_SIZE_V3;
     },
     [](const super_v3 &sb) {
         return table_text(sb.sb_extent_table_cnt, TIER_EXTENT_CNT_MAX_V3, sb.sb_extent_table_size,
                           "", sb.sb_extent_table_cnt * TIER_PACKED_SIZE_V3);
     }},
    {BAD_DATA,
     [](const super_v3 &sb) { return sb.sb_block_area_size == sb.sb_block_size * sb.sb_block_cnt; },
     [](const super_v3 &sb) {
         return format_text("the data area has %lu bytes, expected are %lu blocks of %lu",
                            sb.sb_block_area_size, sb.sb_block_cnt, sb.sb_block_size);
     }},
    {BAD_SSD_UUID,
     [](const super_v3 &sb) {
         return strnlen(sb.sb_cdev_uuid, sizeof(sb.sb_cdev_uuid)) == TIER_SSD_UUID_LEN;
     },
     [](const super_v3 &sb) { return ssd_uuid_text(sb.sb_cdev_uuid); }},
};

void add(Report &report, const Kind &kind, const std::string &text)
{
    report.add({kind, "super", "entry", 0, TIER_SUPER_OFFSET, 0, text});
}

template <class Super>
void check_rules(std::span<const rule<Super>> rules, const Super &sb, Report &report)
{
    for (const rule<Super> &rule : rules) {
        if (!rule.holds(sb)) {
            add(report, rule.kind, rule.broken(sb));
        }
    }
}

void check_parameters(const tier_super_block_v1_t &sb, Report &report)
{
    check_rules<tier_super_block_v1_t>(HEAD_RULES<tier_super_block_v1_t>, sb, report);
}

void check_parameters(const super_v2 &sb, Report &report)
{
    check_rules<super_v2>(HEAD_RULES<super_v2>, sb, report);
    check_rules<super_v2>(RULES_V2, sb, report);
}

/* From the shards on a table ends for its repair where the next one begins. */
void check_order(const super_v3 &sb, Report &report)
{
    if (sb.sb_shard_table_offset > sb.sb_hot_table_offset ||
        sb.sb_hot_table_offset > sb.sb_extent_table_offset ||
        sb.sb_extent_table_offset > sb.sb_block_area_offset) {
        add(report, AREAS_OUT_OF_ORDER,
            "expected is that shard table, hot table, extent table and data area follow one "
            "another");
    }
}

void check_parameters(const super_v3 &sb, Report &report)
{
    check_rules<super_v3>(RULES_V3, sb, report);
    check_order(sb, report);
}

std::string area_text(const Area &area)
{
    return "the " + std::string(area.name) +
           format_text(" (%lu bytes from %lu on)", area.length, area.start);
}

void check_area(const Area &area, uint64_t device_size, Report &report)
{
    if (area.length != 0 && area.end() > device_size) {
        add(report, AREA_PAST_END,
            area_text(area) + format_text(" reaches past the device's end at %lu", device_size));
    }
    if (area.aligned && area.start % SIZE_4K != 0) {
        add(report, AREA_MISALIGNED, area_text(area) + " does not begin at a multiple of 4096");
    }
}

bool overlap(const Area &one, const Area &other)
{
    return one.length != 0 && other.length != 0 && one.start < other.end() &&
           other.start < one.end();
}

void check_areas(const std::vector<Area> &areas, uint64_t device_size, Report &report)
{
    for (auto area = areas.begin(); area != areas.end(); ++area) {
        check_area(*area, device_size, report);
        for (auto other = areas.begin(); other != area; ++other) {
            if (overlap(*other, *area)) {
                add(report, AREAS_OVERLAP, area_text(*area) + " overlaps " + area_text(*other));
            }
        }
    }
}

} // namespace

void check_super(const Metadata &metadata, uint64_t device_size, Report &report)
{
    metadata.with_super([&](const auto &sb) {
        check_parameters(sb, report);
        check_areas(areas_of(sb), device_size, report);
    });
}

} // namespace tierctl
