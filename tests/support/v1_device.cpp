#include "v1_device.h"

#include <bit>

namespace tier_test {

namespace {

std::uint64_t tables_start(const SuperHead &sb)
{
    return sb.size + 4096U; // formed in 32 bits
}

std::uint64_t bitmap_words(std::uint32_t extent_size)
{
    return extent_size < ExtentV1::HEAD_LENGTH ? 0 : (extent_size - ExtentV1::HEAD_LENGTH) / 8;
}

} // namespace

void store_checksum(Block &block, std::size_t length, const StoredChecksum &checksum)
{
    seal(block, length);
    if (checksum)
        put_u32(block, 0, *checksum);
}

void set_geometry(SuperHead &sb)
{
    sb.brick_table_size = std::uint64_t{sb.brick_cnt} * 4096;
    const std::uint64_t inodes_start = tables_start(sb) + sb.brick_table_size;
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
    put_u32(block, 4, sb.magic);
    put_u64(block, 8, sb.brick_table_size);
    put_u64(block, 16, sb.inode_table_size);
    put_u64(block, 24, sb.extent_table_size);
    put_u64(block, 32, sb.data_offset);
    put_u64(block, 40, sb.ctime);
    put_bytes(block, 48, sb.uuid);
    put_text(block, 64, sb.ssd_uuid);
    put_u32(block, 112, sb.version);
    put_u32(block, 116, sb.size);
    put_u32(block, 120, sb.brick_cnt);
    put_u32(block, 124, sb.inode_cnt);
    put_u32(block, 128, sb.block_size);
    put_u32(block, 132, sb.block_cnt);
    put_u32(block, 136, sb.extent_size);
    return block;
}

Block encode(const SuperV1 &sb)
{
    Block block = encode_head(sb);
    put_u32(block, 140, sb.reserved);
    store_checksum(block, SuperV1::LENGTH, sb.checksum);
    return block;
}

Block encode(const BrickV1 &brick)
{
    Block block{};
    put_u32(block, 4, brick.magic);
    put_u32(block, 8, brick.use);
    put_u32(block, 12, brick.no);
    put_bytes(block, 16, brick.uuid);
    put_text(block, 32, brick.brickid);
    put_u32(block, 160, brick.unlink);
    put_u32(block, 164, brick.reserved);
    store_checksum(block, BrickV1::LENGTH, brick.checksum);
    return block;
}

Block encode(const InodeV1 &inode)
{
    Block block{};
    put_u32(block, 4, inode.magic);
    put_u64(block, 8, inode.atime);
    put_u64(block, 16, inode.ctime);
    put_u64(block, 24, inode.mtime);
    put_u64(block, 32, inode.dtime);
    put_bytes(block, 40, inode.uuid);
    put_u64(block, 56, inode.size);
    put_u32(block, 64, inode.priority);
    put_u32(block, 68, inode.no);
    put_u32(block, 72, inode.brick_no);
    put_u16(block, 76, inode.unlink);
    put_u16(block, 78, inode.use);
    put_u64(block, 80, inode.reserved1);
    put_u64(block, 88, inode.reserved2);
    store_checksum(block, InodeV1::LENGTH, inode.checksum);
    return block;
}

Block encode_head(const ExtentV1 &extent, std::uint32_t extent_size)
{
    Block block{};
    put_u32(block, 4, extent.block);
    put_u64(block, 8, extent.size);
    put_u32(block, 16, extent.inode_no);
    put_u32(block, 20,
            std::rotl(extent.sampling_low & 0x00FF'00FFU, 24) |
                std::rotl(extent.sampling_low & 0xFF00'FF00U, 8));
    put_u32(block, 24, extent.sampling_mid);
    put_u32(block, 28, extent.sampling_high);
    put_u16(block, 32, extent.use);
    put_u16(block, 34, extent.clean);
    put_u32(block, 36, extent.ntime);
    put_u64(block, 40, extent.hot);
    put_u64(block, 48, extent.no);
    for (std::size_t i = 0; i < extent.bitmap.size() && i < bitmap_words(extent_size); ++i)
        put_u64(block, 56 + 8 * i, extent.bitmap[i]);
    return block;
}

Block encode(const ExtentV1 &extent, std::uint32_t extent_size)
{
    Block block = encode_head(extent, extent_size);
    store_checksum(block, extent_size, extent.checksum);
    return block;
}

std::int64_t brick_offset(const SuperHead &sb, std::uint64_t no)
{
    return static_cast<std::int64_t>(tables_start(sb) + no * 4096);
}

std::int64_t inode_offset(const SuperHead &sb, std::uint64_t no)
{
    return brick_offset(sb, no) + static_cast<std::int64_t>(sb.brick_table_size);
}

std::int64_t extent_offset(const SuperHead &sb, std::uint64_t no)
{
    return inode_offset(sb, no) + static_cast<std::int64_t>(sb.inode_table_size);
}

std::string json_head(const SuperHead &sb, std::uint32_t checksum, const std::string &rest)
{
    return text("{\"checksum\":\"0x%x\",\"magic\":\"0x%x\",\"brick_table_size\":%lu,"
                "\"inode_table_size\":%lu,\"extent_table_size\":%lu,\"data_offset\":%lu,"
                "\"ctime\":\"0x%lx(%s)\",\"uuid\":\"%s\",\"ssd_uuid\":\"%s\",\"version\":\"0x%x\","
                "\"super block size\":%u,\"brick_cnt\":%u,\"inode_cnt\":%u,\"block_size\":%u,"
                "\"block_cnt\":%u,\"extent_size\":%u,%s",
                checksum, sb.magic, sb.brick_table_size, sb.inode_table_size, sb.extent_table_size,
                sb.data_offset, sb.ctime, time_text(sb.ctime).c_str(), uuid_text(sb.uuid).c_str(),
                sb.ssd_uuid.c_str(), sb.version, sb.size, sb.brick_cnt, sb.inode_cnt, sb.block_size,
                sb.block_cnt, sb.extent_size, rest.c_str());
}

std::string json(const SuperV1 &sb)
{
    return json_head(sb, get_u32(encode(sb), 0), text("\"sb_reserved\":%u}", sb.reserved));
}

std::string json(const BrickV1 &brick, std::int64_t offset)
{
    return text("{\"bi_checksum\":\"0x%x\",\"bi_magic\":\"0x%x\",\"bi_use\":%u,\"bi_no\":%u,"
                "\"bi_uuid\":\"%s\",\"bi_brickid\":\"%s\",\"bi_unlink\":%u,\"bi_reserved\":%u,"
                "\"meta_offset\":%ld}",
                get_u32(encode(brick), 0), brick.magic, brick.use, brick.no,
                uuid_text(brick.uuid).c_str(), brick.brickid.substr(0, 127).c_str(), brick.unlink,
                brick.reserved, offset);
}

std::string json_head(const InodeV1 &inode, std::uint32_t checksum, const std::string &rest)
{
    return text("{\"checksum\":\"0x%x\",\"magic\":\"0x%x\",\"atime\":\"%s\",\"ctime\":\"%s\","
                "\"mtime\":\"%s\",\"dtime\":\"%s\",\"uuid\":\"%s\",\"size\":%lu,\"priority\":%u,"
                "\"no\":%u,\"brick_no\":%u,\"unlink\":%hu,\"use\":%hu,%s",
                checksum, inode.magic, time_text(inode.atime).c_str(),
                time_text(inode.ctime).c_str(), time_text(inode.mtime).c_str(),
                time_text(inode.dtime).c_str(), uuid_text(inode.uuid).c_str(), inode.size,
                inode.priority, inode.no, inode.brick_no, inode.unlink, inode.use, rest.c_str());
}

std::string json(const InodeV1 &inode, std::int64_t offset)
{
    return json_head(inode, get_u32(encode(inode), 0),
                     text("\"reserved1\":%lu,\"reserved2\":%lu,\"meta_offset\":%ld}",
                          inode.reserved1, inode.reserved2, offset));
}

std::string json_head(const ExtentV1 &extent, std::uint32_t checksum)
{
    return text("{\"te_checksum\":\"0x%x\",\"te_block\":%u,\"te_size\":%lu,\"te_inode_no\":%u,"
                "\"te_sampling_low\":\"%08x\",\"te_sampling_mid\":%u,\"te_sampling_high\":%u,"
                "\"te_use\":%hu,\"te_clean\":%hu,\"te_ntime\":%u,\"te_hot\":%lu,\"te_no\":%lu,",
                checksum, extent.block, extent.size, extent.inode_no, extent.sampling_low,
                extent.sampling_mid, extent.sampling_high, extent.use, extent.clean, extent.ntime,
                extent.hot, extent.no);
}

std::string json(const ExtentV1 &extent, std::uint32_t extent_size, std::int64_t offset)
{
    std::string bitmap;
    for (std::size_t i = 0; i < bitmap_words(extent_size); ++i)
        bitmap += text("0x%016lx ", i < extent.bitmap.size() ? extent.bitmap[i] : 0);
    return json_head(extent, get_u32(encode(extent, extent_size), 0)) +
           text("\"meta_offset\":%ld,\"te_bitmap\":\"%s\"}", offset, bitmap.c_str());
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
