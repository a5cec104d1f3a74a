#pragma once

// What the tests of every layout need: super blocks and devices by the number of entries.

#include "v3_device.h"

#include <utility>
#include <vector>

namespace tier_test {

template <class Super>
struct Layout;

// Super blocks whose tables lie elsewhere than usual, within the same device. A table need not be
// as large as its count asks for. In the last of them brick 1 would lie over the super block.
template <class Super>
std::vector<Super> displaced_heads(const Super &usual)
{
    Super resized = usual;
    resized.size = 0x80000;
    resized.brick_table_size += 3 * BLOCK_SIZE;
    resized.inode_table_size -= 5 * BLOCK_SIZE;

    // The super block area's size and its first block are added in 32 bits.
    Super wrapped = usual;
    wrapped.size = 0xFFFFF000;
    wrapped.brick_table_size = MIB;
    return {resized, wrapped};
}

template <>
struct Layout<SuperV1> {
    static constexpr const char *NAME = "V1";
    static constexpr const char *VERSION = "1"; // as the option -v takes it

    static SuperV1 super(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
    {
        return super_v1(bricks, inodes, blocks);
    }
    static SuperV1 decoded(const Block &block) { return decode_super(block); }
    static Device device(const SuperV1 &super) { return make_v1_device(super); }
    static std::vector<SuperV1> displaced(const SuperV1 &usual) { return displaced_heads(usual); }
};

template <>
struct Layout<SuperV2> {
    static constexpr const char *NAME = "V2";
    static constexpr const char *VERSION = "2";

    static SuperV2 super(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
    {
        return super_v2(bricks, inodes, blocks);
    }
    static SuperV2 decoded(const Block &block) { return decode_super_v2(block); }
    static Device device(const SuperV2 &super) { return make_v2_device(super); }
    static std::vector<SuperV2> displaced(const SuperV2 &usual) { return displaced_heads(usual); }
};

template <>
struct Layout<SuperV3> {
    static constexpr const char *NAME = "V3";
    static constexpr const char *VERSION = "3";

    static SuperV3 super(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
    {
        return super_v3(bricks, inodes, blocks);
    }
    static SuperV3 decoded(const Block &block) { return decode_super_v3(block); }
    static Device device(const SuperV3 &super) { return make_v3_device(super); }
    static std::vector<SuperV3> displaced(const SuperV3 &usual)
    {
        SuperV3 swapped = usual;
        std::swap(swapped.brick_table_offset, swapped.inode_table_offset);

        // The place and the size of the super block area do not matter.
        SuperV3 apart = usual;
        apart.sb_offset = apart.size = 1;
        apart.brick_table_offset = 2 * BLOCK_SIZE;
        apart.inode_table_offset = usual.data_offset;
        return {swapped, apart};
    }
};

} // namespace tier_test
