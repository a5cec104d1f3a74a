#include "zu_tier/layout/v3/packed.h"

#include <cerrno>

namespace {

int32_t read_entry(const zutr_json_reader &in, const tier_packed_table_v3 &table,
                   tier_packed_block_v3_t *block)
{
    uint64_t no = 0;
    int32_t ret = in.bits(table.number, zutr_need::required, zutr_to_u64, 64, &no);
    if (ret != 0) {
        return ret;
    }
    /* Of the number only the place within the block counts. */
    const uint64_t k = no % TIER_PACKED_SLOTS_V3;
    if (k < table.first_word) {
        zutr_error(in.func(), "%s_json %s: %ld invalid", table.item, table.number,
                   static_cast<int64_t>(k));
        return -EINVAL;
    }
    uint64_t word = block->word[k];
    for (const auto &[field, need] : table.keys) {
        uint64_t value = field.get(word);
        ret = in.bits(field.key, need, zutr_to_u64, field.width, &value);
        if (ret != 0) {
            return ret;
        }
        word = field.put(word, value);
    }
    block->word[k] = table.in_use.put(word, 1);
    return 0;
}

} // namespace

tier_packed_filter tier_make_packed_filter(const tier_packed_table_v3 &table,
                                           const zutr_filter_t &filter)
{
    constexpr tier_packed_filter NOTHING = {.mask = 0, .bits = 1};
    tier_packed_filter made;
    if (filter.error == 1 || filter.use > 1 || (filter.use == 0 && filter.owner >= 0)) {
        return NOTHING;
    }
    if (filter.use >= 0 || filter.owner >= 0) {
        made.mask = table.in_use.mask();
        made.bits = table.in_use.put(0, filter.use == 0 ? 0 : 1);
    }
    if (filter.owner >= 0) {
        const auto owner = static_cast<uint64_t>(filter.owner);
        made.mask |= table.owner.mask();
        made.bits = table.owner.put(made.bits, owner);
        if (table.owner.get(made.bits) != owner) {
            return NOTHING;
        }
    }
    return made;
}

void tier_put_packed_head(zutr_text &out, const tier_packed_table_v3 &table, uint32_t checksum,
                          int64_t offset)
{
    out.put(R"({"checksum":")");
    out.hex(checksum);
    if (table.magic) {
        out.put(R"(","magic":")");
        out.hex(*table.magic);
    }
    out.put(R"(","meta_offset": )");
    out.signed_decimal(offset);
    out.put(",\"");
    out.put(table.entries);
    out.put("\":[");
}

int32_t tier_read_meta_offset(const zutr_json_reader &in, uint64_t begin, uint64_t end,
                              int64_t *offset)
{
    uint64_t value = 0;
    const int32_t ret = in.bits("meta_offset", zutr_need::required, zutr_to_u64, 64, &value);
    if (ret != 0) {
        return ret;
    }
    *offset = static_cast<int64_t>(value);
    if (value < begin || value >= end) {
        zutr_error(in.func(), "meta_offset: %ld invalid", *offset);
        return -EINVAL;
    }
    return 0;
}

int32_t tier_read_packed(const zutr_json_reader &in, const tier_packed_table_v3 &table,
                         tier_packed_block_v3_t *block)
{
    const cJSON *array = cJSON_GetObjectItem(in.object(), table.entries);
    if (!cJSON_IsArray(array)) {
        /* The label is the shards', whatever the table. */
        zutr_error(in.func(), "%s_json is invalid. shards_json:%p", table.entries,
                   static_cast<const void *>(array));
        return -EINVAL;
    }
    const int32_t cnt = cJSON_GetArraySize(array);
    if (cnt > static_cast<int32_t>(TIER_PACKED_SLOTS_V3 - table.first_word)) {
        zutr_error(in.func(), "%s_cnt: %d bigger than %d", table.entries, cnt,
                   static_cast<int32_t>(TIER_PACKED_SLOTS_V3));
        return -EINVAL;
    }
    int32_t index = 0;
    for (const cJSON *item = array->child; item != nullptr; item = item->next) {
        if (!cJSON_IsObject(item)) {
            zutr_error(in.func(), "%s_json index: %d invalid", table.item, index);
            return -EINVAL;
        }
        const int32_t ret = read_entry({in.func(), item}, table, block);
        if (ret != 0) {
            return ret;
        }
        index++;
    }
    return 0;
}
