#include "zu_tier/layout/inode.h"

#include "zu_tier/record/debug.h"
#include "zu_tier/record/log.h"

#include <cerrno>
#include <string_view>

namespace {

constexpr char IGNORED[] = "ignore inode %d, i_use:%d, i_uuid:%s, i_brick_no:%d";

/* Whether the filter lets an inode through; if not, says so on behalf of `func`. An owner filter
 * names a brick and never shows free inodes. */
bool passes(const char *func, const zutr_filter_t &filter, const tier_inode_t &inode, int32_t no)
{
    if (filter.error != 1 && (filter.use < 0 || filter.use == inode.i_use) &&
        (filter.id == nullptr || std::string_view(zutr_uuid_utoa(inode.i_uuid)) == filter.id) &&
        (filter.owner < 0 ||
         (inode.i_use != 0 && static_cast<uint32_t>(filter.owner) == inode.i_brick_no))) {
        return true;
    }
    zutr_debug_line<IGNORED>(func, no, inode.i_use, zutr_uuid_utoa(inode.i_uuid),
                             static_cast<int32_t>(inode.i_brick_no));
    return false;
}

} // namespace

void tier_check_inode(const void * /*sb*/, const uint8_t *entry, tier_findings &to)
{
    const auto *inode = reinterpret_cast<const tier_inode_t *>(entry);
    tier_check_use(inode->i_use, to);
    tier_check_identity(inode->i_uuid, to);
    if (inode->i_size > INT64_MAX) {
        to.add({"file_too_large"}, "its %lu bytes reach past any offset", inode->i_size);
    }
    if (inode->i_unlink != 0 && inode->i_dtime == 0) {
        to.add({"odd_unlink", tier_severity::warning},
               "it is unlinked and has no deletion time, which is odd");
    }
}

void tier_log_bad_inode(const char *func, const tier_inode_t &inode, int32_t /*no*/, uint32_t crc)
{
    zutr_error(func, "inode no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.i_no,
               inode.i_magic, inode.i_checksum, crc);
}

int32_t tier_dump_inode(const char *func, const tier_table &table, tier_bad_inode_t log_bad,
                        int32_t no, void *meta, const char *delim, const zutr_params_t *params)
{
    const auto *inode = static_cast<const tier_inode_t *>(meta);
    const auto number = static_cast<uint32_t>(no);
    const uint32_t crc = table.crc(meta, sizeof(*inode));
    if (inode->i_magic != table.magic_value || inode->i_no != number || inode->i_checksum != crc) {
        log_bad(func, *inode, no, crc);
        table.repair.print(meta, params->sb, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!passes(func, params->filter, *inode, no)) {
        return 1;
    }
    zutr_write(params->out_fp, delim);
    const int64_t offset = tier_slot(table.regions(params->sb), number);
    table.repair.print(meta, params->sb, offset, params->out_fp);
    return 0;
}
