#pragma once

#include "zu_tier/tier_format.h"
#include "zu_tier/tier_json.h"
#include "zu_tier/tier_log.h"
#include "zu_tier/tier_record.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>
#include <tuple>

/* What the extent tables of V1 and V2 have in common: one extent a slot, with the same head. */

template <class Extent>
constexpr auto TIER_EXTENT_HEAD_FIELDS = std::tuple{
    zutr_field{"te_checksum", &Extent::te_checksum, zutr_form::hex},
    zutr_field{"te_block", &Extent::te_block},
    zutr_field{"te_size", &Extent::te_size},
    zutr_field{"te_inode_no", &Extent::te_inode_no},
    zutr_field{"te_sampling_low", &Extent::te_sampling_low, zutr_form::swapped_hex8},
    zutr_field{"te_sampling_mid", &Extent::te_sampling_mid},
    zutr_field{"te_sampling_high", &Extent::te_sampling_high},
    zutr_field{"te_use", &Extent::te_use},
    zutr_field{"te_clean", &Extent::te_clean},
    zutr_field{"te_ntime", &Extent::te_ntime},
    zutr_field{"te_hot", &Extent::te_hot},
    zutr_field{"te_no", &Extent::te_reserved1},
};

template <class Extent>
constexpr auto TIER_EXTENT_KEYS = std::tuple{
    zutr_key{"te_use", &Extent::te_use, zutr_to_s32},
    zutr_key{"te_no", &Extent::te_reserved1, zutr_to_u64},
};

/* CRC-32 of the bytes 4..`size` - 1 of a slot. */
inline uint32_t tier_extent_crc(const void *extent, uint32_t size)
{
    return zutr_crc32(static_cast<const uint8_t *>(extent) + 4, size - 4);
}

/* Extents carry no magic: number and checksum vouch for them. */
template <class Extent>
bool tier_extent_is_sound(const Extent &extent, int32_t no, uint32_t crc)
{
    return extent.te_reserved1 == static_cast<uint64_t>(no) && extent.te_checksum == crc;
}

/* An owner filter names an inode and never shows free extents. */
template <class Extent>
bool tier_extent_passes(const zutr_filter_t &filter, const Extent &extent)
{
    return filter.error != 1 && (filter.use < 0 || filter.use == extent.te_use) &&
           (filter.owner < 0 ||
            (extent.te_use != 0 && static_cast<uint32_t>(filter.owner) == extent.te_inode_no));
}

/* The ERROR line, on behalf of `func`, for an extent that fails its check. */
template <class Extent>
void tier_log_bad_extent(const char *func, const Extent &extent, uint32_t crc)
{
    zutr_error(func, "extent no: %lu, checksum: 0x%x crc32: 0x%x", extent.te_reserved1,
               extent.te_checksum, crc);
}

/* The DEBUG line, on behalf of `func`, for an extent that the filter passes over. The label says
 * brick; the number is the inode's. */
template <class Extent>
void tier_log_ignored_extent(const char *func, int32_t no, const Extent &extent)
{
    zutr_debug(func, "ignore extent %d, te_use:%d, te_brick_no:%d", no, extent.te_use,
               static_cast<int32_t>(extent.te_inode_no));
}
