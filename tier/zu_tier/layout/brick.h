#pragma once

#include "zu_tier/format/records.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/record.h"

#include <cstdint>
#include <cstdio>
#include <tuple>

/* The brick table, which is the same in every layout but for the values below. */
struct tier_brick_table {
    uint32_t magic;
    tier_region region;
    zutr_need unlink; /* whether a repair file must hold "bi_unlink" */
};

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

/* Read only for a brick in use, and "bi_unlink" behind them. */
constexpr auto TIER_BRICK_IN_USE_KEYS = std::tuple{
    zutr_key{"bi_uuid", &tier_brick_info_t::bi_uuid},
    zutr_key{"bi_brickid", &tier_brick_info_t::bi_brickid},
};

constexpr auto tier_brick_unlink_key(zutr_need need)
{
    return zutr_key{"bi_unlink", &tier_brick_info_t::bi_unlink, zutr_to_s64, need};
}

uint32_t tier_brick_crc(const tier_brick_info_t *brick);

/* Prints the brick as a JSON object; `offset` is shown as "meta_offset". Cuts off a path that lacks
 * its terminator, in the record itself. */
void tier_print_brick(tier_brick_info_t *brick, int64_t offset, FILE *fp);

/* Formatter of the dump driver, on behalf of the function `func`. */
int32_t tier_dump_brick(const char *func, const tier_brick_table &table, int32_t no, void *meta,
                        const char *delim, zutr_params_t *params);

/* Fills the zeroed `brick` from a repair file and prints it to standard output. Gives the device
 * offset of its slot, or -EINVAL or -EFAULT, logged. */
int64_t tier_parse_brick(const zutr_json_reader &in, const tier_brick_table &table,
                         tier_brick_info_t *brick);
