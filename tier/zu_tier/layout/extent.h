#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tier/layout/layout.h"

/* What the extent tables of V1 and V2 have in common: one extent a slot, with the same head. */

constexpr auto TIER_EXTENT_HEAD_FIELDS = std::tuple{
    zutr_field{"te_checksum", &tier_extent_t::te_checksum, zutr_form::hex},
    zutr_field{"te_block", &tier_extent_t::te_block},
    zutr_field{"te_size", &tier_extent_t::te_size},
    zutr_field{"te_inode_no", &tier_extent_t::te_inode_no},
    zutr_field{"te_sampling_low", &tier_extent_t::te_sampling_low, zutr_form::swapped_hex8},
    zutr_field{"te_sampling_mid", &tier_extent_t::te_sampling_mid},
    zutr_field{"te_sampling_high", &tier_extent_t::te_sampling_high},
    zutr_field{"te_use", &tier_extent_t::te_use},
    zutr_field{"te_clean", &tier_extent_t::te_clean},
    zutr_field{"te_ntime", &tier_extent_t::te_ntime},
    zutr_field{"te_hot", &tier_extent_t::te_hot},
    zutr_field{"te_no", &tier_extent_t::te_reserved1},
};

constexpr auto TIER_EXTENT_KEYS = std::tuple{
    zutr_key{"te_use", &tier_extent_t::te_use, zutr_to_s32},
    zutr_key{"te_no", &tier_extent_t::te_reserved1, zutr_to_u64},
};

/* Read only for an extent in use, among others. */
constexpr auto TIER_EXTENT_OWNER_KEYS = std::tuple{
    zutr_key{"te_inode_no", &tier_extent_t::te_inode_no, zutr_to_s64},
    zutr_key{"te_sampling_low", &tier_extent_t::te_sampling_low, zutr_to_s64, zutr_need::required,
             true},
    zutr_key{"te_sampling_mid", &tier_extent_t::te_sampling_mid, zutr_to_s64, zutr_need::optional},
    zutr_key{"te_sampling_high", &tier_extent_t::te_sampling_high, zutr_to_s64,
             zutr_need::optional},
};

constexpr tier_claim TIER_EXTENT_CLAIMS[] = {
    {"block", tier_number_at(offsetof(tier_extent_t, te_block), 4)},
};

/* What is wrong with an extent, whose head and bitmap have `extent_size` bytes, by itself, and with
 * its place in a file of `file_size` bytes. */
void tier_check_extent(const tier_extent_t &extent, uint32_t block_size, uint32_t extent_size,
                       tier_findings &to);
void tier_check_extent_in_file(const tier_extent_t &extent, uint32_t block_size, uint64_t file_size,
                               tier_findings &to);

/* The check of an extent by itself as that of a table. */
template <class Super>
void tier_check_extent_of(const void *p, const uint8_t *entry, tier_findings &to)
{
    const auto &sb = tier_super<Super>(p);
    tier_check_extent(*reinterpret_cast<const tier_extent_t *>(entry), sb.sb_block_size,
                      sb.sb_extent_size, to);
}

/* A layout's extent table, with what is not shared as arguments. */
template <class Super>
constexpr tier_table tier_extent_table(tier_regions (*regions)(const void *sb),
                                       uint64_t (*record_length)(const void *sb),
                                       uint32_t (*crc)(void *record, uint32_t length),
                                       tier_columns (*keys)(), const tier_parts *parts,
                                       const zutr_repair_t &repair)
{
    return {
        .name = "extent",
        .number_key = "te_no",
        .regions = regions,
        .count_keys = {"block_cnt"},
        .record_length = record_length,
        .crc = crc,
        .checksum = &TIER_HEAD_CHECKSUM,
        .number = tier_number_at(offsetof(tier_extent_t, te_reserved1), 8),
        .fields = [] { return tier_make_columns(TIER_EXTENT_HEAD_FIELDS); },
        .keys = keys,
        .parts = parts,
        .repair = repair,
        .in_use = tier_number_at(offsetof(tier_extent_t, te_use), 2),
        .owner = {"inode", tier_number_at(offsetof(tier_extent_t, te_inode_no), 4)},
        .ends_with_owner = true,
        .claims = TIER_EXTENT_CLAIMS,
        .check = tier_check_extent_of<Super>,
        .check_with_owner =
            [](const void *sb, const uint8_t *entry, uint64_t file_size, tier_findings &to) {
                tier_check_extent_in_file(*reinterpret_cast<const tier_extent_t *>(entry),
                                          tier_super<Super>(sb).sb_block_size, file_size, to);
            },
    };
}

/* Refuses a size or count of the super block that would take a record past its slot: 0, or -EFAULT
 * after a message on behalf of `func`. */
int32_t tier_check_size(const char *func, const char *field, uint32_t value, uint32_t min,
                        uint32_t max);

/* As above, but leaves a record without a size to the assertion of its checksum. */
int32_t tier_check_record_size(const char *func, const char *field, uint32_t value, uint32_t min,
                               uint32_t max);

/* CRC-32 of the bytes 4..`ex_size` - 1 of a slot. A size of 0 fails an assertion; callers refuse
 * 1..3. */
uint32_t tier_extent_crc(const void *ex, uint32_t ex_size);

/* Formatter of the dump driver, on behalf of `func`. */
int32_t tier_dump_extent(const char *func, const tier_table &table, int32_t no, void *meta,
                         const char *delim, const zutr_params_t *params);

/* Refuses an extent whose number or inode the super block does not have. */
template <class Super>
void tier_refuse_extent_numbers(zutr_json_reader &in, const Super &sb, const tier_extent_t &extent)
{
    in.refuse(in.func(), "te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u",
              extent.te_reserved1, extent.te_inode_no, sb.sb_block_cnt, sb.sb_inode_cnt);
}
