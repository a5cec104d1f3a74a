#include "sample_image.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace tier_test {

namespace {

// A NUL-terminated text in a field of `width` bytes.
std::string get_text(ConstByteSpan bytes, std::size_t offset, std::size_t width)
{
    std::string text;
    for (std::size_t i = offset; i < offset + width && get_u8(bytes, i) != 0; ++i)
        text += static_cast<char>(get_u8(bytes, i));
    return text;
}

void decode_head(ConstByteSpan block, SuperHead &sb)
{
    sb.magic = get_u32(block, 4);
    sb.brick_table_size = get_u64(block, 8);
    sb.inode_table_size = get_u64(block, 16);
    sb.extent_table_size = get_u64(block, 24);
    sb.data_offset = get_u64(block, 32);
    sb.ctime = get_u64(block, 40);
    sb.uuid = get_uuid(block, 48);
    sb.ssd_uuid = get_text(block, 64, 48);
    sb.version = get_u32(block, 112);
    sb.size = get_u32(block, 116);
    sb.brick_cnt = get_u32(block, 120);
    sb.inode_cnt = get_u32(block, 124);
    sb.block_size = get_u32(block, 128);
    sb.block_cnt = get_u32(block, 132);
    sb.extent_size = get_u32(block, 136);
}

// A table that keeps the checksum of a record in its first four bytes.
SampleTable sealed_table(const std::string &name, std::size_t length, std::int64_t magic_at,
                         std::int64_t number_at,
                         const std::function<std::int64_t(std::uint64_t no)> &offset,
                         const std::string &key)
{
    return {name,
            length,
            magic_at,
            number_at,
            offset,
            "dump_" + name,
            key,
            [](const Block &slot) { return get_u32(slot, 0); },
            [length](const Block &slot) { return record_crc(slot, length); }};
}

// The tables of V1 or V2, whose super blocks place them alike but for more inodes.
template <class Super>
std::vector<SampleTable> tables_of(const Super &sb, std::size_t extent_length)
{
    const auto brick_at = [sb](std::uint64_t no) { return brick_offset(sb, no); };
    const auto inode_at = [sb](std::uint64_t no) {
        return inode_offset(sb, static_cast<std::uint32_t>(no));
    };
    const auto extent_at = [sb](std::uint64_t no) { return extent_offset(sb, no); };
    return {
        sealed_table("brick", BrickV1::LENGTH, 4, 12, brick_at, "bi_no"),
        sealed_table("inode", InodeV1::LENGTH, 4, 68, inode_at, "no"),
        sealed_table("extent", extent_length, -1, 48, extent_at, "te_no"),
    };
}

std::uint32_t get_bits(std::uint64_t word, unsigned shift, unsigned width)
{
    return static_cast<std::uint32_t>(word >> shift & ((std::uint64_t{1} << width) - 1));
}

} // namespace

RunResult run_sample(const std::string &path, const std::vector<std::string> &args,
                     const std::string &layout)
{
    std::vector<std::string> all{"sample", "--layout", layout};
    all.insert(all.end(), args.begin(), args.end());
    all.push_back(path);
    return run_program(ZU_TIERCTL, all);
}

Device make_sample(const std::vector<std::string> &args, const std::string &layout)
{
    Device device(0);
    std::filesystem::remove(device.path());
    const RunResult run = run_sample(device.path(), args, layout);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out + run.err, "");
    return device;
}

void expect_refused(const std::vector<std::string> &args, const std::string &complaint,
                    const std::string &layout)
{
    SCOPED_TRACE(complaint);
    const TempDir directory;
    const std::string path = directory.path("image");
    const RunResult run = run_sample(path, args, layout);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
    EXPECT_FALSE(std::filesystem::exists(path));
}

void expect_sizes_refused(const std::vector<SizeBounds> &sizes, const std::string &layout)
{
    for (const SizeBounds &size : sizes)
        for (const std::string &value : size.values)
            expect_refused({size.option, value},
                           size.option + " " + value + ": expected " + size.expected, layout);
}

SuperV1 decode_super(const Block &block)
{
    SuperV1 sb;
    decode_head(block, sb);
    sb.reserved = get_u32(block, 140);
    return sb;
}

BrickV1 decode_brick(const Block &block)
{
    BrickV1 brick;
    brick.magic = get_u32(block, 4);
    brick.use = get_u32(block, 8);
    brick.no = get_u32(block, 12);
    brick.uuid = get_uuid(block, 16);
    brick.brickid = get_text(block, 32, 128);
    brick.unlink = get_u32(block, 160);
    brick.reserved = get_u32(block, 164);
    return brick;
}

InodeV1 decode_inode(const Block &block)
{
    InodeV1 inode;
    inode.magic = get_u32(block, 4);
    inode.atime = get_u64(block, 8);
    inode.ctime = get_u64(block, 16);
    inode.mtime = get_u64(block, 24);
    inode.dtime = get_u64(block, 32);
    inode.uuid = get_uuid(block, 40);
    inode.size = get_u64(block, 56);
    inode.priority = get_u32(block, 64);
    inode.no = get_u32(block, 68);
    inode.brick_no = get_u32(block, 72);
    inode.unlink = get_u16(block, 76);
    inode.use = get_u16(block, 78);
    inode.reserved1 = get_u64(block, 80);
    inode.reserved2 = get_u64(block, 88);
    return inode;
}

ExtentV1 decode_extent(const Block &block, std::uint32_t extent_size)
{
    ExtentV1 extent;
    extent.block = get_u32(block, 4);
    extent.size = get_u64(block, 8);
    extent.inode_no = get_u32(block, 16);
    for (std::size_t i = 0; i < 4; ++i) // shown with its bytes in reverse
        extent.sampling_low = extent.sampling_low << 8 | get_u8(block, 20 + i);
    extent.sampling_mid = get_u32(block, 24);
    extent.sampling_high = get_u32(block, 28);
    extent.use = get_u16(block, 32);
    extent.clean = get_u16(block, 34);
    extent.ntime = get_u32(block, 36);
    extent.hot = get_u64(block, 40);
    extent.no = get_u64(block, 48);
    for (std::size_t at = 56; at + 8 <= extent_size; at += 8)
        extent.bitmap.push_back(get_u64(block, at));
    return extent;
}

SuperV2 decode_super_v2(const Block &block)
{
    SuperV2 sb;
    decode_head(block, sb);
    sb.exp_magic = get_u16(block, 140);
    sb.exp_area = get_u8(block, 142);
    sb.exp_inuse = get_u8(block, 143);
    sb.min_alloc_size = get_u32(block, 144);
    sb.total_map_size = get_u32(block, 148);
    sb.map_cnt = get_u32(block, 152);
    sb.size_mapped_meta = get_u32(block, 156);
    sb.hot_size = get_u32(block, 160);
    sb.total_extent_size = get_u32(block, 164);
    return sb;
}

InodeV2 decode_inode_v2(const Block &block)
{
    InodeV2 inode{decode_inode(block)};
    inode.new_data = inode.reserved1;
    inode.blocks = inode.reserved2;
    return inode;
}

ExtentV2 decode_extent_v2(const Block &block, const SuperV2 &sb)
{
    ExtentV2 extent{decode_extent(block, sb.extent_size)};
    for (std::uint32_t mapno = 0; mapno < sb.map_cnt; ++mapno) {
        const std::size_t at = sb.extent_size + 16U * mapno;
        const std::uint32_t word = get_u32(block, at + 8);
        if (word > 1)
            extent.maps[mapno] = {get_u64(block, at), word & 1U, word >> 1, get_u16(block, at + 12),
                                  get_u16(block, at + 14)};
    }
    const auto hot = block.begin() + sb.extent_size + sb.total_map_size;
    extent.hot_area.assign(hot, hot + sb.hot_size);
    return extent;
}

SuperV3 decode_super_v3(const Block &block)
{
    SuperV3 sb;
    sb.magic = get_u32(block, 4);
    sb.sb_offset = get_u64(block, 8);
    sb.size = get_u64(block, 16);
    sb.reserved_offset = get_u64(block, 24);
    sb.reserved_size = get_u64(block, 32);
    sb.ctime = get_u64(block, 40);
    sb.uuid = get_uuid(block, 48);
    sb.ssd_uuid = get_text(block, 64, 48);
    sb.version = get_u32(block, 112);
    sb.reserved = get_u32(block, 116);
    sb.brick_table_offset = get_u64(block, 120);
    sb.brick_table_size = get_u64(block, 128);
    sb.brick_cnt = get_u64(block, 136);
    sb.inode_table_offset = get_u64(block, 144);
    sb.inode_table_size = get_u64(block, 152);
    sb.inode_cnt = get_u64(block, 160);
    sb.shard_table_offset = get_u64(block, 168);
    sb.shard_table_size = get_u64(block, 176);
    sb.shard_cnt = get_u64(block, 184);
    sb.extent_table_offset = get_u64(block, 192);
    sb.extent_table_size = get_u64(block, 200);
    sb.extent_cnt = get_u64(block, 208);
    sb.hot_table_offset = get_u64(block, 216);
    sb.hot_table_size = get_u64(block, 224);
    sb.data_offset = get_u64(block, 232);
    sb.data_size = get_u64(block, 240);
    sb.block_size = get_u64(block, 248);
    sb.block_cnt = get_u64(block, 256);
    return sb;
}

ShardBlockV3 decode_shards(const Block &block)
{
    ShardBlockV3 packed{.magic = get_u32(block, 4)};
    for (std::uint32_t slot = 1; slot < 512; ++slot) {
        const std::uint64_t word = get_u64(block, 8 * slot);
        if (word != 0)
            packed.shards.push_back({.slot = slot,
                                     .ino = get_bits(word, 0, 18),
                                     .in_use = get_bits(word, 18, 1),
                                     .reserved = get_bits(word, 19, 13),
                                     .index = get_bits(word, 32, 32)});
    }
    return packed;
}

ExtentBlockV3 decode_extents(const Block &block)
{
    ExtentBlockV3 packed;
    for (std::uint32_t slot = 0; slot < 512; ++slot) {
        const std::uint64_t word = get_u64(block, 8 * slot);
        if (word > 1) // bit 0 is the checksum's
            packed.extents.push_back({.slot = slot,
                                      .lba = get_bits(word, 1, 19),
                                      .shard = get_bits(word, 20, 19),
                                      .dirty = get_bits(word, 39, 1),
                                      .bitmap = get_bits(word, 40, 16),
                                      .in_use = get_bits(word, 56, 1),
                                      .sense = get_bits(word, 57, 4),
                                      .demote = get_bits(word, 61, 1),
                                      .dm_err = get_bits(word, 62, 1),
                                      .reserved = get_bits(word, 63, 1)});
    }
    return packed;
}

std::vector<SampleTable> sample_tables(const SuperV1 &sb)
{
    return tables_of(sb, sb.extent_size);
}

std::vector<SampleTable> sample_tables(const SuperV2 &sb)
{
    return tables_of(sb, sb.total_extent_size);
}

std::vector<SampleTable> sample_tables(const SuperV3 &sb)
{
    const auto at = [](std::uint64_t start) {
        return [start](std::uint64_t no) { return static_cast<std::int64_t>(start + no * 4096); };
    };
    return {
        sealed_table("brick", BrickV1::LENGTH, 4, 12, at(sb.brick_table_offset), "bi_no"),
        sealed_table("inode", InodeV1::LENGTH, 4, 68, at(sb.inode_table_offset), "no"),
        sealed_table("shard", 4096, 4, -1, at(sb.shard_table_offset), "shard_no"),
        {"hot", 4096, -1, -1, at(sb.hot_table_offset), "dump_hot", "hot_no", {}, {}},
        {"extent", 4096, -1, -1, at(sb.extent_table_offset), "dump_extent", "extent_no",
         extent_block_checksum, extent_block_crc},
    };
}

SampleTable sample_super(std::size_t length)
{
    const auto offset = [](std::uint64_t) { return std::int64_t{4096}; };
    return sealed_table("super", length, 4, -1, offset, "");
}

} // namespace tier_test
