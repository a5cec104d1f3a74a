#include "v3_device.h"

namespace tier_test {

namespace {

constexpr std::uint32_t CRC_BITS = 32;
constexpr std::uint64_t WORD = 8;

// The low bits of a field, at its place in a word.
std::uint64_t bits(std::uint64_t value, unsigned width, unsigned shift)
{
    return (value & ((std::uint64_t{1} << width) - 1)) << shift;
}

std::uint64_t word(const ExtentV3 &extent)
{
    return bits(extent.lba, 19, 1) | bits(extent.shard, 19, 20) | bits(extent.dirty, 1, 39) |
           bits(extent.bitmap, 16, 40) | bits(extent.in_use, 1, 56) | bits(extent.sense, 4, 57) |
           bits(extent.demote, 1, 61) | bits(extent.dm_err, 1, 62) | bits(extent.reserved, 1, 63);
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
    put_u32(block, 4, sb.magic);
    put_u64(block, 8, sb.sb_offset);
    put_u64(block, 16, sb.size);
    put_u64(block, 24, sb.reserved_offset);
    put_u64(block, 32, sb.reserved_size);
    put_u64(block, 40, sb.ctime);
    put_bytes(block, 48, sb.uuid);
    put_text(block, 64, sb.ssd_uuid);
    put_u32(block, 112, sb.version);
    put_u32(block, 116, sb.reserved);
    put_u64(block, 120, sb.brick_table_offset);
    put_u64(block, 128, sb.brick_table_size);
    put_u64(block, 136, sb.brick_cnt);
    put_u64(block, 144, sb.inode_table_offset);
    put_u64(block, 152, sb.inode_table_size);
    put_u64(block, 160, sb.inode_cnt);
    put_u64(block, 168, sb.shard_table_offset);
    put_u64(block, 176, sb.shard_table_size);
    put_u64(block, 184, sb.shard_cnt);
    put_u64(block, 192, sb.extent_table_offset);
    put_u64(block, 200, sb.extent_table_size);
    put_u64(block, 208, sb.extent_cnt);
    put_u64(block, 216, sb.hot_table_offset);
    put_u64(block, 224, sb.hot_table_size);
    put_u64(block, 232, sb.data_offset);
    put_u64(block, 240, sb.data_size);
    put_u64(block, 248, sb.block_size);
    put_u64(block, 256, sb.block_cnt);
    store_checksum(block, SuperV3::LENGTH, sb.checksum);
    return block;
}

Block encode(const ShardBlockV3 &packed)
{
    Block block{};
    put_u32(block, 4, packed.magic);
    for (const ShardV3 &shard : packed.shards)
        put_u64(block, WORD * shard.slot,
                bits(shard.ino, 18, 0) | bits(shard.in_use, 1, 18) | bits(shard.reserved, 13, 19) |
                    bits(shard.index, 32, 32));
    store_checksum(block, BLOCK_SIZE, packed.checksum);
    return block;
}

Block encode(const ExtentBlockV3 &packed)
{
    Block block{};
    for (const ExtentV3 &extent : packed.extents)
        put_u64(block, WORD * extent.slot, word(extent));
    const std::uint32_t checksum = packed.checksum.value_or(crc32(block));
    for (std::uint32_t bit = 0; bit < CRC_BITS; ++bit)
        block[WORD * bit] = static_cast<std::uint8_t>(block[WORD * bit] | (checksum >> bit & 1U));
    return block;
}

std::uint32_t extent_block_crc(const Block &block)
{
    Block bare = block;
    for (std::uint32_t bit = 0; bit < CRC_BITS; ++bit)
        bare[WORD * bit] &= 0xFE;
    return crc32(bare);
}

std::uint32_t extent_block_checksum(const Block &block)
{
    std::uint32_t checksum = 0;
    for (std::uint32_t bit = 0; bit < CRC_BITS; ++bit)
        checksum |= (block[WORD * bit] & 1U) << bit;
    return checksum;
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

std::string json(const SuperV3 &sb)
{
    return text(
        "{\"checksum\":\"0x%x\",\"magic\":\"0x%x\",\"sb_offset\":%lu,\"super block size\":%lu,"
        "\"reserved_offset\":%lu,\"reserved_size\":%lu,\"ctime\":\"0x%lx(%s)\",\"uuid\":\"%s\","
        "\"ssd_uuid\":\"%s\",\"version\":\"0x%x\",\"reserved\":%u,\"brick_table_offset\":%lu,"
        "\"brick_table_size\":%lu,\"brick_cnt\":%lu,\"inode_table_offset\":%lu,"
        "\"inode_table_size\":%lu,\"inode_cnt\":%lu,\"shard_table_offset\":%lu,"
        "\"shard_table_size\":%lu,\"shard_table_cnt\":%lu,\"extent_table_offset\":%lu,"
        "\"extent_table_size\":%lu,\"extent_table_cnt\":%lu,\"hot_table_offset\":%lu,"
        "\"hot_table_size\":%lu,\"data_offset\":%lu,\"data_table_size\":%lu,\"block_size\":%lu,"
        "\"block_cnt\":%lu}",
        get_u32(encode(sb), 0), sb.magic, sb.sb_offset, sb.size, sb.reserved_offset,
        sb.reserved_size, sb.ctime, time_text(sb.ctime).c_str(), uuid_text(sb.uuid).c_str(),
        sb.ssd_uuid.c_str(), sb.version, sb.reserved, sb.brick_table_offset, sb.brick_table_size,
        sb.brick_cnt, sb.inode_table_offset, sb.inode_table_size, sb.inode_cnt,
        sb.shard_table_offset, sb.shard_table_size, sb.shard_cnt, sb.extent_table_offset,
        sb.extent_table_size, sb.extent_cnt, sb.hot_table_offset, sb.hot_table_size, sb.data_offset,
        sb.data_size, sb.block_size, sb.block_cnt);
}

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
