#pragma once

#include "zu_tier/driver/repair.h"
#include "zu_tier/format/areas.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>
#include <cstdint>
#include <tuple>

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
    zutr_key{"te_sampling_low", &tier_extent_t::te_sampling_low, zutr_to_s64},
    zutr_key{"te_sampling_mid", &tier_extent_t::te_sampling_mid, zutr_to_s64, zutr_need::optional},
    zutr_key{"te_sampling_high", &tier_extent_t::te_sampling_high, zutr_to_s64,
             zutr_need::optional},
};

/* A layout's extent table: what its super block says of it, and how it prints an extent. */
template <class Super>
struct tier_extent_table {
    uint32_t Super::*record_size; /* bytes of a slot that hold the record and are checksummed */
    void (*print)(const tier_extent_t *extent, const Super *sb, int64_t offset, FILE *fp);
};

/* Refuses a size or count of the super block that would take a record past its slot: 0, or -EFAULT
 * after a message on behalf of `func`. */
int32_t tier_check_size(const char *func, const char *field, uint32_t value, uint32_t min,
                        uint32_t max);

/* As above, but leaves a record without a size to the assertion of its checksum. */
int32_t tier_check_record_size(const char *func, const char *field, uint32_t value, uint32_t min,
                               uint32_t max);

/* CRC-32 of the bytes 4..`size` - 1 of a slot. A `size` of 0 fails an assertion; callers refuse
 * 1..3. */
uint32_t tier_extent_crc(const void *extent, uint32_t size);

/* Whether an extent, which carries no magic, has the right number and checksum; if not, says so on
 * behalf of `func`. */
bool tier_extent_is_sound(const char *func, const tier_extent_t &extent, int32_t no, uint32_t crc);

/* Whether the filter lets an extent through; if not, says so on behalf of `func`. An owner filter
 * names an inode and never shows free extents. */
bool tier_extent_passes(const char *func, const zutr_filter_t &filter, const tier_extent_t &extent,
                        int32_t no);

/* Formatter of the dump driver, on behalf of `func`. */
template <class Super>
int32_t tier_dump_extent(const char *func, const tier_extent_table<Super> &table, int32_t no,
                         const void *meta, const char *delim, const zutr_params_t *params)
{
    const auto *sb = static_cast<const Super *>(params->sb);
    const auto *extent = static_cast<const tier_extent_t *>(meta);
    const uint32_t crc = tier_extent_crc(extent, sb->*table.record_size);
    if (!tier_extent_is_sound(func, *extent, no, crc)) {
        table.print(extent, sb, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!tier_extent_passes(func, params->filter, *extent, no)) {
        return 1;
    }
    zutr_write(params->out_fp, delim);
    table.print(extent, sb, tier_extents(*sb).slot(extent->te_reserved1), params->out_fp);
    return 0;
}

/* What a parser says, on behalf of `func`, of an extent whose number or inode its super block does
 * not have. */
template <class Super>
void tier_log_extent_numbers(const char *func, const Super &sb, const tier_extent_t &extent)
{
    zutr_error(func, "te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u",
               extent.te_reserved1, extent.te_inode_no, sb.sb_block_cnt, sb.sb_inode_cnt);
}

/* Seals a repaired extent and prints it to standard output. Gives the device offset of its slot, or
 * -EFAULT after a message on behalf of `func`. */
template <class Super>
int64_t tier_finish_extent(const char *func, const tier_extent_table<Super> &table, const Super &sb,
                           tier_extent_t *extent)
{
    extent->te_checksum = tier_extent_crc(extent, sb.*table.record_size);
    const int64_t offset = tier_extents(sb).slot(extent->te_reserved1);
    if (!tier_check_slot(func, offset)) {
        return -EFAULT;
    }
    table.print(extent, &sb, offset, stdout);
    return offset;
}
