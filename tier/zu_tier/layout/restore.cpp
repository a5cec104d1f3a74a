#include "zu_tier/layout/restore.h"

#include "common/zutr_byte_order.h"
#include "common/zutr_utils.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

tier_inode_claims scan_claims(const tier_restore &plan, int32_t inode_no, const uint8_t *table)
{
    tier_inode_claims claims = {};
    uint32_t last_identity = 0;
    for (uint32_t i = 0; i < plan.extents.count; i++) {
        const uint8_t *slot = table + uint64_t{i} * SIZE_4K;
        const auto *extent = reinterpret_cast<const tier_extent_t *>(slot);
        const auto no = static_cast<int32_t>(i);
        const int64_t offset = zutr_advance(plan.extents.start, i * SIZE_4K);
        const auto [state, owner] = tier_judge_extent(plan, slot);
        if (state == tier_extent_state::zero_filled) {
            claims.doubtful++;
            printf("inode no:%d zero filled extent:%d offset:%ld\n", inode_no, no, offset);
            continue;
        }
        if (state == tier_extent_state::bad_checksum) {
            claims.doubtful++;
            printf("inode no:%d bad crc32 extent:%d chksum:0x%x != 0x%x\n", inode_no, no,
                   extent->te_checksum, tier_extent_crc(slot, plan.extent_size));
            continue;
        }
        if (state == tier_extent_state::free || owner != static_cast<uint32_t>(inode_no)) {
            continue;
        }
        /* Of consecutive extents of one file only the first is printed. */
        if (claims.owned == 0 || extent->te_sampling_low != last_identity) {
            last_identity = extent->te_sampling_low;
            printf("inode no:%d uuid:%x extent no:%d offset:%ld\n", inode_no, hton32(last_identity),
                   no, offset);
        }
        claims.owned++;
    }
    return claims;
}

/* Reads the extent table and counts the extents of the inode. 0, -EIO, -EFAULT where the table is
 * too short for its entries, or the allocator's positive error number. */
int32_t read_claims(const tier_restore &plan, const zutr_params_t *params,
                    tier_inode_claims *claims)
{
    int32_t failed = tier_check_restore(plan);
    if (failed != 0) {
        return failed;
    }
    zutr_buffer table;
    failed = zutr_alloc_aligned(plan.extent_table_size, &table);
    if (failed != 0) {
        return failed;
    }
    const uint64_t bytes = plan.extents.count * SIZE_4K;
    memset(table.get(), 0, plan.extent_table_size);
    const ssize_t got = zutr_repair_readn(params->fd, table.get(), bytes, plan.extents.start);
    if (got < 0) {
        zutr_error(plan.func, "inode:%d read extent failed. offset: %ld ret: %d", params->meta_no,
                   plan.failed_read_offset, static_cast<int32_t>(got));
        return -EIO;
    }
    *claims = scan_claims(plan, params->meta_no, table.get());
    return 0;
}

/* Gives the slot a new identity and leaves every other byte as it was read. 0 or -EIO. */
int32_t rewrite_inode(const tier_restore &plan, const zutr_params_t *params, uint8_t *slot)
{
    tier_put_identity(plan, params->meta_no, slot);
    const ssize_t put = zutr_writen(params->fd, slot, SIZE_4K, plan.inode_offset);
    if (put != SIZE_4K && plan.shows_write_offset) {
        zutr_error(plan.func, "inode no:%d write failed. offset:%ld ret:%d", params->meta_no,
                   plan.inode_offset, static_cast<int32_t>(put));
    } else if (put != SIZE_4K) {
        zutr_error(plan.func, "inode no:%d write failed. ret:%d", params->meta_no,
                   static_cast<int32_t>(put));
    }
    if (put != SIZE_4K) {
        return -EIO;
    }
    printf("mark inode no:%d unused success\n", params->meta_no);
    return 0;
}

} // namespace

bool tier_inode_is_readable(const tier_restore &plan, const void *slot)
{
    const auto *inode = static_cast<const tier_inode_t *>(slot);
    return inode->i_magic == plan.inode_magic &&
           inode->i_checksum == tier_crc(inode, sizeof(*inode));
}

int32_t tier_check_restore(const tier_restore &plan)
{
    const uint64_t bytes = plan.extents.count * SIZE_4K;
    if (plan.extent_table_size < bytes) {
        zutr_error(plan.func, "sb_extent_table_size %lu is invalid, expect at least:%lu",
                   plan.extent_table_size, bytes);
        return -EFAULT;
    }
    return 0;
}

tier_judged_extent tier_judge_extent(const tier_restore &plan, const uint8_t *slot)
{
    const auto *extent = reinterpret_cast<const tier_extent_t *>(slot);
    if (std::all_of(slot, slot + SIZE_4K, [](uint8_t byte) { return byte == 0; })) {
        return {tier_extent_state::zero_filled, 0};
    }
    if (extent->te_checksum != tier_extent_crc(slot, plan.extent_size)) {
        return {tier_extent_state::bad_checksum, 0};
    }
    return {extent->te_use == 0 ? tier_extent_state::free : tier_extent_state::in_use,
            extent->te_inode_no};
}

tier_restore_decision tier_decide_restore(const tier_inode_claims &claims, int32_t force)
{
    if (claims.doubtful != 0 && force == 0) {
        return tier_restore_decision::doubtful;
    }
    return claims.owned != 0 ? tier_restore_decision::owned : tier_restore_decision::restored;
}

void tier_put_identity(const tier_restore &plan, int32_t no, void *slot)
{
    auto *inode = static_cast<tier_inode_t *>(slot);
    inode->i_magic = plan.inode_magic;
    inode->i_no = static_cast<uint32_t>(no);
    inode->i_checksum = tier_crc(inode, sizeof(*inode));
}

int32_t tier_restore_inode(const tier_restore &plan, const zutr_params_t *params)
{
    zutr_buffer slot;
    const int32_t failed = zutr_alloc_aligned(SIZE_4K, &slot);
    if (failed != 0) {
        return failed;
    }
    memset(slot.get(), 0, SIZE_4K);
    const ssize_t got = zutr_readn(params->fd, slot.get(), SIZE_4K, plan.inode_offset);
    if (got == SIZE_4K && tier_inode_is_readable(plan, slot.get())) {
        zutr_error(plan.func, "inode:%d is readable. offset: %ld", params->meta_no,
                   plan.inode_offset);
        return 0;
    }
    tier_inode_claims claims = {};
    const int32_t ret = read_claims(plan, params, &claims);
    if (ret != 0) {
        return ret;
    }
    const tier_restore_decision decision = tier_decide_restore(claims, params->force);
    if (decision == tier_restore_decision::doubtful) {
        printf("inode no:%d can't make sure used\n", params->meta_no);
        return -EIO;
    }
    if (decision == tier_restore_decision::owned) {
        printf("inode no:%d extent count: %d can't make sure uuid\n", params->meta_no,
               claims.owned);
        return 0;
    }
    return rewrite_inode(plan, params, slot.get());
}
