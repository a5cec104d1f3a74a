#include "zu_tier/layout/v2/inode.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cerrno>

namespace {

/* Whether slot `ino` of the area at `exp_inode_off` holds the inode `base_no` + `ino`: 0, a
 * negative errno or read result, or the positive size of a slot that holds something else. */
int32_t __check_exp_inode(int32_t fd, uint64_t exp_inode_off, uint32_t base_no, uint32_t ino)
{
    zutr_buffer slot;
    const int32_t failed = zutr_alloc_aligned(SIZE_4K, &slot);
    if (failed != 0) {
        zutr_error(__func__, "posix memalign failed: %d", failed);
        return -ENOMEM;
    }
    const uint32_t inode_no = ino + base_no;
    const uint64_t offset = exp_inode_off + uint64_t{ino} * SIZE_4K;
    const auto got =
        static_cast<int32_t>(zutr_readn(fd, slot.get(), SIZE_4K, static_cast<int64_t>(offset)));
    if (got != static_cast<int32_t>(SIZE_4K)) {
        zutr_error(__func__, "check exp inode first failed, exp_off: %lu, ino: %u ret: %d", offset,
                   inode_no, got);
        return got;
    }
    const auto *inode = reinterpret_cast<const tier_inode_v2_t *>(slot.get());
    const uint32_t crc = zutr_record_crc(*inode);
    if (inode->i_magic == TIER_INODE_MAGIC_V2 && inode->i_no == inode_no &&
        inode->i_checksum == crc) {
        return 0;
    }
    zutr_error(__func__,
               "inode ondisk no: %u(off: %lu) inode_no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x",
               inode->i_no, offset, inode_no, inode->i_magic, inode->i_checksum, crc);
    __print_inode_v2(inode, 0, zutr_get_logger());
    return got;
}

} // namespace

void __print_inode_v2(const tier_inode_v2_t *inode, int64_t offset, FILE *fp)
{
    zutr_assert(inode != nullptr && fp != nullptr, "inode && fp");
    zutr_print_entry<TIER_INODE_FIELDS_V2>(*inode, offset, fp);
}

int32_t inode_is_valid(const tier_super_block_v2_t *sb, int32_t ino)
{
    if (tier_inode_is_usable_v2(*sb, static_cast<uint32_t>(ino))) {
        return 1;
    }
    zutr_error(__func__,
               "invalid inode no %d max inode_cnt:%u inode_max: %u inode_sum:%u exp_magic: 0x%x "
               "exp_inuse: 0x%x",
               ino, sb->sb_inode_cnt, TIER_INODE_NO_BOUND_V2, tier_inode_sum_v2(*sb),
               sb->sb_inode_exp_magic, sb->sb_inode_exp_inuse);
    return 0;
}

int32_t __check_exp_inode_formated(const tier_super_block_v2_t *sb, int32_t fd,
                                   uint32_t exp_inode_cnt)
{
    if (fd <= 0 || exp_inode_cnt < TIER_EXP_CNT_MIN_V2) {
        return -EINVAL;
    }
    const auto exp_inode_off = static_cast<uint64_t>(tier_exp_inodes_v2(*sb).start);
    if (sb->sb_data_offset >= exp_inode_off) {
        zutr_error(__func__,
                   "exp offset(%lu) is invalid, sb_data_off: %lu sb_block_cnt: %u "
                   "sb_block_size: %u",
                   exp_inode_off, sb->sb_data_offset, sb->sb_block_cnt, sb->sb_block_size);
        return -EINVAL;
    }
    if (__check_exp_inode(fd, exp_inode_off, sb->sb_inode_cnt, 0) != 0 ||
        __check_exp_inode(fd, exp_inode_off, sb->sb_inode_cnt, exp_inode_cnt - 1) != 0) {
        return -EINVAL;
    }
    return 0;
}
