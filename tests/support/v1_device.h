#pragma once

// Devices of layout version 1, and their entries as structures.

#include "device.h"
#include "model.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tier_test {

// A checksum given here is stored in place of the right one.
using StoredChecksum = std::optional<std::uint32_t>;

// The fields that the super blocks of layout versions 1 and 2 have in common.
struct SuperHead {
    std::uint32_t magic = 0xCACBCCCD;
    std::uint64_t brick_table_size = 0;
    std::uint64_t inode_table_size = 0;
    std::uint64_t extent_table_size = 0;
    std::uint64_t data_offset = 0;
    std::uint64_t ctime = 1'600'000'000'123'456'789U;
    Uuid uuid = numbered_uuid(0x51);
    std::string ssd_uuid = "Ab3cd9-EfGh-1234-IjKl-5678-MnOp-QrStU6"; // 38 characters
    std::uint32_t version = 0;
    std::uint32_t size = 0x100000;
    std::uint32_t brick_cnt = 0;
    std::uint32_t inode_cnt = 0;
    std::uint32_t block_size = 1048576;
    std::uint32_t block_cnt = 0;
    std::uint32_t extent_size = 72;
    StoredChecksum checksum{};
};

struct SuperV1 : SuperHead {
    static constexpr std::size_t LENGTH = 144;

    SuperV1() : SuperHead{.version = 0x10000} {}

    std::uint32_t reserved = 0;
};

// A super block whose sizes and offsets follow from its counts.
SuperV1 super_v1(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks);

// The sizes and the data offset that belong to the counts of `sb`.
void set_geometry(SuperHead &sb);

struct BrickV1 {
    static constexpr std::size_t LENGTH = 168;

    std::uint32_t magic = 0x42524B49;
    std::uint32_t use = 0;
    std::uint32_t no = 0;
    Uuid uuid{};
    std::string brickid{};
    std::uint32_t unlink = 0;
    std::uint32_t reserved = 0;
    StoredChecksum checksum{};
};

struct InodeV1 {
    static constexpr std::size_t LENGTH = 96;

    std::uint32_t magic = 0x494E4F44;
    std::uint64_t atime = 0;
    std::uint64_t ctime = 0;
    std::uint64_t mtime = 0;
    std::uint64_t dtime = 0;
    Uuid uuid{};
    std::uint64_t size = 0;
    std::uint32_t priority = 0;
    std::uint32_t no = 0;
    std::uint32_t brick_no = 0;
    std::uint16_t unlink = 0;
    std::uint16_t use = 0;
    std::uint64_t reserved1 = 0;
    std::uint64_t reserved2 = 0;
    StoredChecksum checksum{};
};

struct ExtentV1 {
    static constexpr std::size_t HEAD_LENGTH = 56;

    std::uint32_t block = 0;
    std::uint64_t size = 0;
    std::uint32_t inode_no = 0;
    std::uint32_t sampling_low = 0; // as shown; its four bytes are stored in reverse
    std::uint32_t sampling_mid = 0;
    std::uint32_t sampling_high = 0;
    std::uint16_t use = 0;
    std::uint16_t clean = 0;
    std::uint32_t ntime = 0;
    std::uint64_t hot = 0;
    std::uint64_t no = 0;
    std::vector<std::uint64_t> bitmap{}; // words not given are zero
    StoredChecksum checksum{};
};

// Entries in use with every field different from zero; `brick_used` has a path of 93 characters.
BrickV1 brick_used(std::uint32_t no);
InodeV1 inode_used(std::uint32_t no, std::uint32_t brick_no);
ExtentV1 extent_used(std::uint64_t no, std::uint32_t inode_no);

Block encode(const SuperV1 &sb);
Block encode(const BrickV1 &brick);
Block encode(const InodeV1 &inode);
Block encode(const ExtentV1 &extent, std::uint32_t extent_size);

std::int64_t brick_offset(const SuperHead &sb, std::uint64_t no);
std::int64_t inode_offset(const SuperHead &sb, std::uint64_t no);
std::int64_t extent_offset(const SuperHead &sb, std::uint64_t no);

// The text of one dumped entry, without a line end.
std::string json(const SuperV1 &sb);
std::string json(const BrickV1 &brick, std::int64_t offset);
std::string json(const InodeV1 &inode, std::int64_t offset);
std::string json(const ExtentV1 &extent, std::uint32_t extent_size, std::int64_t offset);

// An image up to the end of the extent table. Each given entry lies in the slot of its number; the
// other slots hold free valid entries.
Device make_v1_device(const SuperV1 &sb, const std::vector<BrickV1> &bricks = {},
                      const std::vector<InodeV1> &inodes = {},
                      const std::vector<ExtentV1> &extents = {});

void put_block(Device &device, std::int64_t offset, const Block &block);

// Whatever its checksum is.
SuperV1 decode_super(const Block &block);
BrickV1 decode_brick(const Block &block);
InodeV1 decode_inode(const Block &block);
ExtentV1 decode_extent(const Block &block, std::uint32_t extent_size);

// What devices of layout version 2 have in common with those of version 1.

// Without a checksum.
Block encode_head(const SuperHead &sb);
Block encode_head(const ExtentV1 &extent, std::uint32_t extent_size);
void decode_head(const Block &block, SuperHead &sb);

void put_bricks(Device &device, const SuperHead &sb, const std::vector<BrickV1> &bricks);

} // namespace tier_test
