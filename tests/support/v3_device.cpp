#include "packed_table.h"
#include "records.h"

namespace tier_test {

namespace {

constexpr std::uint64_t WORD = 8;

const RecordMembers<SuperV3> SUPER_MEMBERS{
    &SuperV3::magic,
    &SuperV3::sb_offset,
    &SuperV3::size,
    &SuperV3::reserved_offset,
    &SuperV3::reserved_size,
    &SuperV3::ctime,
    &SuperV3::uuid,
    &SuperV3::ssd_uuid,
    &SuperV3::version,
    &SuperV3::reserved,
    &SuperV3::brick_table_offset,
    &SuperV3::brick_table_size,
    &SuperV3::brick_cnt,
    &SuperV3::inode_table_offset,
    &SuperV3::inode_table_size,
    &SuperV3::inode_cnt,
    &SuperV3::shard_table_offset,
    &SuperV3::shard_table_size,
    &SuperV3::shard_cnt,
    &SuperV3::extent_table_offset,
    &SuperV3::extent_table_size,
    &SuperV3::extent_cnt,
    &SuperV3::hot_table_offset,
    &SuperV3::hot_table_size,
    &SuperV3::data_offset,
    &SuperV3::data_size,
    &SuperV3::block_size,
    &SuperV3::block_cnt,
};

template <class Entry, class Packed>
void put_words(Block &block, const PackedTable<Packed, Entry> &table, const Packed &packed)
{
    for (const Entry &entry : packed.*table.entries)
        table.put(block, entry, WORD * entry.slot);
}

// The lowest bit of an extent's word is the checksum's.
template <class Packed, class Entry>
void get_words(const Block &block, const PackedTable<Packed, Entry> &table,
               std::uint64_t empty_below, Packed &packed)
{
    for (std::uint32_t slot = table.first_slot; slot < SLOTS_V3; ++slot)
        if (const std::uint64_t word = get_u64(block, WORD * slot); word >= empty_below)
            (packed.*table.entries).push_back(table.entry_of(slot, word));
}

std::int64_t block_offset(std::uint64_t table, std::uint64_t no)
{
    return static_cast<std::int64_t>(table + no * BLOCK_SIZE);
}

template <class Entry>
void put_entries(Device &device, std::uint64_t table, std::uint64_t count,
                 const std::vector<Entry> &entries)
{
    for (std::uint32_t no = 0; no < count; ++no) {
        Entry free;
        free.no = no;
        put_block(device, block_offset(table, no), encode(free));
    }
    for (const Entry &entry : entries)
        put_block(device, block_offset(table, entry.no), encode(entry));
}

template <class Packed>
void put_packed(Device &device, std::uint64_t table, std::uint64_t words,
                const std::map<std::uint64_t, Packed> &blocks)
{
    for (std::uint64_t no = 0; no < words / SLOTS_V3; ++no)
        put_block(device, block_offset(table, no), encode(Packed{}));
    for (const auto &[no, block] : blocks)
        put_block(device, block_offset(table, no), encode(block));
}

} // namespace

void set_geometry(SuperV3 &sb)
{
    std::uint64_t end = 4096 + sb.size;
    const auto place = [&end](std::uint64_t &offset, std::uint64_t length) {
        offset = end + GAP_V3;
        end = offset + length;
        return length;
    };
    sb.brick_table_size = place(sb.brick_table_offset, sb.brick_cnt * BLOCK_SIZE);
    sb.inode_table_size = place(sb.inode_table_offset, sb.inode_cnt * BLOCK_SIZE);
    sb.shard_table_size = place(sb.shard_table_offset, sb.shard_cnt * WORD);
    place(sb.hot_table_offset, sb.hot_table_size);
    sb.extent_table_size = place(sb.extent_table_offset, sb.extent_cnt * WORD);
    sb.data_size = place(sb.data_offset, sb.block_size * sb.block_cnt);
}

SuperV3 super_v3(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
{
    SuperV3 sb;
    sb.brick_cnt = bricks;
    sb.inode_cnt = inodes;
    sb.shard_cnt = 3 * SLOTS_V3;
    sb.hot_table_size = 3 * BLOCK_SIZE;
    sb.extent_cnt = 4 * SLOTS_V3;
    sb.block_cnt = blocks;
    set_geometry(sb);
    return sb;
}

BrickV3 brick_v3_used(std::uint32_t no)
{
    BrickV3 brick;
    const std::uint32_t magic = brick.magic;
    static_cast<BrickV1 &>(brick) = brick_used(no);
    brick.magic = magic;
    return brick;
}

InodeV3 inode_v3_used(std::uint32_t no, std::uint32_t brick_no)
{
    InodeV3 inode;
    const std::uint32_t magic = inode.magic;
    static_cast<InodeV2 &>(inode) = inode_v2_used(no, brick_no);
    inode.magic = magic;
    return inode;
}

Block encode(const SuperV3 &sb)
{
    Block block{};
    put_fields(block, model(3, "super"), SUPER_MEMBERS, sb);
    seal(model(3, "super"), block, SuperV3::LENGTH, sb.checksum);
    return block;
}

SuperV3 decode_super_v3(const Block &block)
{
    SuperV3 sb;
    get_fields(block, model(3, "super"), SUPER_MEMBERS, sb);
    return sb;
}

Block encode(const ShardBlockV3 &packed)
{
    Block block{};
    put_u32(block, 4, packed.magic);
    put_words(block, block_table<ShardTable>(), packed);
    seal(model(3, "shard"), block, BLOCK_SIZE, packed.checksum);
    return block;
}

ShardBlockV3 decode_shards(const Block &block)
{
    ShardBlockV3 packed{.magic = get_u32(block, 4)};
    get_words(block, block_table<ShardTable>(), 1, packed);
    return packed;
}

Block encode(const ExtentBlockV3 &packed)
{
    Block block{};
    put_words(block, block_table<ExtentTable>(), packed);
    seal(model(3, "extent"), block, BLOCK_SIZE, packed.checksum);
    return block;
}

ExtentBlockV3 decode_extents(const Block &block)
{
    ExtentBlockV3 packed;
    get_words(block, block_table<ExtentTable>(), 2, packed);
    return packed;
}

std::uint32_t extent_block_crc(const Block &block)
{
    return computed_checksum(model(3, "extent"), block, BLOCK_SIZE);
}

std::uint32_t extent_block_checksum(const Block &block)
{
    return stored_checksum(model(3, "extent"), block);
}

std::int64_t brick_offset(const SuperV3 &sb, std::uint64_t no)
{
    return block_offset(sb.brick_table_offset, no);
}

std::int64_t inode_offset(const SuperV3 &sb, std::uint64_t no)
{
    return block_offset(sb.inode_table_offset, no);
}

std::int64_t shard_offset(const SuperV3 &sb, std::uint64_t block)
{
    return block_offset(sb.shard_table_offset, block);
}

std::int64_t extent_offset(const SuperV3 &sb, std::uint64_t block)
{
    return block_offset(sb.extent_table_offset, block);
}

std::int64_t hot_offset(const SuperV3 &sb, std::uint64_t block)
{
    return block_offset(sb.hot_table_offset, block);
}

std::string json(const SuperV3 &sb) { return entry_text(model(3, "super"), {}, encode(sb), 0); }

Device make_v3_device(const SuperV3 &sb, const std::vector<BrickV3> &bricks,
                      const std::vector<InodeV3> &inodes,
                      const std::map<std::uint64_t, ShardBlockV3> &shards,
                      const std::map<std::uint64_t, ExtentBlockV3> &extents)
{
    Device device(sb.data_offset + sb.data_size);
    put_block(device, SUPER_OFFSET, encode(sb));
    put_entries(device, sb.brick_table_offset, sb.brick_cnt, bricks);
    put_entries(device, sb.inode_table_offset, sb.inode_cnt, inodes);
    put_packed(device, sb.shard_table_offset, sb.shard_cnt, shards);
    put_packed(device, sb.extent_table_offset, sb.extent_cnt, extents);
    device.write(sb.hot_table_offset, std::vector<std::uint8_t>(sb.hot_table_size, 0xA5));
    return device;
}

} // namespace tier_test
