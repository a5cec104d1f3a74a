#include "zu_tier/layout/inode.h"

#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/restore.h"
#include "zu_tier/layout/v2/v2.h"
#include "zu_tier/record/log.h"

#include <cerrno>

/* The V2 inode, of the inode table and of the expansion inode area. */

namespace {

constexpr auto IN_USE_KEYS = std::tuple_cat(
    TIER_INODE_IN_USE_KEYS,
    std::tuple{
        zutr_key{"new_data", &tier_inode_v2_t::new_data, zutr_to_u64, zutr_need::optional},
        zutr_key{"i_blocks", &tier_inode_v2_t::i_blocks, zutr_to_u64, zutr_need::optional},
    });

uint32_t crc_inode_v2(void *inode, uint32_t length) { return tier_crc(inode, length); }

void __print_inode_v2(void *inode, const void * /*sb*/, int64_t offset, FILE *fp)
{
    tier_print_inode<TIER_INODE_FIELDS>(inode, offset, fp);
}

void log_bad_inode(const char *func, const tier_inode_t &inode, int32_t no, uint32_t crc)
{
    zutr_error(func, "inode no: %u no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.i_no,
               static_cast<uint32_t>(no), inode.i_magic, inode.i_checksum, crc);
}

int32_t __dump_inode_v2(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    return tier_dump_inode(__func__, TIER_INODE_TABLE_V2, log_bad_inode, no, meta, delim, params);
}

/* The expansion inodes, whose numbers continue the regular ones. For a walk the driver takes their
 * count, for one entry the bound of its number. */
int32_t dump_exp_inodes(zutr_params_t *params, uint32_t count)
{
    const tier_super_block_v2_t &sb = tier_super_v2(params->sb);
    params->base_no = static_cast<int32_t>(sb.sb_inode_cnt);
    return zutr_dump_common(params, TIER_INODE_TABLE_V2.number_key, tier_exp_inodes_v2(sb).start,
                            static_cast<int32_t>(count), __dump_inode_v2);
}

/* Both tables as the members of one object. */
int32_t dump_all_inodes(zutr_params_t *params)
{
    const tier_super_block_v2_t &sb = tier_super_v2(params->sb);
    zutr_write(params->out_fp, "{ \"inode\":");
    int32_t ret = tier_dump_table(params, TIER_INODE_TABLE_V2, __dump_inode_v2);
    if (ret == 0 && sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        zutr_write(params->out_fp, ", \"exp_inode\":");
        zutr_assert(params->base_no == 0, "params->base_no == 0");
        ret = dump_exp_inodes(params, tier_exp_cnt_v2(sb));
    }
    zutr_write(params->out_fp, "}");
    return ret;
}

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
    auto *inode = reinterpret_cast<tier_inode_v2_t *>(slot.get());
    const uint32_t crc = crc_inode_v2(inode, sizeof(*inode));
    if (inode->i_magic == TIER_INODE_MAGIC_V2 && inode->i_no == inode_no &&
        inode->i_checksum == crc) {
        return 0;
    }
    zutr_error(__func__,
               "inode ondisk no: %u(off: %lu) inode_no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x",
               inode->i_no, offset, inode_no, inode->i_magic, inode->i_checksum, crc);
    __print_inode_v2(inode, nullptr, 0, zutr_get_logger());
    return got;
}

int64_t parse_inode_from_json_v2(zutr_params_t *params, const cJSON *inode_cfg, void *m)
{
    zutr_assert_parse(params, inode_cfg, m, "params && params->sb && inode_cfg && inode");
    const tier_super_block_v2_t &sb = tier_super_v2(params->sb);
    auto *inode = static_cast<tier_inode_v2_t *>(m);
    inode->i_magic = TIER_INODE_MAGIC_V2;
    zutr_json_reader in(__func__, inode_cfg);
    tier_read_inode(in, IN_USE_KEYS, inode);
    if (!in.failed() && (inode->i_brick_no >= sb.sb_brick_cnt ||
                         inode_is_valid(&sb, static_cast<int32_t>(inode->i_no)) == 0)) {
        in.refuse(__func__,
                  "repiar_file i_no %u input ino: %d or brick_no %u is invalid, exp_magic :0x%x "
                  "exp exp_inuse: 0x%xmax i_cnt:%u, max b_cnt:%u",
                  inode->i_no, params->meta_no, inode->i_brick_no, sb.sb_inode_exp_magic,
                  sb.sb_inode_exp_inuse, sb.sb_inode_cnt, sb.sb_brick_cnt);
    }
    return tier_finish(in, TIER_INODE_TABLE_V2, &sb, inode, inode->i_no);
}

/* The expansion area is there when its magic says so. */
tier_regions regions(const void *p)
{
    const tier_super_block_v2_t &sb = tier_super_v2(p);
    const bool formatted = sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2;
    return {tier_inodes(sb), formatted ? tier_exp_inodes_v2(sb) : tier_region{}};
}

constexpr tier_table inode_table()
{
    tier_table table = tier_inode_table(
        TIER_INODE_MAGIC_V2, regions, crc_inode_v2,
        [] { return tier_make_columns(TIER_INODE_FIELDS); },
        [] { return tier_make_columns(std::tuple_cat(TIER_INODE_KEYS, IN_USE_KEYS)); },
        {parse_inode_from_json_v2, __print_inode_v2}, tier_plan_restore_v2);
    table.bounds = [](const void *p) {
        const tier_super_block_v2_t &sb = tier_super_v2(p);
        const bool in_use = sb.sb_inode_exp_inuse == TIER_EXP_INUSE_V2;
        return tier_bounds{in_use ? TIER_INODE_NO_BOUND_V2 : sb.sb_inode_cnt,
                           TIER_INODE_NO_BOUND_V2};
    };
    return table;
}

/* Whether the number is that of a regular inode or of one of an expansion area in use. */
constexpr bool is_usable(const tier_super_block_v2_t &sb, uint32_t no)
{
    const bool formatted = sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2;
    return no < TIER_INODE_NO_BOUND_V2 &&
           no < (formatted ? tier_inode_sum_v2(sb) : sb.sb_inode_cnt) &&
           (no < sb.sb_inode_cnt || sb.sb_inode_exp_inuse == TIER_EXP_INUSE_V2);
}

} // namespace

constexpr tier_table TIER_INODE_TABLE_V2 = inode_table();

int32_t inode_is_valid(const tier_super_block_v2_t *sb, int32_t ino)
{
    if (is_usable(*sb, static_cast<uint32_t>(ino))) {
        return 1;
    }
    zutr_error(__func__,
               "invalid inode no %d max inode_cnt:%u inode_max: %u inode_sum:%u exp_magic: 0x%x "
               "exp_inuse: 0x%x",
               ino, sb->sb_inode_cnt, TIER_INODE_NO_BOUND_V2, tier_inode_sum_v2(*sb),
               sb->sb_inode_exp_magic, sb->sb_inode_exp_inuse);
    return 0;
}

int32_t tier_plan_restore_v2(zutr_params_t *params, tier_restore *plan)
{
    constexpr const char *FUNC = "zutr_restore_inode_v2"; /* of the handler */
    const tier_super_block_v2_t &sb = tier_super_v2(params->sb);
    /* In this layout only a number that is not a usable inode's is restored. */
    if (inode_is_valid(&sb, params->meta_no) != 0) {
        return -EINVAL;
    }
    const int32_t ret =
        tier_check_size(FUNC, "sb_extent_size", sb.sb_extent_size, TIER_CHECKSUM_SIZE, SIZE_4K);
    if (ret != 0) {
        return ret;
    }
    const auto no = static_cast<uint32_t>(params->meta_no);
    /* In the regular table the distance is a 32-bit product. */
    const int64_t offset = no < sb.sb_inode_cnt ? zutr_advance(tier_inodes(sb).start,
                                                               static_cast<int32_t>(no * SIZE_4K))
                                                : tier_inode_slot_v2(sb, no);
    const tier_region extents = tier_extents(sb);
    *plan = {.func = FUNC,
             .inode_offset = offset,
             .inode_magic = TIER_INODE_MAGIC_V2,
             .extents = extents,
             .extent_table_size = sb.sb_extent_table_size,
             .extent_size = sb.sb_extent_size,
             .failed_read_offset = extents.start,
             .shows_write_offset = false};
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

int32_t zutr_dump_inode_v2(zutr_params_t *params)
{
    tier_assert_super_v2(params);
    const tier_super_block_v2_t &sb = tier_super_v2(params->sb);
    zutr_assert(tier_exp_inodes_v2(sb).start > 0, "exp_inode_off > 0");
    if (params->meta_no < 0) {
        return dump_all_inodes(params);
    }
    if (static_cast<uint32_t>(params->meta_no) < sb.sb_inode_cnt) {
        return tier_dump_table(params, TIER_INODE_TABLE_V2, __dump_inode_v2);
    }
    if (sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        return dump_exp_inodes(params, tier_inode_sum_v2(sb));
    }
    zutr_error(__func__, "exp inode not format, invalid inode %d", params->meta_no);
    return -EINVAL;
}

int32_t zutr_repair_inode_v2(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_INODE_TABLE_V2.repair);
}
