#include "layouts.h"

#include "../../support/model.h"

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

constexpr std::string_view IDENTITY = "Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1-51F2P2";
constexpr std::uint64_t MIB = tier_test::MIB;

const tier_test::TableModel &model_of(Place place)
{
    constexpr const char *NAMES[] = {"super", "brick", "inode", "inode", "extent", "shard", "hot"};
    return tier_test::model(place.layout, NAMES[static_cast<std::size_t>(place.table)]);
}

tier_test::Block block_of(View super)
{
    tier_test::Block block{};
    std::ranges::copy(super.first(std::min(super.size(), BLOCK)), block.begin());
    return block;
}

// A super block in the making, field by field.
class Sample {
public:
    explicit Sample(int layout) : table_(model_of({layout, Table::super}))
    {
        tier_test::put_text(block_, table_.field("ssd_uuid").byte, IDENTITY);
    }

    void set(const std::string &field, std::uint64_t value)
    {
        tier_test::put_number(block_, table_.field(field), value);
    }
    Bytes bytes() const { return {block_.begin(), block_.end()}; }

private:
    const tier_test::TableModel &table_;
    tier_test::Block block_{};
};

// The fields that V1 and V2 begin with.
Sample sample_head(int layout)
{
    Sample sb(layout);
    constexpr std::uint64_t TABLE = SAMPLE_ENTRIES * BLOCK;
    constexpr std::uint64_t INODES = MIB + BLOCK + TABLE;
    const std::uint64_t extents = tier_test::round_up(INODES + TABLE, MIB);
    sb.set("super block size", MIB);
    sb.set("brick_cnt", SAMPLE_ENTRIES);
    sb.set("inode_cnt", SAMPLE_ENTRIES);
    sb.set("block_size", 262144);
    sb.set("block_cnt", SAMPLE_ENTRIES);
    sb.set("extent_size", 64);
    sb.set("brick_table_size", TABLE);
    sb.set("inode_table_size", extents - INODES);
    sb.set("extent_table_size", TABLE);
    sb.set("data_offset", tier_test::round_up(extents + TABLE + 2 * MIB, MIB));
    return sb;
}

Sample sample_v2()
{
    Sample sb = sample_head(2);
    sb.set("exp_inode_magic", 0x4558);
    sb.set("sb_inode_exp_area", 6);
    sb.set("exp_inode_inuse", 0x53);
    sb.set("min_alloc_size", 16384);
    sb.set("map_cnt", 16);
    sb.set("size_mapped_meta", 16);
    sb.set("total_map_size", 16 * 16);
    sb.set("hot_size", 64);
    sb.set("total_extent_size", 64 + 16 * 16 + 64);
    return sb;
}

Sample sample_v3()
{
    Sample sb(3);
    std::uint64_t at = 2 * MIB;
    // The areas begin at whole MiB.
    const auto lay = [&](const std::string &area, std::uint64_t size) {
        sb.set(area + "_size", size);
        sb.set(area == "data_table" ? "data_offset" : area + "_offset", at);
        at = tier_test::round_up(at + size, MIB);
    };
    sb.set("sb_offset", BLOCK);
    sb.set("super block size", MIB);
    for (const std::string name : {"brick", "inode", "shard", "hot", "extent"}) {
        lay(name + "_table", SAMPLE_ENTRIES * BLOCK);
        if (name == "brick" || name == "inode")
            sb.set(name + "_cnt", SAMPLE_ENTRIES);
        else if (name != "hot")
            sb.set(name + "_table_cnt", SAMPLE_ENTRIES * 512);
    }
    sb.set("block_size", 8192);
    sb.set("block_cnt", SAMPLE_ENTRIES);
    lay("data_table", SAMPLE_ENTRIES * 8192);
    return sb;
}

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
    Bytes super = (layout == 1 ? sample_head(1) : layout == 2 ? sample_v2() : sample_v3()).bytes();
    seal_super(layout, super);
    return super;
}

std::int64_t entry_offset(Place place, View super, std::uint32_t no)
{
    const tier_test::Block block = block_of(super);
    const std::int64_t start = place.table == Table::exp_inode
                                   ? tier_test::expansion_start(block)
                                   : static_cast<std::int64_t>(model_of(place).start(block));
    return start + std::int64_t{no} * static_cast<std::int64_t>(BLOCK);
}

std::uint64_t entry_count(Place place, View super)
{
    if (place.table == Table::exp_inode) {
        return get<std::uint8_t>(super, 142) * std::uint64_t{tier_test::EXPANSION_UNIT};
    }
    return model_of(place).count(block_of(super));
}

std::size_t record_size(Place place, View super)
{
    const std::size_t size = model_of(place).length(block_of(super));
    return std::clamp<std::size_t>(size, 4, BLOCK);
}

void seal_super(int layout, std::span<std::uint8_t> block)
{
    const tier_test::TableModel &table = model_of({layout, Table::super});
    put(block, table.field("version").byte, static_cast<std::uint32_t>(layout) << 16);
    put(block, 4, table.magic);
    put(block, 0, crc32(block.subspan(4, super_size(layout) - 4)));
}

void seal(Place place, View super, std::uint32_t no, std::span<std::uint8_t> block)
{
    const tier_test::TableModel &table = model_of(place);
    if (place.table == Table::super) {
        return seal_super(place.layout, block);
    }
    if (table.magic != 0) {
        put(block, 4, table.magic);
    }
    if (place.table == Table::exp_inode) {
        no += get<std::uint32_t>(super, 124);
    }
    if (!table.number.empty()) {
        const tier_test::Field &number = table.field(table.number);
        if (number.width == 64) {
            put(block, number.byte, std::uint64_t{no});
        } else {
            put(block, number.byte, no);
        }
    }
    if (table.checksum == tier_test::Checksum::SPREAD) {
        seal_bits(block);
    } else if (table.checksum == tier_test::Checksum::HEAD) {
        put(block, 0, crc32(block.subspan(4, record_size(place, super) - 4)));
    }
}

bool is_sound(Place place, View super, std::uint32_t no, View block)
{
    Bytes sealed(block.begin(), block.end());
    seal(place, super, no, sealed);
    return std::ranges::equal(sealed, block);
}

} // namespace tier_fuzz
