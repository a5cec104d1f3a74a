#include "v1_device.h"

#include "records.h"

namespace tier_test {

namespace {

const RecordMembers<SuperHead> HEAD_MEMBERS{
    &SuperHead::magic,
    &SuperHead::brick_table_size,
    &SuperHead::inode_table_size,
    &SuperHead::extent_table_size,
    &SuperHead::data_offset,
    &SuperHead::ctime,
    &SuperHead::uuid,
    &SuperHead::ssd_uuid,
    &SuperHead::version,
    &SuperHead::size,
    &SuperHead::brick_cnt,
    &SuperHead::inode_cnt,
    &SuperHead::block_size,
    &SuperHead::block_cnt,
    &SuperHead::extent_size,
};

const RecordMembers<BrickV1> BRICK_MEMBERS{&BrickV1::magic,   &BrickV1::use,     &BrickV1::no,
                                           &BrickV1::uuid,    &BrickV1::brickid, &BrickV1::unlink,
                                           &BrickV1::reserved};

const RecordMembers<InodeV1> INODE_MEMBERS{
    &InodeV1::magic,  &InodeV1::atime, &InodeV1::ctime,     &InodeV1::mtime,    &InodeV1::dtime,
    &InodeV1::uuid,   &InodeV1::size,  &InodeV1::priority,  &InodeV1::no,       &InodeV1::brick_no,
    &InodeV1::unlink, &InodeV1::use,   &InodeV1::reserved1, &InodeV1::reserved2};

const RecordMembers<ExtentV1> EXTENT_MEMBERS{
    &ExtentV1::block,        &ExtentV1::size,          &ExtentV1::inode_no, &ExtentV1::sampling_low,
    &ExtentV1::sampling_mid, &ExtentV1::sampling_high, &ExtentV1::use,      &ExtentV1::clean,
    &ExtentV1::ntime,        &ExtentV1::hot,           &ExtentV1::no};

// All that a V1 extent's text depends on.
Block super_of(std::uint32_t extent_size)
{
    return encode_head(SuperHead{.extent_size = extent_size});
}

} // namespace

void set_geometry(SuperHead &sb)
{
    sb.brick_table_size = std::uint64_t{sb.brick_cnt} * 4096;
    const auto inodes_start = static_cast<std::uint64_t>(inode_offset(sb, 0));
    sb.inode_table_size =
        round_up(inodes_start + std::uint64_t{sb.inode_cnt} * 4096, MIB) - inodes_start;
    sb.extent_table_size = std::uint64_t{sb.block_cnt} * 4096;
    sb.data_offset =
        round_up(inodes_start + sb.inode_table_size + sb.extent_table_size + 2 * MIB, MIB);
}

SuperV1 super_v1(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
{
    SuperV1 sb;
    sb.brick_cnt = bricks;
    sb.inode_cnt = inodes;
    sb.block_cnt = blocks;
    set_geometry(sb);
    return sb;
}

BrickV1 brick_used(std::uint32_t no)
{
    BrickV1 brick;
    brick.use = 1;
    brick.no = no;
    brick.uuid = numbered_uuid(static_cast<std::uint8_t>(no));
    brick.brickid =
        "/kd/data/zu/local/Zz9XyW-AbCd-EfGh-IjKl-MnOp-QrSt-UvWxY0/" + uuid_text(brick.uuid);
    brick.unlink = 7 + no;
    brick.reserved = 70 + no;
    return brick;
}

InodeV1 inode_used(std::uint32_t no, std::uint32_t brick_no)
{
    constexpr std::uint64_t HOUR = 3'600'000'000'000U;
    InodeV1 inode;
    inode.atime = 1'500'000'000'999'999'999U + no * HOUR;
    inode.ctime = 1'510'000'000'000'000'001U + no * HOUR;
    inode.mtime = 1'520'000'000'500'000'000U + no * HOUR;
    inode.dtime = 1'530'000'000'000'000'000U + no * HOUR;
    inode.uuid = numbered_uuid(static_cast<std::uint8_t>(0x40 + no));
    inode.size = 0xF000'0000'0000'0000U + no;
    inode.priority = 0xFFFF'FF00U + no;
    inode.no = no;
    inode.brick_no = brick_no;
    inode.unlink = 0xFFFE;
    inode.use = 1;
    inode.reserved1 = 0x8000'0000'0000'0001U;
    inode.reserved2 = 0xFFFF'FFFF'FFFF'FFFEU;
    return inode;
}

ExtentV1 extent_used(std::uint64_t no, std::uint32_t inode_no)
{
    ExtentV1 extent;
    extent.block = 0x9000'0000U + static_cast<std::uint32_t>(no);
    extent.size = 0xE000'0000'0000'0000U + no;
    extent.inode_no = inode_no;
    extent.sampling_low = 0x01223344;
    extent.sampling_mid = 0xFFFF'FFFDU;
    extent.sampling_high = 0xFFFF'FFFCU;
    extent.use = 1;
    extent.clean = 0xFFFB;
    extent.ntime = 0xFFFF'FFFAU;
    extent.hot = 0xFFFF'FFFF'FFFF'FFF9U;
    extent.no = no;
    extent.bitmap = {0x0123'4567'89AB'CDEFU, no};
    return extent;
}

Block encode_head(const SuperHead &sb)
{
    Block block{};
    put_fields(block, model(1, "super"), HEAD_MEMBERS, sb);
    return block;
}

void decode_head(const Block &block, SuperHead &sb)
{
    get_fields(block, model(1, "super"), HEAD_MEMBERS, sb);
}

Block encode(const SuperV1 &sb)
{
    Block block = encode_head(sb);
    put_number(block, model(1, "super").field("sb_reserved"), sb.reserved);
    seal(model(1, "super"), block, SuperV1::LENGTH, sb.checksum);
    return block;
}

SuperV1 decode_super(const Block &block)
{
    SuperV1 sb;
    decode_head(block, sb);
    sb.reserved = get_u32(block, 140);
    return sb;
}

Block encode(const BrickV1 &brick)
{
    Block block{};
    put_fields(block, model(1, "brick"), BRICK_MEMBERS, brick);
    seal(model(1, "brick"), block, BrickV1::LENGTH, brick.checksum);
    return block;
}

BrickV1 decode_brick(const Block &block)
{
    BrickV1 brick;
    get_fields(block, model(1, "brick"), BRICK_MEMBERS, brick);
    return brick;
}

Block encode(const InodeV1 &inode)
{
    Block block{};
    put_fields(block, model(1, "inode"), INODE_MEMBERS, inode);
    seal(model(1, "inode"), block, InodeV1::LENGTH, inode.checksum);
    return block;
}

InodeV1 decode_inode(const Block &block)
{
    InodeV1 inode;
    get_fields(block, model(1, "inode"), INODE_MEMBERS, inode);
    return inode;
}

Block encode_head(const ExtentV1 &extent, std::uint32_t extent_size)
{
    Block block{};
    put_fields(block, model(1, "extent"), EXTENT_MEMBERS, extent);
    for (std::size_t i = 0; i < extent.bitmap.size() && 64 + 8 * i <= extent_size; ++i)
        put_u64(block, 56 + 8 * i, extent.bitmap[i]);
    return block;
}

Block encode(const ExtentV1 &extent, std::uint32_t extent_size)
{
    Block block = encode_head(extent, extent_size);
    seal(model(1, "extent"), block, extent_size, extent.checksum);
    return block;
}

ExtentV1 decode_extent(const Block &block, std::uint32_t extent_size)
{
    ExtentV1 extent;
    get_fields(block, model(1, "extent"), EXTENT_MEMBERS, extent);
    for (std::size_t at = 56; at + 8 <= extent_size; at += 8)
        extent.bitmap.push_back(get_u64(block, at));
    return extent;
}

std::int64_t brick_offset(const SuperHead &sb, std::uint64_t no)
{
    return slot_offset(model(1, "brick"), encode_head(sb), no);
}

std::int64_t inode_offset(const SuperHead &sb, std::uint64_t no)
{
    return slot_offset(model(1, "inode"), encode_head(sb), no);
}

std::int64_t extent_offset(const SuperHead &sb, std::uint64_t no)
{
    return slot_offset(model(1, "extent"), encode_head(sb), no);
}

std::string json(const SuperV1 &sb) { return entry_text(model(1, "super"), {}, encode(sb), 0); }

std::string json(const BrickV1 &brick, std::int64_t offset)
{
    return entry_text(model(1, "brick"), {}, encode(brick), offset);
}

std::string json(const InodeV1 &inode, std::int64_t offset)
{
    return entry_text(model(1, "inode"), {}, encode(inode), offset);
}

std::string json(const ExtentV1 &extent, std::uint32_t extent_size, std::int64_t offset)
{
    return entry_text(model(1, "extent"), super_of(extent_size), encode(extent, extent_size),
                      offset);
}

void put_block(Device &device, std::int64_t offset, const Block &block)
{
    device.write(static_cast<std::uint64_t>(offset), block);
}

void put_bricks(Device &device, const SuperHead &sb, const std::vector<BrickV1> &bricks)
{
    for (std::uint32_t no = 0; no < sb.brick_cnt; ++no)
        put_block(device, brick_offset(sb, no), encode(BrickV1{.no = no}));
    for (const BrickV1 &brick : bricks)
        put_block(device, brick_offset(sb, brick.no), encode(brick));
}

Device make_v1_device(const SuperV1 &sb, const std::vector<BrickV1> &bricks,
                      const std::vector<InodeV1> &inodes, const std::vector<ExtentV1> &extents)
{
    Device device(static_cast<std::uint64_t>(extent_offset(sb, sb.block_cnt)));
    put_block(device, SUPER_OFFSET, encode(sb));
    put_bricks(device, sb, bricks);
    for (std::uint32_t no = 0; no < sb.inode_cnt; ++no)
        put_block(device, inode_offset(sb, no), encode(InodeV1{.no = no}));
    for (const InodeV1 &inode : inodes)
        put_block(device, inode_offset(sb, inode.no), encode(inode));
    for (std::uint32_t no = 0; no < sb.block_cnt; ++no)
        put_block(device, extent_offset(sb, no), encode(ExtentV1{.no = no}, sb.extent_size));
    for (const ExtentV1 &extent : extents)
        put_block(device, extent_offset(sb, extent.no), encode(extent, sb.extent_size));
    return device;
}

} // namespace tier_test
