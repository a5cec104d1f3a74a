#include "zu_tier/layout/super.h"

#include <cerrno>

int32_t tier_dump_super(const zutr_params_t *params, zutr_super_check_t check,
                        zutr_print_func_t print)
{
    if (params->sb == nullptr || params->out_fp == nullptr) {
        return -EINVAL;
    }
    const int32_t ret = check(params->sb);
    if (ret == 0) {
        print(params->sb, nullptr, TIER_SUPER_OFFSET, params->out_fp);
    }
    return ret;
}

int64_t tier_finish_super(const zutr_json_reader &in, const tier_table &table,
                          const zutr_params_t *params, int32_t (*check)(const void *new_sb),
                          void *sb)
{
    if (in.failed() || (params->force == 0 && check(sb) != 0)) {
        return -EINVAL;
    }
    tier_seal(table, sb, static_cast<uint32_t>(table.record_length(sb)));
    return TIER_SUPER_OFFSET;
}

void tier_explain_table(const tier_kind &kind, tier_findings &to, uint64_t count, uint64_t most,
                        uint64_t size, const char *expected, uint64_t expected_size)
{
    if (expected_size == TIER_PAST_ANY) {
        to.add(kind, "the table has %lu entries in %lu bytes, which reach past any offset", count,
               size);
        return;
    }
    to.add(kind, "the table has %lu entries in %lu bytes, expected 1..%lu entries and %s%lu bytes",
           count, size, most, expected, expected_size);
}

void tier_explain_block_size(const tier_kind &kind, tier_findings &to, uint64_t size,
                             uint64_t least, uint64_t most)
{
    to.add(kind, "blocks have %lu bytes, expected a multiple of 4096 from %lu to %lu", size, least,
           most);
}
