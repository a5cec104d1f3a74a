#include "layouts.h"

#include "zu_tier/format/v1.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/format/v3.h"

#include <array>
#include <string_view>
#include <utility>

namespace tier_fuzz {

namespace {

constexpr std::array<std::uint32_t, 256> CRC_OF_BYTE = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); byte++) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        }
        table[byte] = crc;
    }
    return table;
}();

template <class Super>
Super super_as(View bytes)
{
    Super super{};
    std::memcpy(&super, bytes.data(), std::min(bytes.size(), sizeof(super)));
    return super;
}

template <class Super>
Bytes as_bytes(const Super &super)
{
    Bytes bytes(sizeof(super));
    std::memcpy(bytes.data(), &super, sizeof(super));
    return bytes;
}

void set_identity(char (&field)[48])
{
    std::string_view("Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1-51F2P2").copy(field, sizeof(field) - 1);
}

// The fields that V1 and V2 begin with.
template <class Super>
Super sample_head()
{
    Super sb{};
    set_identity(sb.sb_ssd_uuid);
    sb.sb_size = SIZE_1M;
    sb.sb_brick_cnt = SAMPLE_ENTRIES;
    sb.sb_inode_cnt = SAMPLE_ENTRIES;
    sb.sb_block_size = 262144;
    sb.sb_block_cnt = SAMPLE_ENTRIES;
    sb.sb_extent_size = 64;
    sb.sb_brick_table_size = std::uint64_t{sb.sb_brick_cnt} * SIZE_4K;
    sb.sb_inode_table_size = tier_inode_table_size(sb);
    sb.sb_extent_table_size = std::uint64_t{sb.sb_block_cnt} * SIZE_4K;
    sb.sb_data_offset = tier_data_offset(sb);
    return sb;
}

Bytes sample_v2()
{
    auto sb = sample_head<tier_super_block_v2_t>();
    sb.sb_inode_exp_magic = 0x4558;
    sb.sb_inode_exp_area = 6;
    sb.sb_inode_exp_inuse = 0x53;
    sb.sb_min_alloc_size = 16384;
    sb.sb_map_cnt = 16;
    sb.sb_size_mapped_meta = 16;
    sb.sb_total_map_size = sb.sb_map_cnt * sb.sb_size_mapped_meta;
    sb.sb_hot_size = 64;
    sb.sb_total_extent_size = sb.sb_extent_size + sb.sb_total_map_size + sb.sb_hot_size;
    return as_bytes(sb);
}

Bytes sample_v3()
{
    tier_super_block_v3_t sb{};
    set_identity(sb.sb_cdev_uuid);
    std::uint64_t at = SIZE_1M;
    const auto lay = [&at](std::uint64_t size) {
        return std::exchange(at, tier_round_up(at + size, SIZE_1M));
    };
    sb.sb_sb_size = SIZE_1M;
    sb.sb_sb_offset = SIZE_4K;
    lay(sb.sb_sb_size);
    sb.sb_brick_table_cnt = SAMPLE_ENTRIES;
    sb.sb_brick_table_size = sb.sb_brick_table_cnt * SIZE_4K;
    sb.sb_brick_table_offset = lay(sb.sb_brick_table_size);
    sb.sb_inode_table_cnt = SAMPLE_ENTRIES;
    sb.sb_inode_table_size = sb.sb_inode_table_cnt * SIZE_4K;
    sb.sb_inode_table_offset = lay(sb.sb_inode_table_size);
    sb.sb_shard_table_cnt = SAMPLE_ENTRIES * 512;
    sb.sb_shard_table_size = sb.sb_shard_table_cnt * 8;
    sb.sb_shard_table_offset = lay(sb.sb_shard_table_size);
    sb.sb_hot_table_size = SAMPLE_ENTRIES * SIZE_4K;
    sb.sb_hot_table_offset = lay(sb.sb_hot_table_size);
    sb.sb_extent_table_cnt = SAMPLE_ENTRIES * 512;
    sb.sb_extent_table_size = sb.sb_extent_table_cnt * 8;
    sb.sb_extent_table_offset = lay(sb.sb_extent_table_size);
    sb.sb_block_size = 8192;
    sb.sb_block_cnt = SAMPLE_ENTRIES;
    sb.sb_block_area_size = sb.sb_block_size * sb.sb_block_cnt;
    sb.sb_block_area_offset = lay(sb.sb_block_area_size);
    return as_bytes(sb);
}

template <class Super>
tier_region region_of(Table table, const Super &sb)
{
    switch (table) {
    case Table::super:
        return {TIER_SUPER_OFFSET, 1};
    case Table::brick:
        return tier_bricks(sb);
    case Table::inode:
        return tier_inodes(sb);
    default:
        return tier_extents(sb);
    }
}

tier_region region_of(Table table, const tier_super_block_v3_t &sb)
{
    switch (table) {
    case Table::super:
        return {TIER_SUPER_OFFSET, 1};
    case Table::brick:
        return tier_bricks_v3(sb);
    case Table::inode:
        return tier_inodes_v3(sb);
    case Table::shard:
        return tier_shards_v3(sb);
    case Table::hot:
        return tier_hot_v3(sb);
    default:
        return tier_extents_v3(sb);
    }
}

tier_region region_of(Place place, View super)
{
    switch (place.layout) {
    case 1:
        return region_of(place.table, super_as<tier_super_block_v1_t>(super));
    case 2: {
        const auto sb = super_as<tier_super_block_v2_t>(super);
        return place.table == Table::exp_inode ? tier_exp_inodes_v2(sb)
                                               : region_of(place.table, sb);
    }
    default:
        return region_of(place.table, super_as<tier_super_block_v3_t>(super));
    }
}

// The number that an entry carries.
std::uint32_t stored_no(Place place, View super, std::uint32_t no)
{
    return place.table == Table::exp_inode
               ? no + super_as<tier_super_block_v2_t>(super).sb_inode_cnt
               : no;
}

constexpr std::uint32_t BRICK_MAGICS[] = {0, 0x42524B49, 0x42524B49, 0x42584B69};
constexpr std::uint32_t INODE_MAGICS[] = {0, 0x494E4F44, 0x494E4F44, 0x498E4F54};
constexpr std::uint32_t SUPER_MAGICS[] = {0, 0xCACBCCCD, 0xCACBCCCD, 0xCACBDCBD};
constexpr std::uint32_t SHARD_MAGIC = 0x2183BA9D;
constexpr std::size_t VERSION_AT = 112;

// The block of V3 extents without its checksum, which is spread over the lowest bits of 32 words.
Bytes without_bits(View block)
{
    Bytes bare(block.begin(), block.end());
    for (std::size_t i = 0; i < 32; i++) {
        bare[i * 8] &= 0xfe;
    }
    return bare;
}

void seal_bits(std::span<std::uint8_t> block)
{
    const Bytes bare = without_bits(block);
    const std::uint32_t crc = crc32(bare);
    std::ranges::copy(bare, block.begin());
    for (std::size_t i = 0; i < 32; i++) {
        block[i * 8] |= crc >> i & 1;
    }
}

} // namespace

std::uint32_t crc32(View bytes)
{
    std::uint32_t crc = 0xFFFFFFFF;
    for (const std::uint8_t byte : bytes) {
        crc = CRC_OF_BYTE[(crc ^ byte) & 0xff] ^ (crc >> 8);
    }
    return ~crc;
}

zutr_cmd_t dump_command(Table table)
{
    constexpr zutr_cmd_t COMMANDS[] = {
        ZUTR_CMD_DUMP_SUPER,  ZUTR_CMD_DUMP_BRICK, ZUTR_CMD_DUMP_INODE,    ZUTR_CMD_DUMP_INODE,
        ZUTR_CMD_DUMP_EXTENT, ZUTR_CMD_DUMP_SHARD, ZUTR_CMD_DUMP_HOT_TABLE};
    return COMMANDS[static_cast<std::size_t>(table)];
}

zutr_cmd_t repair_command(Table table)
{
    return static_cast<zutr_cmd_t>(dump_command(table) + ZUTR_CMD_REPAIR_SUPER);
}

Bytes sample_super(int layout)
{
    Bytes super = layout == 1   ? as_bytes(sample_head<tier_super_block_v1_t>())
                  : layout == 2 ? sample_v2()
                                : sample_v3();
    super.resize(BLOCK);
    seal_super(layout, super);
    return super;
}

std::int64_t entry_offset(Place place, View super, std::uint32_t no)
{
    return region_of(place, super).slot(no);
}

std::uint64_t entry_count(Place place, View super)
{
    return region_of(place, super).count;
}

std::size_t record_size(Place place, View super)
{
    switch (place.table) {
    case Table::super:
        return super_size(place.layout);
    case Table::brick:
        return 168;
    case Table::inode:
    case Table::exp_inode:
        return 96;
    case Table::extent:
        if (place.layout < 3) {
            const std::size_t size_at = place.layout == 1 ? 136 : 164;
            return std::clamp<std::size_t>(get<std::uint32_t>(super, size_at), 4, BLOCK);
        }
        return BLOCK;
    default:
        return BLOCK;
    }
}

void seal_super(int layout, std::span<std::uint8_t> block)
{
    put(block, VERSION_AT, static_cast<std::uint32_t>(layout) << 16);
    put(block, 4, SUPER_MAGICS[layout]);
    put(block, 0, crc32(block.subspan(4, super_size(layout) - 4)));
}

void seal(Place place, View super, std::uint32_t no, std::span<std::uint8_t> block)
{
    switch (place.table) {
    case Table::super:
        seal_super(place.layout, block);
        return;
    case Table::hot:
        return;
    case Table::brick:
        put(block, 4, BRICK_MAGICS[place.layout]);
        put(block, 12, no);
        break;
    case Table::inode:
    case Table::exp_inode:
        put(block, 4, INODE_MAGICS[place.layout]);
        put(block, 68, stored_no(place, super, no));
        break;
    case Table::shard:
        put(block, 4, SHARD_MAGIC);
        break;
    case Table::extent:
        if (place.layout == 3) {
            seal_bits(block);
            return;
        }
        put(block, 48, std::uint64_t{no});
        break;
    }
    put(block, 0, crc32(block.subspan(4, record_size(place, super) - 4)));
}

bool is_sound(Place place, View super, std::uint32_t no, View block)
{
    Bytes sealed(block.begin(), block.end());
    seal(place, super, no, sealed);
    return std::ranges::equal(sealed, block);
}

} // namespace tier_fuzz
