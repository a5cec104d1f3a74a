#include "held_data.h"

#include <algorithm>
#include <stdexcept>

namespace tier_test {

namespace {

struct File {
    std::uint64_t brick;
    Uuid uuid;
    std::uint64_t size;
};

// The files of a device, and the directories in which they are kept.
class Files {
public:
    explicit Files(const Lost &lost) : lost_(lost) {}

    template <class Super>
    void read(const Device &device, const Super &sb, std::uint64_t bricks, std::uint64_t inodes)
    {
        const auto at = [&device](std::int64_t offset) {
            return device.block(static_cast<std::uint64_t>(offset));
        };
        for (std::uint64_t no = 0; no < bricks; ++no) {
            const BrickV1 brick = decode_brick(at(brick_offset(sb, no)));
            if (brick.use != 0 && !lost_.contains({"brick", no}))
                bricks_[no] = uuid_text(brick.uuid);
        }
        for (std::uint64_t no = 0; no < inodes; ++no) {
            const InodeV1 inode =
                decode_inode(at(inode_offset(sb, static_cast<std::uint32_t>(no))));
            if (inode.use != 0 && !lost_.contains({"inode", no}))
                files_[no] = {inode.brick_no, inode.uuid, inode.size};
        }
    }

    // Fills in whose the piece is; `below`: names below the file.
    void place(HeldPiece &piece, std::uint64_t inode, const std::string &below = "") const
    {
        piece.inode = inode;
        const auto file = files_.find(inode);
        if (file == files_.end()) {
            piece.file = "unknown/inode-" + std::to_string(inode) + below;
            piece.brick = ~std::uint64_t{0};
            return;
        }
        piece.uuid = file->second.uuid;
        piece.brick = file->second.brick;
        const auto brick = bricks_.find(piece.brick);
        piece.file = (brick == bricks_.end() ? "unknown/brick-" + std::to_string(piece.brick)
                                             : brick->second) +
                     "/" + uuid_text(piece.uuid) + below;
    }

    // How much of whole pages lies past the end of their file, less than a page of a sound sample.
    std::uint64_t past_end(const HeldPiece &run) const
    {
        const auto file = files_.find(run.inode);
        const std::uint64_t end = run.offset + run.length;
        return file == files_.end() ? 0 : end - std::min(end, file->second.size);
    }

private:
    const Lost &lost_;
    std::map<std::uint64_t, std::string> bricks_;
    std::map<std::uint64_t, File> files_;
};

Block slot(const Device &device, std::int64_t offset)
{
    return device.block(static_cast<std::uint64_t>(offset));
}

std::vector<HeldPiece> held_v1(const Device &device, const Lost &lost)
{
    const SuperV1 sb = decode_super(device.block(4096));
    Files files(lost);
    files.read(device, sb, sb.brick_cnt, sb.inode_cnt);
    std::vector<HeldPiece> held;
    for (std::uint64_t no = 0; no < sb.block_cnt; ++no) {
        const ExtentV1 extent = decode_extent(slot(device, extent_offset(sb, no)), sb.extent_size);
        if (extent.use == 0 || lost.contains({"extent", no}))
            continue;
        HeldPiece block;
        block.device = sb.data_offset + no * sb.block_size;
        block.offset = block.place = std::uint64_t{extent.block} * sb.block_size;
        block.clean = extent.clean != 0;
        block.extent = no;
        files.place(block, extent.inode_no);
        const std::uint64_t pages = sb.block_size / 4096;
        if ((sb.extent_size - 56) / 8 * 64 < pages) {
            block.by = "size";
            block.length = extent.size;
            held.push_back(block);
            continue;
        }
        block.by = "bitmap";
        for (std::uint64_t page = 0; page < pages; ++page) {
            if ((extent.bitmap.at(page / 64) >> (page % 64) & 1) == 0)
                continue;
            const bool goes_on =
                !held.empty() && held.back().extent == no &&
                held.back().device + held.back().length == block.device + page * 4096;
            if (!goes_on) {
                HeldPiece run = block;
                run.device += page * 4096;
                run.offset += page * 4096;
                run.place = run.offset;
                held.push_back(run);
            }
            held.back().length += 4096;
        }
    }
    for (HeldPiece &run : held)
        if (run.by == "bitmap")
            run.cut = files.past_end(run);
    return held;
}

std::vector<HeldPiece> held_v2(const Device &device, const Lost &lost)
{
    const SuperV2 sb = decode_super_v2(device.block(4096));
    Files files(lost);
    files.read(device, sb, sb.brick_cnt, sb.inode_cnt + expansion_count(sb));
    std::vector<HeldPiece> held;
    for (std::uint64_t no = 0; no < sb.block_cnt; ++no) {
        const ExtentV2 extent = decode_extent_v2(slot(device, extent_offset(sb, no)), sb);
        if (extent.use == 0 || lost.contains({"extent", no}))
            continue;
        for (const auto &[mapno, map] : extent.maps) {
            HeldPiece piece;
            piece.device = sb.data_offset + no * sb.block_size + map.begin * std::uint64_t{4096};
            piece.offset = piece.place = map.offset;
            piece.length = map.orig_len;
            piece.clean = map.clean != 0;
            piece.by = "piece";
            piece.extent = no;
            files.place(piece, extent.inode_no);
            held.push_back(piece);
        }
    }
    return held;
}

std::vector<HeldPiece> held_v3(const Device &device, const Lost &lost)
{
    const SuperV3 sb = decode_super_v3(device.block(4096));
    Files files(lost);
    files.read(device, sb, sb.brick_cnt, sb.inode_cnt);
    std::map<std::uint64_t, ShardV3> shards;
    for (std::uint64_t no = 0; no < sb.shard_cnt / 512; ++no)
        if (!lost.contains({"shard", no}))
            for (const ShardV3 &shard : decode_shards(slot(device, shard_offset(sb, no))).shards)
                if (shard.in_use != 0)
                    shards[no * 512 + shard.slot] = shard;
    std::vector<HeldPiece> held;
    for (std::uint64_t no = 0; no < sb.extent_cnt / 512; ++no) {
        if (lost.contains({"extent", no}))
            continue;
        for (const ExtentV3 &extent : decode_extents(slot(device, extent_offset(sb, no))).extents) {
            if (extent.in_use == 0)
                continue;
            HeldPiece piece;
            piece.extent = no * 512 + extent.slot;
            piece.device = sb.data_offset + piece.extent * sb.block_size;
            piece.place = extent.lba;
            piece.length = sb.block_size;
            piece.clean = extent.dirty == 0;
            piece.by = "block";
            const std::string block = "/" + std::to_string(extent.lba) + ".block";
            const auto shard = shards.find(extent.shard);
            if (shard == shards.end()) {
                piece.file = "unknown/shard-" + std::to_string(extent.shard) + block;
                piece.brick = piece.inode = ~std::uint64_t{0};
            } else {
                files.place(piece, shard->second.ino,
                            "/" + std::to_string(shard->second.index) + block);
            }
            held.push_back(piece);
        }
    }
    return held;
}

} // namespace

std::vector<HeldPiece> held_pieces(const Device &device, const std::string &layout,
                                   const Lost &lost)
{
    std::vector<HeldPiece> held = layout == "v1"   ? held_v1(device, lost)
                                  : layout == "v2" ? held_v2(device, lost)
                                                   : held_v3(device, lost);
    std::ranges::stable_sort(held, {}, &HeldPiece::device);
    return held;
}

std::string sample_page(const HeldPiece &piece, std::uint64_t at)
{
    std::array<std::uint8_t, 32> mark{};
    put_bytes(mark, 0, piece.uuid);
    put_u64(mark, 16, piece.by == "block" ? piece.place : piece.place + at);
    put_u64(mark, 24, piece.device + at);
    std::string page;
    while (page.size() < BLOCK_SIZE)
        page.append(mark.begin(), mark.end());
    return page;
}

} // namespace tier_test
