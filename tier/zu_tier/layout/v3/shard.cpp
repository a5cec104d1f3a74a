#include "common/zutr_assert.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/layout/v3/packed.h"
#include "zu_tier/layout/v3/v3.h"

#include <cerrno>

/* The V3 shard table. */

namespace {

constexpr auto FIELDS = std::tuple{
    zutr_bits{SHARD_INO_V3, &tier_packed_entry_v3::word},
    zutr_bits{SHARD_IN_USE_V3, &tier_packed_entry_v3::word},
    zutr_bits{SHARD_RESERVED_V3, &tier_packed_entry_v3::word},
    zutr_field{"sno", &tier_packed_entry_v3::no},
    zutr_bits{SHARD_INDEX_V3, &tier_packed_entry_v3::word},
};

constexpr zutr_key NUMBER_KEY = {"sno", &tier_packed_entry_v3::no, zutr_to_u64};

/* Read after the number. */
constexpr auto KEYS = std::tuple{
    zutr_bits_key{SHARD_INO_V3, &tier_packed_entry_v3::word},
    zutr_bits_key{SHARD_INDEX_V3, &tier_packed_entry_v3::word},
    zutr_bits_key{SHARD_RESERVED_V3, &tier_packed_entry_v3::word, zutr_need::optional},
};

constexpr tier_packed_table_v3 PACKED = {
    .entries = "shards",
    .number = NUMBER_KEY.key,
    .item = "shards",
    .first_word = 1,
    .magic = TIER_SHARD_MAGIC_V3,
    .in_use = SHARD_IN_USE_V3,
    .owner = SHARD_INO_V3,
};

constexpr char IGNORED[] = "ignore shard:%d, in_use:%d, inode_no:%d";

uint32_t crc_shard_v3(void *shard_4k, uint32_t shard_4k_size)
{
    zutr_assert(shard_4k != nullptr && shard_4k_size != 0, "shard_4k && shard_4k_size");
    return tier_crc(shard_4k, shard_4k_size);
}

int32_t __dump_shard_v3(int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    zutr_assert_entry(no, meta, delim, params);
    const auto &block = *static_cast<const tier_packed_block_v3_t *>(meta);
    const auto magic = static_cast<uint32_t>(SHARD_MAGIC_V3.get(block.word[0]));
    const auto checksum = static_cast<uint32_t>(SHARD_CHECKSUM_V3.get(block.word[0]));
    const uint32_t crc = crc_shard_v3(meta, SIZE_4K);
    if (magic != TIER_SHARD_MAGIC_V3 || checksum != crc) {
        zutr_error(__func__,
                   "shard no: %u, magic_ondisk: 0x%x magic: 0x%x, crc_ondisk: 0x%x crc: 0x%x",
                   static_cast<uint32_t>(no), magic, TIER_SHARD_MAGIC_V3, checksum, crc);
        return -EFAULT;
    }
    const tier_region shards = tier_shards_v3(tier_super_v3(params->sb));
    return tier_dump_packed<PACKED, FIELDS, IGNORED>(
        __func__, no, block, checksum, shards.slot(static_cast<uint64_t>(no)), delim, params);
}

void read_entry(zutr_json_reader &in, tier_packed_entry_v3 *entry) { in.read(KEYS, entry); }

int64_t parse_shard_from_json_v3(zutr_params_t *params, const cJSON *ext_cfg, void *m)
{
    zutr_assert_parse(params, ext_cfg, m, "params && params->sb && ext_cfg && shards && shard");
    const tier_super_block_v3_t &sb = tier_super_v3(params->sb);
    zutr_json_reader in(__func__, ext_cfg);
    auto *block = static_cast<tier_packed_block_v3_t *>(m);
    block->word[0] = SHARD_MAGIC_V3.put(0, TIER_SHARD_MAGIC_V3);
    const int64_t offset =
        tier_read_meta_offset(in, sb.sb_shard_table_offset, sb.sb_hot_table_offset);
    tier_read_packed(in, PACKED, read_entry, block);
    tier_seal(TIER_SHARD_TABLE_V3, block, SIZE_4K);
    return tier_finish_block(in, offset);
}

/* The head of a block as a dump shows it. */
struct block_head {
    uint32_t checksum;
    uint32_t magic;
};

constexpr auto HEAD_FIELDS = std::tuple{
    zutr_field{"checksum", &block_head::checksum, zutr_form::hex},
    zutr_field{"magic", &block_head::magic, zutr_form::hex},
};

constexpr tier_parts PARTS = tier_packed_parts(
    PACKED, [] { return tier_make_columns(FIELDS); },
    [] { return tier_make_columns(std::tuple_cat(std::tuple{NUMBER_KEY}, KEYS)); });

constexpr tier_claim CLAIMS[] = {{"index", {0, SHARD_INDEX_V3.mask()}}};

uint64_t word_of(const uint8_t *entry)
{
    uint64_t word = 0;
    memcpy(&word, entry, sizeof(word));
    return word;
}

void check_shard(const void * /*sb*/, const uint8_t *entry, tier_findings &to)
{
    const uint64_t reserved = SHARD_RESERVED_V3.get(word_of(entry));
    if (reserved != 0) {
        to.add(TIER_RESERVED_BITS_V3, "its reserved bits are 0x%lx, which is odd: 0 is usual",
               reserved);
    }
}

/* How much of a file a shard holds is not known, but that it is a block or more. */
void check_shard_in_file(const void *p, const uint8_t *entry, uint64_t file_size, tier_findings &to)
{
    const uint64_t block_size = tier_super_v3(p).sb_block_size;
    const uint64_t index = SHARD_INDEX_V3.get(word_of(entry));
    if (tier_multiply(index, block_size) >= file_size) {
        to.add({"shard_past_file"},
               "its index is %lu, but the file has %lu bytes, and a shard holds a block of %lu or "
               "more",
               index, file_size, block_size);
    }
}

} // namespace

constexpr tier_table TIER_SHARD_TABLE_V3 = {
    .name = "shard",
    .number_key = "shard_no",
    .regions = [](const void *sb) { return tier_regions{tier_shards_v3(tier_super_v3(sb))}; },
    .count_keys = {"shard_table_cnt"},
    .record_length = [](const void *) { return uint64_t{SIZE_4K}; },
    .crc = crc_shard_v3,
    .checksum = &TIER_HEAD_CHECKSUM,
    .magic = tier_number_at(offsetof(block_head, magic), 4),
    .magic_value = TIER_SHARD_MAGIC_V3,
    .fields = [] { return tier_make_columns(HEAD_FIELDS); },
    .parts = &PARTS,
    .repair = {parse_shard_from_json_v3, nullptr},
    .in_use = {0, SHARD_IN_USE_V3.mask()},
    .owner = {"inode", {0, SHARD_INO_V3.mask()}},
    .ends_with_owner = true,
    .claims = CLAIMS,
    .check = check_shard,
    .check_with_owner = check_shard_in_file,
};

int32_t zutr_dump_shard_v3(zutr_params_t *params)
{
    tier_assert_super_v3(params);
    return tier_dump_table(params, TIER_SHARD_TABLE_V3, __dump_shard_v3);
}

int32_t zutr_repair_shard_v3(zutr_params_t *params)
{
    return zutr_repair_common(params, TIER_SHARD_TABLE_V3.repair);
}
