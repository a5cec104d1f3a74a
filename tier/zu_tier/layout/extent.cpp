#include "zu_tier/layout/extent.h"

#include "common/zutr_assert.h"
#include "zu_tier/record/debug.h"

#include <algorithm>
#include <cerrno>
#include <span>

namespace {

constexpr char IGNORED[] = "ignore extent %d, te_use:%d, te_brick_no:%d";

/* Whether the filter lets an extent through; if not, says so on behalf of `func`. An owner filter
 * names an inode and never shows free extents. */
bool passes(const char *func, const zutr_filter_t &filter, const tier_extent_t &extent, int32_t no)
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

/* Whether a bitmap has words, none of which has a bit set. Bytes after its last word do not count.
 */
bool is_empty_bitmap(const tier_extent_t &extent, uint32_t extent_size)
{
    if (extent_size < TIER_EXTENT_SIZE_MIN || extent_size > TIER_EXTENT_SIZE_MAX) {
        return false; /* it does not fit its slot */
    }
    const auto *bitmap = reinterpret_cast<const uint8_t *>(&extent + 1);
    const size_t words = (extent_size - TIER_EXTENT_SIZE_MIN) / sizeof(uint64_t);
    const std::span bytes(bitmap, words * sizeof(uint64_t));
    return !bytes.empty() && std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

} // namespace

void tier_check_extent(const tier_extent_t &extent, uint32_t block_size, uint32_t extent_size,
                       tier_findings &to)
{
    tier_check_use(extent.te_use, to);
    if (extent.te_size == 0) {
        to.add({"empty_extent", tier_severity::warning},
               "it is in use and holds 0 bytes, which is odd");
    }
    if (extent.te_size > block_size) {
        to.add({"extent_too_long"}, "it holds %lu bytes, a block has %u", extent.te_size,
               block_size);
    }
    if (is_empty_bitmap(extent, extent_size)) {
        to.add(TIER_EMPTY_BITMAP, TIER_EMPTY_BITMAP_TEXT);
    }
}

void tier_check_extent_in_file(const tier_extent_t &extent, uint32_t block_size, uint64_t file_size,
                               tier_findings &to)
{
    const uint64_t begin = uint64_t{extent.te_block} * block_size;
    if (begin >= file_size) {
        to.add({"extent_past_file"},
               "block %u of its file begins at byte %lu, the file has %lu bytes", extent.te_block,
               begin, file_size);
    }
}

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

uint32_t tier_extent_crc(const void *ex, uint32_t ex_size)
{
    zutr_assert(ex != nullptr && ex_size != 0, "ex && ex_size");
    return tier_crc(ex, ex_size);
}

int32_t tier_dump_extent(const char *func, const tier_table &table, int32_t no, void *meta,
                         const char *delim, const zutr_params_t *params)
{
    const auto *extent = static_cast<const tier_extent_t *>(meta);
    const uint32_t crc = table.crc(meta, static_cast<uint32_t>(table.record_length(params->sb)));
    if (extent->te_reserved1 != static_cast<uint64_t>(no) || extent->te_checksum != crc) {
        zutr_error(func, "extent no: %lu, checksum: 0x%x crc32: 0x%x", extent->te_reserved1,
                   extent->te_checksum, crc);
        table.repair.print(meta, params->sb, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!passes(func, params->filter, *extent, no)) {
        return 1;
    }
    zutr_write(params->out_fp, delim);
    const int64_t offset = tier_slot(table.regions(params->sb), extent->te_reserved1);
    table.repair.print(meta, params->sb, offset, params->out_fp);
    return 0;
}
