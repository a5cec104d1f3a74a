#include "zu_tier/layout/layout.h"

#include "common/zutr_crc32.h"
#include "common/zutr_utils.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <uuid/uuid.h>

namespace {

uint32_t get_head_checksum(const void *record)
{
    uint32_t crc = 0;
    memcpy(&crc, record, sizeof(crc));
    return crc;
}

void put_head_checksum(void *record, uint32_t crc) { memcpy(record, &crc, sizeof(crc)); }

} // namespace

const tier_checksum_place TIER_HEAD_CHECKSUM = {get_head_checksum, put_head_checksum};

void tier_findings::add(const tier_kind &kind, const char *format, ...)
{
    std::array<char, 512> text;
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    take(kind, {text.data(), std::min(static_cast<size_t>(length), text.size() - 1)});
}

int32_t tier_check_rules(const char *func, std::span<const tier_rule> rules, const void *sb)
{
    for (const tier_rule &rule : rules) {
        if (rule.complain != nullptr && !rule.holds(sb)) {
            rule.complain(func, sb);
            return -EINVAL;
        }
    }
    return 0;
}

uint64_t tier_add(uint64_t a, uint64_t b)
{
    uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? TIER_PAST_ANY : sum;
}

uint64_t tier_multiply(uint64_t a, uint64_t b)
{
    uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? TIER_PAST_ANY : product;
}

tier_area tier_table_area(std::string_view name, uint64_t start, uint64_t count, uint64_t size)
{
    return {name, start, std::max(size, tier_multiply(count, SIZE_4K))};
}

tier_area tier_table_area(std::string_view name, const tier_region &region, uint64_t size)
{
    return tier_table_area(name, static_cast<uint64_t>(region.start), region.count, size);
}

uint32_t tier_crc(const void *record, uint32_t length)
{
    return zutr_crc32(static_cast<const uint8_t *>(record) + TIER_CHECKSUM_SIZE,
                      length - TIER_CHECKSUM_SIZE);
}

int32_t tier_dump_table(zutr_params_t *params, const tier_table &table,
                        meta_format_func_t format_func)
{
    const tier_region region = table.regions(params->sb)[0];
    return zutr_dump_common(params, table.number_key, region.start,
                            static_cast<int32_t>(region.count), format_func);
}

void tier_check_use(uint32_t use, tier_findings &to)
{
    if (use != 1) {
        to.add({"odd_use", tier_severity::warning}, "its use flag is %u, which is odd: 1 is usual",
               use);
    }
}

void tier_check_identity(const uint8_t (&uuid)[16], tier_findings &to)
{
    if (uuid_is_null(uuid) != 0) {
        to.add({"nil_identity", tier_severity::warning}, "its identity is nil, which is odd");
    }
}

void tier_seal(const tier_table &table, void *record, uint32_t length)
{
    if (table.crc != nullptr) {
        table.checksum->put(record, table.crc(record, length));
    }
}

int64_t tier_slot(const tier_regions &regions, uint64_t no)
{
    return no < regions[0].count || regions[1].count == 0 ? regions[0].slot(no)
                                                          : regions[1].slot(no - regions[0].count);
}

int64_t tier_finish(const zutr_json_reader &in, const tier_table &table, const void *sb,
                    void *block, uint64_t no)
{
    if (in.failed()) {
        return -EINVAL;
    }
    tier_seal(table, block, static_cast<uint32_t>(table.record_length(sb)));
    const int64_t offset = tier_slot(table.regions(sb), no);
    return tier_check_slot(in.func(), offset) ? offset : -EFAULT;
}
