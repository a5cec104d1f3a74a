#pragma once

// Devices of layout version 3, and their entries as structures.

#include "v2_device.h"

#include <map>
#include <string>
#include <vector>

namespace tier_test {

struct SuperV3 {
    static constexpr std::size_t LENGTH = 264;

    std::uint32_t magic = 0xCACBDCBD;
    std::uint64_t sb_offset = 4096;
    std::uint64_t size = 0x100000; // of the super block area
    std::uint64_t reserved_offset = 0;
    std::uint64_t reserved_size = 0;
    std::uint64_t ctime = 1'600'000'000'123'456'789U;
    Uuid uuid = numbered_uuid(0x53);
    std::string ssd_uuid = "Ab3cd9-EfGh-1234-IjKl-5678-MnOp-QrStU6"; // 38 characters
    std::uint32_t version = 0x30000;
    std::uint32_t reserved = 0;
    std::uint64_t brick_table_offset = 0;
    std::uint64_t brick_table_size = 0;
    std::uint64_t brick_cnt = 0;
    std::uint64_t inode_table_offset = 0;
    std::uint64_t inode_table_size = 0;
    std::uint64_t inode_cnt = 0;
    std::uint64_t shard_table_offset = 0;
    std::uint64_t shard_table_size = 0;
    std::uint64_t shard_cnt = 0;
    std::uint64_t extent_table_offset = 0;
    std::uint64_t extent_table_size = 0;
    std::uint64_t extent_cnt = 0;
    std::uint64_t hot_table_offset = 0;
    std::uint64_t hot_table_size = 0;
    std::uint64_t data_offset = 0;
    std::uint64_t data_size = 0;
    std::uint64_t block_size = 8192;
    std::uint64_t block_cnt = 0;
    StoredChecksum checksum{};
};

// Three blocks of shards, three of the hot table and four of extents.
SuperV3 super_v3(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks = 4);

// The sizes that belong to the counts of `sb`, and offsets at which the areas lie one after the
// other: bricks, inodes, shards, hot table, extents, data, with GAP_V3 bytes before each.
constexpr std::uint64_t GAP_V3 = 2 * BLOCK_SIZE;
void set_geometry(SuperV3 &sb);

struct BrickV3 : BrickV1 {
    BrickV3() { magic = 0x42584B69; }
};

struct InodeV3 : InodeV2 {
    InodeV3() { magic = 0x498E4F54; }
};

// One word of a shard block. The slots 1..511 hold shards.
struct ShardV3 {
    std::uint32_t slot = 1;
    std::uint32_t ino = 0;      // 18 bits
    std::uint32_t in_use = 1;   // 1 bit
    std::uint32_t reserved = 0; // 13 bits
    std::uint32_t index = 0;
};

// Slots that are not given are zero.
struct ShardBlockV3 {
    std::uint32_t magic = 0x2183BA9D;
    std::vector<ShardV3> shards{};
    StoredChecksum checksum{};
};

// One word of an extent block. The slots 0..511 hold extents.
struct ExtentV3 {
    std::uint32_t slot = 0;
    std::uint32_t lba = 0;      // 19 bits
    std::uint32_t shard = 0;    // 19 bits
    std::uint32_t dirty = 0;    // 1 bit
    std::uint32_t bitmap = 0;   // 16 bits
    std::uint32_t in_use = 1;   // 1 bit
    std::uint32_t sense = 0;    // 4 bits
    std::uint32_t demote = 0;   // 1 bit
    std::uint32_t dm_err = 0;   // 1 bit
    std::uint32_t reserved = 0; // 1 bit
};

// Slots that are not given are zero.
struct ExtentBlockV3 {
    std::vector<ExtentV3> extents{};
    StoredChecksum checksum{};
};

// Entries in use with every field different from zero.
BrickV3 brick_v3_used(std::uint32_t no);
InodeV3 inode_v3_used(std::uint32_t no, std::uint32_t brick_no);

// Bricks and inodes are encoded as in version 2. Of shards and extents the low bits of each field
// are stored.
Block encode(const SuperV3 &sb);
Block encode(const ShardBlockV3 &block);
Block encode(const ExtentBlockV3 &block);

// Whatever its checksum is. Bricks and inodes are read as those of V1 and V2. Of packed blocks the
// words that are not zero are given.
SuperV3 decode_super_v3(const Block &block);
ShardBlockV3 decode_shards(const Block &block);
ExtentBlockV3 decode_extents(const Block &block);

// The checksum that belongs to the content of a block of extents, and the one that its words carry
// in their lowest bits.
std::uint32_t extent_block_crc(const Block &block);
std::uint32_t extent_block_checksum(const Block &block);

// The places of entries, and of blocks of the packed tables.
std::int64_t brick_offset(const SuperV3 &sb, std::uint64_t no);
std::int64_t inode_offset(const SuperV3 &sb, std::uint64_t no);
std::int64_t shard_offset(const SuperV3 &sb, std::uint64_t block);
std::int64_t extent_offset(const SuperV3 &sb, std::uint64_t block);
std::int64_t hot_offset(const SuperV3 &sb, std::uint64_t block);

// The text of the dumped super block, without a line end. Bricks and inodes have the lines of
// version 2.
std::string json(const SuperV3 &sb);

// An image up to the end of the data area. Each given entry lies in the slot of its number, and
// each given block in its place; the other slots and blocks are free and valid. The hot table is
// full of bytes that are not zero.
Device make_v3_device(const SuperV3 &sb, const std::vector<BrickV3> &bricks = {},
                      const std::vector<InodeV3> &inodes = {},
                      const std::map<std::uint64_t, ShardBlockV3> &shards = {},
                      const std::map<std::uint64_t, ExtentBlockV3> &extents = {});

} // namespace tier_test
