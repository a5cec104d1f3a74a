#pragma once

// Devices of layout version 2, and their entries as structures.

#include "v1_device.h"

#include <map>

namespace tier_test {

struct SuperV2 : SuperHead {
    static constexpr std::size_t LENGTH = 168;

    SuperV2() : SuperHead{.version = 0x20000} {}

    std::uint16_t exp_magic = 0;
    std::uint8_t exp_area = 0;
    std::uint8_t exp_inuse = 0;
    std::uint32_t min_alloc_size = 32768;
    std::uint32_t total_map_size = 512;
    std::uint32_t map_cnt = 32;
    std::uint32_t size_mapped_meta = 16;
    std::uint32_t hot_size = 64;
    std::uint32_t total_extent_size = 648;
};

// A super block whose sizes and offsets follow from its counts.
SuperV2 super_v2(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks);

// The number of mapped-meta records and the sizes that belong to it and to the extent size.
void set_maps(SuperV2 &sb, std::uint32_t map_cnt);

// An expansion inode area of so many inodes, a multiple of EXPANSION_UNIT.
void set_expansion(SuperV2 &sb, std::uint32_t inodes, bool in_use);
std::uint32_t expansion_count(const SuperV2 &sb);

using BrickV2 = BrickV1;

// `reserved1` and `reserved2` have given way to the new fields.
struct InodeV2 : InodeV1 {
    std::uint64_t new_data = 0;
    std::uint64_t blocks = 0;
};

struct MappedMeta {
    std::uint64_t offset = 0;
    std::uint32_t clean = 0;
    std::uint32_t orig_len = 0;
    std::uint16_t begin = 0;
    std::uint16_t cnt = 0;
};

struct ExtentV2 : ExtentV1 {
    std::map<std::uint32_t, MappedMeta> maps{}; // by map number
    std::vector<std::uint8_t> hot_area{};       // bytes not given are zero
};

// Free entries of that number.
InodeV2 inode_v2(std::uint32_t no);
ExtentV2 extent_v2(std::uint64_t no);

// Entries in use with every field different from zero; a brick is `brick_used` of version 1. The
// extent has the map records 0, 2 and 3, and nothing in 1.
InodeV2 inode_v2_used(std::uint32_t no, std::uint32_t brick_no);
ExtentV2 extent_v2_used(std::uint64_t no, std::uint32_t inode_no);

Block encode(const SuperV2 &sb);
Block encode(const InodeV2 &inode);
Block encode(const ExtentV2 &extent, const SuperV2 &sb);

// Whatever its checksum is.
SuperV2 decode_super_v2(const Block &block);
InodeV2 decode_inode_v2(const Block &block);
ExtentV2 decode_extent_v2(const Block &block, const SuperV2 &sb);

// The place of a regular or an expansion inode; bricks and extents lie as in version 1.
std::int64_t inode_offset(const SuperV2 &sb, std::uint32_t no);
std::int64_t expansion_offset(const SuperV2 &sb, std::uint64_t slot);

// The text of one dumped entry, without a line end.
std::string json(const SuperV2 &sb);
std::string json(const InodeV2 &inode, std::int64_t offset);
std::string json(const ExtentV2 &extent, const SuperV2 &sb, std::int64_t offset);

// Which slots of the expansion area hold valid inodes.
enum class Expansion {
    FORMATTED, // all: those that are not given are free
    SPARSE,    // only the given ones; the others are never written
};

// An image up to the end of the extent table, or of the expansion inode area when there is one.
// Each given entry lies in the slot of its number; the other slots of the tables hold free valid
// entries.
Device make_v2_device(const SuperV2 &sb, const std::vector<BrickV2> &bricks = {},
                      const std::vector<InodeV2> &inodes = {},
                      const std::vector<ExtentV2> &extents = {},
                      Expansion expansion = Expansion::SPARSE);

} // namespace tier_test
