#include "v2_device.h"

#include <algorithm>
#include <iterator>

namespace tier_test {

namespace {

constexpr std::size_t MAP_LENGTH = 16;

std::uint64_t image_end(const SuperV2 &sb)
{
    const std::uint32_t expansion = expansion_count(sb);
    return static_cast<std::uint64_t>(expansion != 0 ? expansion_offset(sb, expansion)
                                                     : extent_offset(sb, sb.block_cnt));
}

// One write for each MiB: an area has 25600 slots and more.
void format_expansion(Device &device, const SuperV2 &sb)
{
    constexpr std::uint32_t CHUNK = MIB / BLOCK_SIZE;
    const std::uint32_t count = expansion_count(sb);
    for (std::uint32_t slot = 0; slot < count; slot += CHUNK) {
        std::vector<std::uint8_t> chunk;
        for (std::uint32_t i = slot; i < std::min(count, slot + CHUNK); ++i)
            std::ranges::copy(encode(inode_v2(sb.inode_cnt + i)), std::back_inserter(chunk));
        device.write(static_cast<std::uint64_t>(expansion_offset(sb, slot)), chunk);
    }
}

} // namespace

SuperV2 super_v2(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
{
    SuperV2 sb;
    sb.brick_cnt = bricks;
    sb.inode_cnt = inodes;
    sb.block_cnt = blocks;
    set_geometry(sb);
    return sb;
}

void set_maps(SuperV2 &sb, std::uint32_t map_cnt)
{
    sb.map_cnt = map_cnt;
    sb.total_map_size = map_cnt * sb.size_mapped_meta;
    sb.total_extent_size = sb.extent_size + sb.total_map_size + sb.hot_size;
}

void set_expansion(SuperV2 &sb, std::uint32_t inodes, bool in_use)
{
    sb.exp_magic = 0x4558;
    sb.exp_area = static_cast<std::uint8_t>(inodes / EXPANSION_UNIT);
    sb.exp_inuse = in_use ? 0x53 : 0;
}

std::uint32_t expansion_count(const SuperV2 &sb)
{
    return sb.exp_area * EXPANSION_UNIT;
}

InodeV2 inode_v2(std::uint32_t no)
{
    return {{.no = no}};
}

ExtentV2 extent_v2(std::uint64_t no)
{
    return {{.no = no}};
}

InodeV2 inode_v2_used(std::uint32_t no, std::uint32_t brick_no)
{
    InodeV2 inode{inode_used(no, brick_no)};
    inode.new_data = 0x8000'0000'0000'0003U + no;
    inode.blocks = 0xFFFF'FFFF'FFFF'FFF0U - no;
    return inode;
}

ExtentV2 extent_v2_used(std::uint64_t no, std::uint32_t inode_no)
{
    ExtentV2 extent{extent_used(no, inode_no)};
    extent.maps[0] = {0xFFFF'FFFF'FFFF'0000U + no, 1, 32768, 0, 8};
    extent.maps[2] = {0x8000'0000'0000'0000U + no, 0, 1, 0xFFFF, 0xFFFE};
    extent.maps[3] = {4096, 1, 1048576, 24, 0x8001};
    for (std::uint8_t byte = 1; byte <= 64; ++byte)
        extent.hot_area.push_back(byte);
    return extent;
}

Block encode(const SuperV2 &sb)
{
    Block block = encode_head(sb);
    put_u16(block, 140, sb.exp_magic);
    put_u8(block, 142, sb.exp_area);
    put_u8(block, 143, sb.exp_inuse);
    put_u32(block, 144, sb.min_alloc_size);
    put_u32(block, 148, sb.total_map_size);
    put_u32(block, 152, sb.map_cnt);
    put_u32(block, 156, sb.size_mapped_meta);
    put_u32(block, 160, sb.hot_size);
    put_u32(block, 164, sb.total_extent_size);
    store_checksum(block, SuperV2::LENGTH, sb.checksum);
    return block;
}

Block encode(const InodeV2 &inode)
{
    Block block = encode(static_cast<const InodeV1 &>(inode));
    put_u64(block, 80, inode.new_data);
    put_u64(block, 88, inode.blocks);
    store_checksum(block, InodeV2::LENGTH, inode.checksum);
    return block;
}

Block encode(const ExtentV2 &extent, const SuperV2 &sb)
{
    Block block = encode_head(extent, sb.extent_size);
    for (const auto &[mapno, meta] : extent.maps) {
        const std::size_t at = sb.extent_size + MAP_LENGTH * mapno;
        put_u64(block, at, meta.offset);
        put_u32(block, at + 8, (meta.clean & 1U) | meta.orig_len << 1);
        put_u16(block, at + 12, meta.begin);
        put_u16(block, at + 14, meta.cnt);
    }
    put_bytes(block, sb.extent_size + sb.total_map_size, extent.hot_area);
    store_checksum(block, sb.total_extent_size, extent.checksum);
    return block;
}

std::int64_t inode_offset(const SuperV2 &sb, std::uint32_t no)
{
    if (no >= sb.inode_cnt)
        return expansion_offset(sb, no - sb.inode_cnt);
    return inode_offset(static_cast<const SuperHead &>(sb), no);
}

std::int64_t expansion_offset(const SuperV2 &sb, std::uint64_t slot)
{
    return static_cast<std::int64_t>(sb.data_offset + std::uint64_t{sb.block_size} * sb.block_cnt +
                                     MIB + slot * BLOCK_SIZE);
}

std::string json(const SuperV2 &sb)
{
    return json_head(
        sb, get_u32(encode(sb), 0),
        text("\"exp_inode_magic\":\"0x%x\",\"exp_inode_cnt\":%u,\"exp_inode_inuse\":\"0x%x\","
             "\"sb_inode_exp_area\":%u,\"min_alloc_size\":%u,\"total_map_size\":%u,"
             "\"map_cnt\":%u,\"size_mapped_meta\":%u,\"hot_size\":%u,\"total_extent_size\":%u}",
             sb.exp_magic, expansion_count(sb), sb.exp_inuse, sb.exp_area, sb.min_alloc_size,
             sb.total_map_size, sb.map_cnt, sb.size_mapped_meta, sb.hot_size,
             sb.total_extent_size));
}

std::string json(const InodeV2 &inode, std::int64_t offset)
{
    return json_head(inode, get_u32(encode(inode), 0),
                     text("\"new_data\":%lu,\"blocks\":%lu,\"meta_offset\":%ld}", inode.new_data,
                          inode.blocks, offset));
}

std::string json(const ExtentV2 &extent, const SuperV2 &sb, std::int64_t offset)
{
    std::string maps;
    for (const auto &[mapno, meta] : extent.maps)
        if (meta.orig_len != 0)
            maps +=
                text("%s{\"offset\":%lu,\"clean\":%u,\"orig_len\":%u,\"begin\":%hu,"
                     "\"cnt\":%hu,\"mapno\":%u,\"data_phy_offset\":%lu}",
                     maps.empty() ? "" : ",", meta.offset, meta.clean & 1U, meta.orig_len,
                     meta.begin, meta.cnt, mapno,
                     sb.data_offset + extent.no * sb.block_size + std::uint64_t{meta.begin} * 4096);
    return json_head(extent, get_u32(encode(extent, sb), 0)) +
           text("\"meta_offset\": %ld,\"te_mapped_meta\":[%s]}", offset, maps.c_str());
}

Device make_v2_device(const SuperV2 &sb, const std::vector<BrickV2> &bricks,
                      const std::vector<InodeV2> &inodes, const std::vector<ExtentV2> &extents,
                      Expansion expansion)
{
    Device device(image_end(sb));
    put_block(device, SUPER_OFFSET, encode(sb));
    put_bricks(device, sb, bricks);
    for (std::uint32_t no = 0; no < sb.inode_cnt; ++no)
        put_block(device, inode_offset(sb, no), encode(inode_v2(no)));
    if (expansion == Expansion::FORMATTED)
        format_expansion(device, sb);
    for (const InodeV2 &inode : inodes)
        put_block(device, inode_offset(sb, inode.no), encode(inode));
    for (std::uint32_t no = 0; no < sb.block_cnt; ++no)
        put_block(device, extent_offset(sb, no), encode(extent_v2(no), sb));
    for (const ExtentV2 &extent : extents)
        put_block(device, extent_offset(sb, extent.no), encode(extent, sb));
    return device;
}

} // namespace tier_test
