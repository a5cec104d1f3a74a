#pragma once

#include "zu_tier/tier_format.h"
#include "zu_tier/tier_json.h"
#include "zu_tier/tier_log.h"
#include "zu_tier/tier_record.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>
#include <string_view>
#include <tuple>

/* What the inode tables of all layouts have in common; each adds its own last fields. */

template <class Inode>
constexpr auto TIER_INODE_HEAD_FIELDS = std::tuple{
    zutr_field{"checksum", &Inode::i_checksum, zutr_form::hex},
    zutr_field{"magic", &Inode::i_magic, zutr_form::hex},
    zutr_field{"atime", &Inode::i_atime, zutr_form::time},
    zutr_field{"ctime", &Inode::i_ctime, zutr_form::time},
    zutr_field{"mtime", &Inode::i_mtime, zutr_form::time},
    zutr_field{"dtime", &Inode::i_dtime, zutr_form::time},
    zutr_field{"uuid", &Inode::i_uuid},
    zutr_field{"size", &Inode::i_size},
    zutr_field{"priority", &Inode::i_priority},
    zutr_field{"no", &Inode::i_no},
    zutr_field{"brick_no", &Inode::i_brick_no},
    zutr_field{"unlink", &Inode::i_unlink},
    zutr_field{"use", &Inode::i_use},
};

template <class Inode>
constexpr auto TIER_INODE_KEYS = std::tuple{
    zutr_key{"i_no", &Inode::i_no, zutr_to_s64},
    zutr_key{"i_use", &Inode::i_use, zutr_to_s32},
};

/* Read only for an inode in use. */
template <class Inode>
constexpr auto TIER_INODE_IN_USE_KEYS = std::tuple{
    zutr_key{"i_atime", &Inode::i_atime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_ctime", &Inode::i_ctime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_mtime", &Inode::i_mtime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_dtime", &Inode::i_dtime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_uuid", &Inode::i_uuid},
    zutr_key{"i_size", &Inode::i_size, zutr_to_u64},
    zutr_key{"i_priority", &Inode::i_priority, zutr_to_s64},
    zutr_key{"i_brick_no", &Inode::i_brick_no, zutr_to_u64},
    zutr_key{"i_unlink", &Inode::i_unlink, zutr_to_s32, zutr_need::optional},
};

template <class Inode>
bool tier_inode_is_sound(const Inode &inode, uint32_t magic, int32_t no, uint32_t crc)
{
    return inode.i_magic == magic &&
           static_cast<uint32_t>(inode.i_no) == static_cast<uint32_t>(no) &&
           inode.i_checksum == crc;
}

/* An owner filter names a brick and never shows free inodes. */
template <class Inode>
bool tier_inode_passes(const zutr_filter_t &filter, const Inode &inode)
{
    return filter.error != 1 && (filter.use < 0 || filter.use == inode.i_use) &&
           (filter.id == nullptr || std::string_view(zutr_uuid_utoa(inode.i_uuid)) == filter.id) &&
           (filter.owner < 0 ||
            (inode.i_use != 0 && static_cast<uint32_t>(filter.owner) == inode.i_brick_no));
}

/* The DEBUG line, on behalf of `func`, for an inode that the filter passes over. */
template <class Inode>
void tier_log_ignored_inode(const char *func, int32_t no, const Inode &inode)
{
    zutr_debug(func, "ignore inode %d, i_use:%d, i_uuid:%s, i_brick_no:%d", no, inode.i_use,
               zutr_uuid_utoa(inode.i_uuid), static_cast<int32_t>(inode.i_brick_no));
}
