#include "zu_tier/layout/v3/packed.h"

#include <cerrno>

namespace {

/* Of every block; anything may stand there. */
struct block_place {
    uint64_t meta_offset;
};
constexpr zutr_key META_OFFSET_KEY = {"meta_offset", &block_place::meta_offset, zutr_to_u64};

/* Of the number of an entry only the place within the block counts. */
void read_entry(zutr_json_reader &in, const tier_packed_table_v3 &table,
                tier_read_packed_entry read, tier_packed_block_v3_t *block)
{
    tier_packed_entry_v3 entry = {};
    in.read(zutr_key{table.number, &tier_packed_entry_v3::no, zutr_to_u64}, &entry);
    const uint64_t k = entry.no % TIER_PACKED_SLOTS_V3;
    if (k < table.first_word) {
        in.refuse(in.func(), "%s_json %s: %ld invalid", table.item, table.number,
                  static_cast<int64_t>(k));
    }
    entry.word = block->word[k];
    read(in, &entry);
    if (!in.failed()) {
        block->word[k] = table.in_use.put(entry.word, 1);
    }
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

int64_t tier_read_meta_offset(zutr_json_reader &in, uint64_t begin, uint64_t end)
{
    block_place place = {};
    in.read(META_OFFSET_KEY, &place);
    const auto offset = static_cast<int64_t>(place.meta_offset);
    if (place.meta_offset < begin || place.meta_offset >= end) {
        in.refuse(in.func(), "meta_offset: %ld invalid", offset);
    }
    return offset;
}

void tier_read_packed(zutr_json_reader &in, const tier_packed_table_v3 &table,
                      tier_read_packed_entry read, tier_packed_block_v3_t *block)
{
    const cJSON *array = in.item(table.entries);
    if (!cJSON_IsArray(array)) {
        /* The label is the shards', whatever the table. */
        in.refuse(in.func(), "%s_json is invalid. shards_json:%p", table.entries,
                  static_cast<const void *>(array));
        return;
    }
    const int32_t cnt = cJSON_GetArraySize(array);
    if (cnt > static_cast<int32_t>(TIER_PACKED_SLOTS_V3 - table.first_word)) {
        in.refuse(in.func(), "%s_cnt: %d bigger than %d", table.entries, cnt,
                  static_cast<int32_t>(TIER_PACKED_SLOTS_V3));
    }
    in.each(array, [&](int32_t index) {
        if (cJSON_IsObject(in.object())) {
            read_entry(in, table, read, block);
        } else {
            in.refuse(in.func(), "%s_json index: %d invalid", table.item, index);
        }
    });
}

int64_t tier_finish_block(const zutr_json_reader &in, int64_t offset)
{
    if (in.failed()) {
        return -EINVAL;
    }
    return tier_check_slot(in.func(), offset) ? offset : -EFAULT;
}
