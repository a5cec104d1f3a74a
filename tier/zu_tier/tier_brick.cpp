#include "zu_tier/tier_brick.h"

#include "common/zutr_assert.h"
#include "zu_tier/tier_log.h"
#include "zu_tier/tier_record.h"

#include <cerrno>
#include <cstring>
#include <uuid/uuid.h>

namespace {

using brick = tier_brick_info_t;

constexpr auto BRICK_FIELDS = std::tuple{
    zutr_field{"bi_checksum", &brick::bi_checksum, zutr_form::hex},
    zutr_field{"bi_magic", &brick::bi_magic, zutr_form::hex},
    zutr_field{"bi_use", &brick::bi_use},
    zutr_field{"bi_no", &brick::bi_no},
    zutr_field{"bi_uuid", &brick::bi_uuid},
    zutr_field{"bi_brickid", &brick::bi_brickid},
    zutr_field{"bi_unlink", &brick::bi_unlink},
    zutr_field{"bi_reserved", &brick::bi_reserved},
};

constexpr auto BRICK_KEYS = std::tuple{
    zutr_key{"bi_use", &brick::bi_use, zutr_to_s64},
    zutr_key{"bi_no", &brick::bi_no, zutr_to_s64},
};

/* Read only for a brick in use. */
constexpr auto BRICK_IN_USE_KEYS = std::tuple{
    zutr_key{"bi_uuid", &brick::bi_uuid},
    zutr_key{"bi_brickid", &brick::bi_brickid},
};

bool passes(const zutr_filter_t &filter, const brick &entry)
{
    return filter.error != 1 &&
           (filter.use < 0 || static_cast<uint32_t>(filter.use) == entry.bi_use) &&
           (filter.id == nullptr || zutr_bounded(entry.bi_brickid) == filter.id);
}

int32_t parse_brick_in_use(const zutr_json_reader &in, zutr_need unlink, brick *entry)
{
    int32_t ret = in.read(BRICK_IN_USE_KEYS, entry);
    if (ret != 0) {
        return ret;
    }
    if (strlen(entry->bi_brickid) != TIER_BRICKID_LEN) {
        zutr_error(in.func(), "bi_brickid(%s) is invalid, expect_len:%ld", entry->bi_brickid,
                   static_cast<int64_t>(TIER_BRICKID_LEN));
        return -EINVAL;
    }
    return in.read(zutr_key{"bi_unlink", &brick::bi_unlink, zutr_to_s64, unlink}, entry);
}

} // namespace

uint32_t tier_brick_crc(const brick *entry)
{
    return zutr_record_crc(*entry);
}

void tier_print_brick(brick *entry, int64_t offset, FILE *fp)
{
    zutr_assert(entry != nullptr && fp != nullptr, "brick && fp");
    entry->bi_brickid[sizeof(entry->bi_brickid) - 1] = '\0';
    zutr_print_entry(*entry, BRICK_FIELDS, offset, fp);
}

int32_t tier_dump_brick(const char *func, const tier_brick_table &table, int32_t no, void *meta,
                        const char *delim, zutr_params_t *params)
{
    auto *entry = static_cast<brick *>(meta);
    const uint32_t crc = tier_brick_crc(entry);
    if (entry->bi_magic != table.magic || entry->bi_no != static_cast<uint32_t>(no) ||
        entry->bi_checksum != crc) {
        zutr_error(func, "no:%d, brick no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", no,
                   entry->bi_no, entry->bi_magic, entry->bi_checksum, crc);
        tier_print_brick(entry, 0, zutr_get_logger());
        return -EFAULT;
    }
    if (!passes(params->filter, *entry)) {
        const std::string_view path = zutr_bounded(entry->bi_brickid);
        zutr_debug(func, "ignore brick %d, bi_use=%d, bi_brickid=%.*s", no,
                   static_cast<int32_t>(entry->bi_use), static_cast<int>(path.size()), path.data());
        return 1;
    }
    zutr_text(params->out_fp).put(delim);
    tier_print_brick(entry, table.region.slot(entry->bi_no), params->out_fp);
    return 0;
}

int64_t tier_parse_brick(const zutr_json_reader &in, const tier_brick_table &table, brick *entry)
{
    entry->bi_magic = table.magic;
    int32_t ret = in.read(BRICK_KEYS, entry);
    if (ret == 0 && entry->bi_use != 0) {
        ret = parse_brick_in_use(in, table.unlink, entry);
    } else if (ret == 0) {
        uuid_generate(entry->bi_uuid);
    }
    if (ret != 0) {
        return ret;
    }
    if (entry->bi_no >= table.region.count) {
        zutr_error(in.func(), "bi_no %u is invalid, max: %lu", entry->bi_no, table.region.count);
        return -EINVAL;
    }
    entry->bi_checksum = tier_brick_crc(entry);
    const int64_t offset = table.region.slot(entry->bi_no);
    tier_print_brick(entry, offset, stdout);
    return offset;
}
