#include "zu_tier/layout/v2/map.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/record/log.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstring>

namespace {

constexpr uint64_t GIB = uint64_t{1} << 30;
constexpr uint64_t TIB = uint64_t{1} << 40;

/* Devices up to `ssd_size` bytes have pieces of `map_size` bytes. */
struct map_size_step {
    uint64_t ssd_size;
    uint32_t map_size;
};
constexpr map_size_step MAP_SIZES[] = {
    {480 * GIB, 16384}, {1 * TIB, 32768}, {4 * TIB, 65536}, {UINT64_MAX, 131072}};

/* The first readable MiB between the start of the extent table and the data: 256 slots, on which
 * every candidate is tried. */
zutr_buffer s_ext_buff;

/* The most reads of the probe: over the whole extent table and 1 GiB more. The data offset, where
 * it ends, has not been checked yet and may be anything. */
uint64_t most_reads(const tier_super_block_v2_t &sb)
{
    return (uint64_t{sb.sb_block_cnt} * SIZE_4K + GIB) / SIZE_1M;
}

/* Fills s_ext_buff, on behalf of the probe. */
int32_t read_extents(const tier_super_block_v2_t &sb, int32_t dev_fd)
{
    constexpr const char *FUNC = "verify_map_cnt";
    const int32_t failed = zutr_alloc_aligned(SIZE_1M, &s_ext_buff);
    if (failed != 0) {
        zutr_error(FUNC, "posix memalign failed:%d", failed);
        return -ENOMEM;
    }
    int64_t offset = tier_extents(sb).start;
    const auto end = static_cast<int64_t>(sb.sb_data_offset);
    ssize_t got = 0;
    uint64_t reads = 0;
    do {
        got = zutr_readn(dev_fd, s_ext_buff.get(), SIZE_1M, offset);
        if (got == SIZE_1M) {
            zutr_debug(FUNC, "read extent success. offset:%ld", offset);
            return 0;
        }
        zutr_debug(FUNC, "read extent failed:%d, offset:%ld", static_cast<int32_t>(got), offset);
        offset = zutr_advance(offset, SIZE_1M);
        reads++;
    } while (offset < end && reads < most_reads(sb));
    zutr_error(FUNC, "all extent area read failed:%d, offset:%ld, end:%ld",
               static_cast<int32_t>(got), offset, end);
    s_ext_buff.reset();
    return -EIO;
}

/* The checksum of the slot at `at` of s_ext_buff for an unchecked record size: it covers the part
 * of the record that lies in the buffer. */
uint32_t candidate_crc(uint32_t at, uint32_t size)
{
    zutr_assert(size != 0, "ex && ex_size");
    const uint32_t covered = std::min(size - 4, SIZE_1M - at - 4);
    return zutr_crc32(s_ext_buff.get() + at + 4, covered);
}

} // namespace

uint32_t tier_map_size_v2(uint32_t block_cnt, uint32_t block_size)
{
    const uint64_t ssd_size = uint64_t{block_cnt} * block_size;
    const auto *step = std::find_if(std::begin(MAP_SIZES), std::end(MAP_SIZES),
                                    [&](const auto &row) { return ssd_size <= row.ssd_size; });
    uint32_t def_map_size = step->map_size;
    if (block_size >= SIZE_1M) {
        def_map_size = std::max(def_map_size, 32768U);
    }
    if (block_size == 4 * SIZE_1M) {
        def_map_size = std::max(def_map_size, 65536U);
    }
    return def_map_size;
}

int32_t get_def_min_alloc_size(uint32_t block_cnt, uint32_t block_size)
{
    zutr_assert(block_size <= 4 * SIZE_1M, "block_size <= 4 * SIZE_1M");
    const uint32_t def_map_size = tier_map_size_v2(block_cnt, block_size);
    zutr_assert((def_map_size & (def_map_size - 1)) == 0,
                "(def_map_size & (def_map_size - 1)) == 0");
    zutr_assert(block_size / def_map_size <= EXTENT_HOT_LEN,
                "(block_size / def_map_size) <= EXTENT_HOT_LEN");
    return static_cast<int32_t>(def_map_size);
}

int32_t verify_map_cnt(const tier_super_block_v2_t *sb, int32_t dev_fd, uint32_t map_cnt)
{
    zutr_assert(sb != nullptr && dev_fd >= 0 && map_cnt > 0, "sb && dev_fd >= 0 && map_cnt > 0");
    if (s_ext_buff == nullptr) {
        const int32_t ret = read_extents(*sb, dev_fd);
        if (ret != 0) {
            return ret;
        }
    }
    zutr_assert(s_ext_buff != nullptr, "s_ext_buff");
    const auto size = static_cast<uint32_t>(map_cnt * sizeof(tier_mapped_meta_v2_t)) +
                      sb->sb_extent_size + sb->sb_hot_size;
    for (uint32_t at = 0; at < SIZE_1M; at += SIZE_4K) {
        const auto *extent = reinterpret_cast<const tier_extent_v2_t *>(s_ext_buff.get() + at);
        const uint32_t crc = candidate_crc(at, size);
        if (extent->te_checksum != crc) {
            zutr_debug(__func__, "extent %lu check failed. crc:%u, cksum:%u, map_cnt:%u",
                       extent->te_reserved1, crc, extent->te_checksum, map_cnt);
            return -EINVAL;
        }
    }
    return 0;
}

bool tier_has_tables_v2(const void *old_sb, int32_t dev_fd, uint64_t size)
{
    tier_super_block_v2_t sb = {};
    memcpy(&sb, old_sb, offsetof(tier_super_block_v2_t, sb_inode_exp_magic));
    sb.sb_hot_size = TIER_HOT_SIZE_V2;
    if (sb.sb_magic != TIER_SB_MAGIC_V2 || sb.sb_version != TIER_OLD_VERSION ||
        sb.sb_block_size == 0 || sb.sb_extent_size < TIER_EXTENT_SIZE_MIN ||
        sb.sb_extent_size > TIER_EXTENT_SIZE_MAX ||
        static_cast<uint64_t>(tier_extents(sb).start) >= size) {
        return false;
    }
    sb.sb_data_offset = std::min(sb.sb_data_offset, size); /* where the probe gives up reading */
    const uint32_t map_size = tier_map_size_v2(sb.sb_block_cnt, sb.sb_block_size);
    const auto fits = [&sb](uint32_t map_cnt) {
        return map_cnt <= EXTENT_HOT_LEN &&
               sb.sb_extent_size + map_cnt * sizeof(tier_mapped_meta_v2_t) + sb.sb_hot_size <=
                   TIER_EXTENT_SIZE_MAX;
    };
    s_ext_buff.reset(); /* of another device */
    int32_t ret = -EINVAL;
    for (uint32_t map_cnt = 1 + (sb.sb_block_size - 1) / map_size; ret == -EINVAL && fits(map_cnt);
         map_cnt++) {
        ret = verify_map_cnt(&sb, dev_fd, map_cnt);
    }
    s_ext_buff.reset();
    return ret == 0;
}

int32_t calc_super_block_v2(int32_t dev_fd, tier_super_block_v2_t *sb)
{
    zutr_assert(sb != nullptr && dev_fd >= 0, "sb != NULL && dev_fd >= 0");
    sb->sb_hot_size = TIER_HOT_SIZE_V2;
    const int32_t def_map_size = get_def_min_alloc_size(sb->sb_block_cnt, sb->sb_block_size);
    auto map_cnt =
        static_cast<uint32_t>(std::ceil(static_cast<double>(sb->sb_block_size) / def_map_size));
    sb->sb_size_mapped_meta = sizeof(tier_mapped_meta_v2_t);
    sb->sb_min_alloc_size = static_cast<uint32_t>(def_map_size);
    int32_t ret = -EINVAL;
    for (; map_cnt <= EXTENT_HOT_LEN; map_cnt++) {
        ret = verify_map_cnt(sb, dev_fd, map_cnt);
        if (ret == 0) {
            break;
        }
    }
    if (ret != 0) {
        zutr_error(__func__, "cannot find valid map_cnt. ret:%d, map_cnt:%d", ret,
                   static_cast<int32_t>(map_cnt));
        return -EINVAL;
    }
    zutr_debug(__func__, "find map_cnt:%d", static_cast<int32_t>(map_cnt));
    sb->sb_map_cnt = map_cnt;
    sb->sb_total_map_size = map_cnt * sb->sb_size_mapped_meta;
    zutr_assert(sb->sb_map_cnt * sb->sb_size_mapped_meta >= sb->sb_total_map_size,
                "sb->sb_map_cnt * sb->sb_size_mapped_meta >= sb->sb_total_map_size");
    zutr_assert(sb->sb_map_cnt <= EXTENT_HOT_LEN, "sb->sb_map_cnt <= EXTENT_HOT_LEN");
    const uint32_t total_extent_size = sb->sb_total_map_size + sb->sb_extent_size + sb->sb_hot_size;
    zutr_assert(total_extent_size <= SIZE_4K, "total_extent_size <= SIZE_4K");
    sb->sb_total_extent_size = total_extent_size;
    return 0;
}
