#pragma once

#include "zu_tier/layout/layout.h"

/* The brick table, which is the same in every layout but for its place and its magic. */

constexpr auto TIER_BRICK_FIELDS = std::tuple{
    zutr_field{"bi_checksum", &tier_brick_info_t::bi_checksum, zutr_form::hex},
    zutr_field{"bi_magic", &tier_brick_info_t::bi_magic, zutr_form::hex},
    zutr_field{"bi_use", &tier_brick_info_t::bi_use},
    zutr_field{"bi_no", &tier_brick_info_t::bi_no},
    zutr_field{"bi_uuid", &tier_brick_info_t::bi_uuid},
    zutr_field{"bi_brickid", &tier_brick_info_t::bi_brickid},
    zutr_field{"bi_unlink", &tier_brick_info_t::bi_unlink},
    zutr_field{"bi_reserved", &tier_brick_info_t::bi_reserved},
};

constexpr auto TIER_BRICK_KEYS = std::tuple{
    zutr_key{"bi_use", &tier_brick_info_t::bi_use, zutr_to_s64},
    zutr_key{"bi_no", &tier_brick_info_t::bi_no, zutr_to_s64},
};

/* Read only for a brick in use. */
constexpr auto TIER_BRICK_IN_USE_KEYS = std::tuple{
    zutr_key{"bi_uuid", &tier_brick_info_t::bi_uuid},
    zutr_key{"bi_brickid", &tier_brick_info_t::bi_brickid},
};

/* Read after them; not every layout requires it. */
constexpr auto tier_brick_unlink_key(zutr_need need)
{
    return zutr_key{"bi_unlink", &tier_brick_info_t::bi_unlink, zutr_to_u64, need};
}

void tier_check_brick(const void *sb, const uint8_t *entry, tier_findings &to);

constexpr tier_claim TIER_BRICK_CLAIMS[] = {
    {"identity", tier_number_at(offsetof(tier_brick_info_t, bi_uuid), 8),
     tier_claim_type::identity},
    {"path", tier_number_at(offsetof(tier_brick_info_t, bi_brickid), 8), tier_claim_type::text},
};
static_assert(sizeof(tier_brick_info_t::bi_brickid) == TIER_CLAIM_TEXT);

/* A layout's brick table. */
constexpr tier_table tier_brick_table(uint32_t magic, tier_regions (*regions)(const void *sb),
                                      uint32_t (*crc)(void *record, uint32_t length),
                                      const zutr_repair_t &repair)
{
    return {
        .name = "brick",
        .number_key = "bi_no",
        .regions = regions,
        .count_keys = {"brick_cnt"},
        .record_length = [](const void *) { return uint64_t{sizeof(tier_brick_info_t)}; },
        .crc = crc,
        .checksum = &TIER_HEAD_CHECKSUM,
        .magic = tier_number_at(offsetof(tier_brick_info_t, bi_magic), 4),
        .magic_value = magic,
        .number = tier_number_at(offsetof(tier_brick_info_t, bi_no), 4),
        .fields = [] { return tier_make_columns(TIER_BRICK_FIELDS); },
        .keys =
            [] {
                return tier_make_columns(
                    std::tuple_cat(TIER_BRICK_KEYS, TIER_BRICK_IN_USE_KEYS,
                                   std::tuple{tier_brick_unlink_key(zutr_need::required)}));
            },
        .repair = repair,
        .in_use = tier_number_at(offsetof(tier_brick_info_t, bi_use), 4),
        .claims = TIER_BRICK_CLAIMS,
        .check = tier_check_brick,
    };
}

/* Prints the brick as a JSON object; `offset` is shown as "meta_offset". Cuts off a path that lacks
 * its terminator, in the record itself. */
void tier_print_brick(tier_brick_info_t *brick, int64_t offset, FILE *fp);

/* Formatter of the dump driver, on behalf of the function `func`. */
int32_t tier_dump_brick(const char *func, const tier_table &table, int32_t no, void *meta,
                        const char *delim, zutr_params_t *params);

/* Fills the zeroed brick at `m` from a repair file; `unlink` says whether "bi_unlink" is required.
 * Gives the device offset of its slot, or -EINVAL or -EFAULT, logged. */
int64_t tier_parse_brick(zutr_json_reader in, const tier_table &table, zutr_need unlink,
                         const void *sb, void *m);
