#include "zu_tier/layout/brick.h"

#include "common/zutr_assert.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <strings.h>
#include <uuid/uuid.h>

namespace {

bool passes(const zutr_filter_t &filter, const tier_brick_info_t &brick)
{
    return filter.error != 1 &&
           (filter.use < 0 || static_cast<uint32_t>(filter.use) == brick.bi_use) &&
           (filter.id == nullptr || zutr_bounded(brick.bi_brickid) == filter.id);
}

void read_brick_in_use(zutr_json_reader &in, zutr_need unlink, tier_brick_info_t *brick)
{
    in.read(TIER_BRICK_IN_USE_KEYS, brick);
    if (strlen(brick->bi_brickid) != TIER_BRICKID_LEN) {
        in.refuse(in.func(), "bi_brickid(%s) is invalid, expect_len:%ld", brick->bi_brickid,
                  static_cast<int64_t>(TIER_BRICKID_LEN));
    }
    in.read(tier_brick_unlink_key(unlink), brick);
}

constexpr tier_kind ODD_BRICK_PATH = {"odd_brick_path", tier_severity::warning};

bool is_control(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }

} // namespace

void tier_check_brick(const void * /*sb*/, const uint8_t *entry, tier_findings &to)
{
    const auto *brick = reinterpret_cast<const tier_brick_info_t *>(entry);
    tier_check_use(brick->bi_use, to);
    tier_check_identity(brick->bi_uuid, to);
    const std::string_view path = zutr_bounded(brick->bi_brickid);
    const char *identity = zutr_uuid_utoa(brick->bi_uuid);
    const size_t identity_length = strlen(identity);
    if (path.size() != TIER_BRICKID_LEN) {
        to.add({"bad_brick_path"}, "its path has %zu characters, expected %zu", path.size(),
               TIER_BRICKID_LEN);
    } else if (strncasecmp(&path[path.size() - identity_length], identity, identity_length) != 0) {
        to.add(ODD_BRICK_PATH, "its path does not end in its identity %s, which is odd", identity);
    }
    const auto *control = std::ranges::find_if(path, is_control);
    if (control != path.end()) {
        to.add(ODD_BRICK_PATH,
               "character %zu of its path is the control character 0x%02x, which is odd",
               static_cast<size_t>(control - path.begin()) + 1,
               static_cast<unsigned char>(*control));
    }
}

void tier_print_brick(tier_brick_info_t *brick, int64_t offset, FILE *fp)
{
    zutr_assert(brick != nullptr && fp != nullptr, "brick && fp");
    brick->bi_brickid[sizeof(brick->bi_brickid) - 1] = '\0';
    zutr_print_entry<TIER_BRICK_FIELDS>(*brick, offset, fp);
}

int32_t tier_dump_brick(const char *func, const tier_table &table, int32_t no, void *meta,
                        const char *delim, zutr_params_t *params)
{
    auto *brick = static_cast<tier_brick_info_t *>(meta);
    const uint32_t crc = table.crc(brick, sizeof(*brick));
    if (brick->bi_magic != table.magic_value || brick->bi_no != static_cast<uint32_t>(no) ||
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
    tier_print_brick(brick, tier_slot(table.regions(params->sb), brick->bi_no), params->out_fp);
    return 0;
}

int64_t tier_parse_brick(zutr_json_reader in, const tier_table &table, zutr_need unlink,
                         const void *sb, void *m)
{
    auto *brick = static_cast<tier_brick_info_t *>(m);
    brick->bi_magic = table.magic_value;
    in.read(TIER_BRICK_KEYS, brick);
    if (brick->bi_use != 0) {
        read_brick_in_use(in, unlink, brick);
    } else if (!in.failed()) {
        uuid_generate(brick->bi_uuid);
    }
    const uint64_t max = table.regions(sb)[0].count;
    if (brick->bi_no >= max) {
        in.refuse(in.func(), "bi_no %u is invalid, max: %lu", brick->bi_no, max);
    }
    return tier_finish(in, table, sb, brick, brick->bi_no);
}
