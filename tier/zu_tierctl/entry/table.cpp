#include "zu_tierctl/entry/table.h"

#include "zu_tierctl/device/error.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace tierctl {

void seal_head(uint8_t *record, size_t length)
{
    const uint32_t crc = zutr_crc32(record + sizeof(crc), length - sizeof(crc));
    memcpy(record, &crc, sizeof(crc));
}

void seal_words(uint8_t *record, size_t length)
{
    const auto low_byte = [record](uint32_t word) -> uint8_t & {
        return record[word * sizeof(uint64_t)]; /* words are stored low byte first */
    };
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        low_byte(i) &= 0xFE;
    }
    const uint32_t crc = zutr_crc32(record, length);
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        low_byte(i) = static_cast<uint8_t>(low_byte(i) | (crc >> i & 1));
    }
}

uint64_t Place::get(const uint8_t *record) const
{
    uint64_t value = 0;
    memcpy(&value, record + at, width);
    return value;
}

uint64_t Table::count() const
{
    uint64_t entries = 0;
    for (const tier_region &region : regions) {
        entries += region.count;
    }
    return entries;
}

int64_t Table::slot(uint64_t no) const
{
    auto region = regions.begin();
    while (no >= region->count) {
        no -= region->count;
        ++region;
    }
    return region->slot(no);
}

void Table::seal_slot(uint8_t *slot) const
{
    if (seal != nullptr) {
        seal(slot, record_length);
    }
}

uint32_t Table::flaws(uint64_t no, const uint8_t *slot) const
{
    uint32_t flaws = 0;
    if (magic && magic->place.get(slot) != magic->value) {
        flaws |= BAD_MAGIC;
    }
    if (number && number->get(slot) != no) {
        flaws |= BAD_NUMBER;
    }
    std::array<uint8_t, SIZE_4K> sealed;
    memcpy(sealed.data(), slot, record_length);
    seal_slot(sealed.data());
    if (memcmp(sealed.data(), slot, record_length) != 0) {
        flaws |= BAD_CHECKSUM;
    }
    return flaws;
}

Table super_table(size_t record_length, uint32_t magic)
{
    constexpr Place MAGIC = {offsetof(tier_super_block_v1_t, sb_magic), 4};
    static_assert(MAGIC.at == offsetof(tier_super_block_v2_t, sb_magic));
    static_assert(MAGIC.at == offsetof(tier_super_block_v3_t, sb_magic));
    return {.name = SUPER_TABLE,
            .regions = {{TIER_SUPER_OFFSET, 1}},
            .record_length = record_length,
            .seal = seal_head,
            .magic = {{MAGIC, magic}}};
}

Table brick_table(const tier_region &region, uint32_t magic)
{
    return {.name = "brick",
            .regions = {region},
            .record_length = sizeof(tier_brick_info_t),
            .seal = seal_head,
            .magic = {{{offsetof(tier_brick_info_t, bi_magic), 4}, magic}},
            .number = {{offsetof(tier_brick_info_t, bi_no), 4}}};
}

Table inode_table(std::vector<tier_region> regions, uint32_t magic)
{
    return {.name = "inode",
            .regions = std::move(regions),
            .record_length = sizeof(tier_inode_t),
            .seal = seal_head,
            .magic = {{{offsetof(tier_inode_t, i_magic), 4}, magic}},
            .number = {{offsetof(tier_inode_t, i_no), 4}}};
}

Table extent_table(const tier_region &region, size_t record_length)
{
    return {.name = "extent",
            .regions = {region},
            .record_length = record_length,
            .seal = seal_head,
            .number = {{offsetof(tier_extent_t, te_reserved1), 8}}};
}

std::vector<Table> tables_of(const tier_super_block_v1_t &sb)
{
    return {super_table(sizeof(sb), TIER_SB_MAGIC_V1),
            brick_table(tier_bricks(sb), TIER_BRICK_MAGIC_V1),
            inode_table({tier_inodes(sb)}, TIER_INODE_MAGIC_V1),
            extent_table(tier_extents(sb), sb.sb_extent_size)};
}

std::vector<Table> tables_of(const tier_super_block_v2_t &sb)
{
    std::vector<tier_region> inodes = {tier_inodes(sb)};
    if (sb.sb_inode_exp_magic == TIER_EXP_MAGIC_V2) {
        inodes.push_back(tier_exp_inodes_v2(sb));
    }
    return {super_table(sizeof(sb), TIER_SB_MAGIC_V2),
            brick_table(tier_bricks(sb), TIER_BRICK_MAGIC_V2),
            inode_table(inodes, TIER_INODE_MAGIC_V2),
            extent_table(tier_extents(sb), sb.sb_total_extent_size)};
}

std::vector<Table> tables_of(const tier_super_block_v3_t &sb)
{
    return {super_table(sizeof(sb), TIER_SB_MAGIC_V3),
            brick_table(tier_bricks_v3(sb), TIER_BRICK_MAGIC_V3),
            inode_table({tier_inodes_v3(sb)}, TIER_INODE_MAGIC_V3),
            {.name = "shard",
             .regions = {tier_shards_v3(sb)},
             .record_length = SIZE_4K,
             .seal = seal_head,
             .magic = {{{SHARD_MAGIC_V3.at / 8, 4}, TIER_SHARD_MAGIC_V3}}},
            {.name = "hot", .regions = {tier_hot_v3(sb)}, .record_length = SIZE_4K},
            {.name = "extent",
             .regions = {tier_extents_v3(sb)},
             .record_length = SIZE_4K,
             .seal = seal_words}};
}

const Table &find_table(const std::vector<Table> &tables, std::string_view name)
{
    const auto table = std::ranges::find(tables, name, &Table::name);
    if (table != tables.end()) {
        return *table;
    }
    std::string known;
    for (const Table &other : tables) {
        known += (known.empty() ? "" : ", ") + std::string(other.name);
    }
    throw UsageError("there is no table " + std::string(name) + ", but " + known);
}

} // namespace tierctl
