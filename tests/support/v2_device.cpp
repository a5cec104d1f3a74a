#include "v2_device.h"

#include "records.h"

#include <algorithm>
#include <iterator>

namespace tier_test {

namespace {

// Of the fields after the head, and of an inode's last two.
const RecordMembers<SuperV2> SUPER_MEMBERS{&SuperV2::exp_magic,      std::monostate(),
                                           &SuperV2::exp_inuse,      &SuperV2::exp_area,
                                           &SuperV2::min_alloc_size, &SuperV2::total_map_size,
                                           &SuperV2::map_cnt,        &SuperV2::size_mapped_meta,
                                           &SuperV2::hot_size,       &SuperV2::total_extent_size};

// The table without the fields that V1 also has.
TableModel rest_of_super()
{
    TableModel rest = model(2, "super");
    rest.fields.erase(rest.fields.begin() + 1, rest.fields.begin() + 16);
    return rest;
}

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

std::uint32_t expansion_count(const SuperV2 &sb) { return sb.exp_area * EXPANSION_UNIT; }

InodeV2 inode_v2(std::uint32_t no) { return {{.no = no}}; }

ExtentV2 extent_v2(std::uint64_t no) { return {{.no = no}}; }

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
    static const TableModel REST = rest_of_super();
    Block block = encode_head(sb);
    put_fields(block, REST, SUPER_MEMBERS, sb);
    seal(REST, block, SuperV2::LENGTH, sb.checksum);
    return block;
}

SuperV2 decode_super_v2(const Block &block)
{
    SuperV2 sb;
    decode_head(block, sb);
    get_fields(block, rest_of_super(), SUPER_MEMBERS, sb);
    return sb;
}

Block encode(const InodeV2 &inode)
{
    Block block = encode(static_cast<const InodeV1 &>(inode));
    put_u64(block, 80, inode.new_data);
    put_u64(block, 88, inode.blocks);
    seal(model(2, "inode"), block, InodeV2::LENGTH, inode.checksum);
    return block;
}

InodeV2 decode_inode_v2(const Block &block)
{
    InodeV2 inode{decode_inode(block)};
    inode.new_data = inode.reserved1;
    inode.blocks = inode.reserved2;
    return inode;
}

Block encode(const ExtentV2 &extent, const SuperV2 &sb)
{
    Block block = encode_head(extent, sb.extent_size);
    for (const auto &[mapno, meta] : extent.maps) {
        const std::size_t at = sb.extent_size + PIECE_LENGTH * mapno;
        put_u64(block, at, meta.offset);
        put_u32(block, at + 8, (meta.clean & 1U) | meta.orig_len << 1);
        put_u16(block, at + 12, meta.begin);
        put_u16(block, at + 14, meta.cnt);
    }
    put_bytes(block, sb.extent_size + sb.total_map_size, extent.hot_area);
    seal(model(2, "extent"), block, sb.total_extent_size, extent.checksum);
    return block;
}

ExtentV2 decode_extent_v2(const Block &block, const SuperV2 &sb)
{
    ExtentV2 extent{decode_extent(block, sb.extent_size)};
    for (std::uint32_t mapno = 0; mapno < sb.map_cnt; ++mapno) {
        const std::size_t at = sb.extent_size + PIECE_LENGTH * mapno;
        const std::uint32_t word = get_u32(block, at + 8);
        if (word > 1)
            extent.maps[mapno] = {get_u64(block, at), word & 1U, word >> 1, get_u16(block, at + 12),
                                  get_u16(block, at + 14)};
    }
    const auto hot = block.begin() + sb.extent_size + sb.total_map_size;
    extent.hot_area.assign(hot, hot + sb.hot_size);
    return extent;
}

std::int64_t inode_offset(const SuperV2 &sb, std::uint32_t no)
{
    return slot_offset(model(2, "inode"), encode(sb), no);
}

std::int64_t expansion_offset(const SuperV2 &sb, std::uint64_t slot)
{
    return expansion_start(encode(sb)) + static_cast<std::int64_t>(slot * BLOCK_SIZE);
}

std::string json(const SuperV2 &sb) { return entry_text(model(2, "super"), {}, encode(sb), 0); }

std::string json(const InodeV2 &inode, std::int64_t offset)
{
    return entry_text(model(2, "inode"), {}, encode(inode), offset);
}

std::string json(const ExtentV2 &extent, const SuperV2 &sb, std::int64_t offset)
{
    return entry_text(model(2, "extent"), encode(sb), encode(extent, sb), offset);
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
