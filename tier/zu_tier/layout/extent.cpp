#include "zu_tier/layout/extent.h"

#include "common/zutr_assert.h"
#include "zu_tier/record/debug.h"

namespace {

constexpr char IGNORED[] = "ignore extent %d, te_use:%d, te_brick_no:%d";

} // namespace

int32_t tier_check_size(const char *func, const char *field, uint32_t value, uint32_t min,
                        uint32_t max)
{
    if (value >= min && value <= max) {
        return 0;
    }
    zutr_error(func, "%s %u is invalid, expect:[%u-%u]", field, value, min, max);
    return -EFAULT;
}

int32_t tier_check_record_size(const char *func, const char *field, uint32_t value, uint32_t min,
                               uint32_t max)
{
    return value == 0 ? 0 : tier_check_size(func, field, value, min, max);
}

uint32_t tier_extent_crc(const void *extent, uint32_t size)
{
    zutr_assert(extent != nullptr && size != 0, "ex && ex_size");
    return zutr_crc32(static_cast<const uint8_t *>(extent) + TIER_CHECKSUM_SIZE,
                      size - TIER_CHECKSUM_SIZE);
}

bool tier_extent_is_sound(const char *func, const tier_extent_t &extent, int32_t no, uint32_t crc)
{
    if (extent.te_reserved1 == static_cast<uint64_t>(no) && extent.te_checksum == crc) {
        return true;
    }
    zutr_error(func, "extent no: %lu, checksum: 0x%x crc32: 0x%x", extent.te_reserved1,
               extent.te_checksum, crc);
    return false;
}

bool tier_extent_passes(const char *func, const zutr_filter_t &filter, const tier_extent_t &extent,
                        int32_t no)
{
    if (filter.error != 1 && (filter.use < 0 || filter.use == extent.te_use) &&
        (filter.owner < 0 ||
         (extent.te_use != 0 && static_cast<uint32_t>(filter.owner) == extent.te_inode_no))) {
        return true;
    }
    /* The label says brick; the number is the inode's. */
    zutr_debug_line<IGNORED>(func, no, extent.te_use, static_cast<int32_t>(extent.te_inode_no));
    return false;
}
