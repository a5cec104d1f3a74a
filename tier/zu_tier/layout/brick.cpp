#include "zu_tier/layout/brick.h"

#include "common/zutr_assert.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/record/log.h"

#include <cerrno>
#include <cstring>
#include <uuid/uuid.h>

namespace {

bool passes(const zutr_filter_t &filter, const tier_brick_info_t &brick)
{
    return filter.error != 1 &&
           (filter.use < 0 || static_cast<uint32_t>(filter.use) == brick.bi_use) &&
           (filter.id == nullptr || zutr_bounded(brick.bi_brickid) == filter.id);
}

int32_t parse_brick_in_use(const zutr_json_reader &in, zutr_need unlink, tier_brick_info_t *brick)
{
    int32_t ret = in.read(TIER_BRICK_IN_USE_KEYS, brick);
    if (ret != 0) {
        return ret;
    }
    if (strlen(brick->bi_brickid) != TIER_BRICKID_LEN) {
        zutr_error(in.func(), "bi_brickid(%s) is invalid, expect_len:%ld", brick->bi_brickid,
                   static_cast<int64_t>(TIER_BRICKID_LEN));
        return -EINVAL;
    }
    return in.read(tier_brick_unlink_key(unlink), brick);
}

} // namespace

uint32_t tier_brick_crc(const tier_brick_info_t *brick)
{
    return zutr_record_crc(*brick);
}

void tier_print_brick(tier_brick_info_t *brick, int64_t offset, FILE *fp)
{
    zutr_assert(brick != nullptr && fp != nullptr, "brick && fp");
    brick->bi_brickid[sizeof(brick->bi_brickid) - 1] = '\0';
    zutr_print_entry<TIER_BRICK_FIELDS>(*brick, offset, fp);
}

int32_t tier_dump_brick(const char *func, const tier_brick_table &table, int32_t no, void *meta,
                        const char *delim, zutr_params_t *params)
{
    auto *brick = static_cast<tier_brick_info_t *>(meta);
    const uint32_t crc = tier_brick_crc(brick);
    if (brick->bi_magic != table.magic || brick->bi_no != static_cast<uint32_t>(no) ||
        brick->bi_checksum != crc) {
        zutr_error(func, "no:%d, brick no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", no,
                   brick->bi_no, brick->bi_magic, brick->bi_checksum, crc);
        tier_print_brick(brick, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!passes(params->filter, *brick)) {
        const std::string_view path = zutr_bounded(brick->bi_brickid);
        zutr_debug(func, "ignore brick %d, bi_use=%d, bi_brickid=%.*s", no,
                   static_cast<int32_t>(brick->bi_use), static_cast<int>(path.size()), path.data());
        return 1;
    }
    zutr_write(params->out_fp, delim);
    tier_print_brick(brick, table.region.slot(brick->bi_no), params->out_fp);
    return 0;
}

int64_t tier_parse_brick(const zutr_json_reader &in, const tier_brick_table &table,
                         tier_brick_info_t *brick)
{
    brick->bi_magic = table.magic;
    int32_t ret = in.read(TIER_BRICK_KEYS, brick);
    if (ret == 0 && brick->bi_use != 0) {
        ret = parse_brick_in_use(in, table.unlink, brick);
    } else if (ret == 0) {
        uuid_generate(brick->bi_uuid);
    }
    if (ret != 0) {
        return ret;
    }
    if (brick->bi_no >= table.region.count) {
        zutr_error(in.func(), "bi_no %u is invalid, max: %lu", brick->bi_no, table.region.count);
        return -EINVAL;
    }
    brick->bi_checksum = tier_brick_crc(brick);
    const int64_t offset = table.region.slot(brick->bi_no);
    if (!tier_check_slot(in.func(), offset)) {
        return -EFAULT;
    }
    tier_print_brick(brick, offset, stdout);
    return offset;
}
