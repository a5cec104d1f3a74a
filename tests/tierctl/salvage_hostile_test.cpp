// zu_tierctl salvage of entries that contradict one another, or say what cannot be.

#include "cache.h"
#include "salvage_tree.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t DATA_BLOCK = 262144;

class SalvageHostile : public testing::Test {
protected:
    const TempDir directory;
    const std::string into = directory.path("salvaged");

    RunResult run(const Device &device, const std::vector<std::string> &options = {"--all"}) const
    {
        std::vector<std::string> args{"salvage", device.path(), into};
        args.insert(args.end(), options.begin(), options.end());
        fs::remove_all(into);
        return run_ctl(args);
    }

    // The data that the model finds in the entries, as a sample has it.
    static std::vector<HeldPiece> fill(Device &device, const std::string &layout,
                                       std::uint64_t data_end)
    {
        device.truncate(data_end);
        std::vector<HeldPiece> held = held_pieces(device, layout);
        for (const HeldPiece &piece : held)
            for (std::uint64_t at = 0; at < piece.length; at += BLOCK_SIZE) {
                const std::string page = sample_page(piece, at);
                device.write(piece.device + at,
                             {reinterpret_cast<const std::uint8_t *>(page.data()), page.size()});
            }
        return held;
    }

    void expect(const Device &device, const std::vector<HeldPiece> &pieces,
                const std::string &complaints = "", int status = 0) const
    {
        const RunResult done = run(device);
        EXPECT_EQ(done.status, status) << done;
        const SalvageTree expected = expected_tree(pieces);
        EXPECT_EQ(done.err, complaints + total_line(expected));
        expect_same(read_tree(into), expected);
    }

    static std::string conflict(std::uint64_t first, std::uint64_t second)
    {
        return text("zu_tierctl: extent %lu and %lu hold the same place of a file: what %lu has of "
                    "it is in a file of the same name with .conflict-%lu\n",
                    first, second, second, second);
    }
};

// Layout V1

class SalvageV1 : public SalvageHostile {
protected:
    SuperV1 sb = [] {
        SuperV1 super = super_v1(4, 8, 20);
        super.block_size = DATA_BLOCK;
        super.extent_size = 64; // a word for the 64 pages of a block
        return super;
    }();
    std::vector<BrickV1> bricks{brick_used(1)};
    std::vector<InodeV1> inodes{inode_used(2, 1), inode_used(3, 1)};

    static ExtentV1 extent(std::uint64_t no, std::uint32_t inode, std::uint32_t block,
                           std::uint64_t pages, std::uint16_t clean = 0)
    {
        ExtentV1 made = extent_used(no, inode);
        made.block = block;
        made.size = std::uint64_t(std::popcount(pages)) * BLOCK_SIZE;
        made.clean = clean;
        made.bitmap = {pages};
        return made;
    }

    Device device_with(const std::vector<ExtentV1> &extents,
                       std::vector<HeldPiece> *held = nullptr) const
    {
        Device device = make_v1_device(sb, bricks, inodes, extents);
        if (held != nullptr)
            *held =
                fill(device, "v1", sb.data_offset + std::uint64_t{sb.block_cnt} * sb.block_size);
        return device;
    }

    std::string file(std::uint32_t inode) const
    {
        return uuid_text(bricks.front().uuid) + "/" + uuid_text(inode_used(inode, 1).uuid);
    }
};

TEST_F(SalvageV1, TheSecondOfTwoExtentsGoesBesideTheFirst)
{
    std::vector<HeldPiece> held;
    const Device device =
        device_with({extent(1, 2, 0, 0xFF), extent(2, 2, 1, 0xFF), extent(4, 3, 0, 0xFF),
                     extent(7, 2, 0, 0xF00000000000FF80), extent(9, 2, 0, 0x80)},
                    &held);
    for (HeldPiece &piece : held) {
        EXPECT_EQ(piece.file, file(piece.extent == 4 ? 3 : 2));
        if (piece.extent == 7 || piece.extent == 9) {
            piece.conflict = 1;
            piece.file += text(".conflict-%lu", piece.extent);
        }
    }
    ASSERT_EQ(held.size(), 6U);
    expect(device, held, conflict(1, 7) + conflict(1, 9));
}

// Only what is wanted is in conflict.
TEST_F(SalvageV1, CleanExtentsHoldNoPlaceAgainstDirtyOnes)
{
    std::vector<HeldPiece> held;
    const Device device = device_with({extent(1, 2, 0, 0xFF, 1), extent(7, 2, 0, 0xFF)}, &held);
    const RunResult done = run(device, {});
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_EQ(done.err, total_line(expected_tree(dirty(held))));
    expect_same(read_tree(into), expected_tree(dirty(held)));
}

TEST_F(SalvageV1, ManyConflicts)
{
    std::vector<ExtentV1> extents;
    for (std::uint64_t no = 0; no < 14; ++no)
        extents.push_back(extent(no, 2, 5, 1));
    std::vector<HeldPiece> held;
    const Device device = device_with(extents, &held);
    std::string complaints;
    for (HeldPiece &piece : held) {
        if (piece.extent == 0)
            continue;
        piece.conflict = 0;
        piece.file += text(".conflict-%lu", piece.extent);
        if (piece.extent <= 10)
            complaints += conflict(0, piece.extent);
    }
    expect(device, held, complaints + "zu_tierctl: 3 more conflicts: see the manifest\n");
}

TEST_F(SalvageV1, NamesThatAreTaken)
{
    InodeV1 same = inode_used(5, 1);
    same.uuid = inode_used(2, 1).uuid;
    InodeV1 elsewhere = inode_used(6, 3);
    elsewhere.uuid = same.uuid;
    InodeV1 nil = inode_used(4, 1);
    nil.uuid = {};
    InodeV1 of_nil_brick = inode_used(7, 2);
    inodes.insert(inodes.end(), {same, elsewhere, nil, of_nil_brick});
    BrickV1 again = brick_used(3);
    again.uuid = bricks.front().uuid;
    BrickV1 no_name = brick_used(2);
    no_name.uuid = {};
    bricks.insert(bricks.end(), {no_name, again});
    std::vector<ExtentV1> extents;
    for (std::uint32_t inode = 0; inode < 8; ++inode)
        extents.push_back(extent(inode, inode, 0, 3));
    extents.push_back(extent(8, 4000000000, 0, 3));
    std::vector<HeldPiece> held;
    const Device device = device_with(extents, &held);
    const std::string brick = uuid_text(again.uuid);
    const std::string inode = uuid_text(same.uuid);
    const std::vector<std::string> files{
        "unknown/inode-0",           "unknown/inode-1",
        brick + "/" + inode,         file(3),
        "unknown/inode-4",           brick + "/" + inode + ".inode-5",
        brick + ".brick-3/" + inode, "unknown/brick-2/" + uuid_text(of_nil_brick.uuid),
        "unknown/inode-4000000000"};
    for (HeldPiece &piece : held)
        piece.file = files.at(piece.extent);
    ASSERT_EQ(held.size(), files.size());
    expect(device, held);
}

// A bitmap that marks nothing says nothing.
TEST_F(SalvageV1, EmptyBitmapsAndSizes)
{
    ExtentV1 small = extent(1, 2, 0, 0);
    small.size = 5000;
    ExtentV1 none = extent(2, 2, 1, 0);
    none.size = 0;
    ExtentV1 large = extent(3, 3, 0, 0);
    large.size = ~std::uint64_t{0};
    const Device device = device_with({small, none, large});
    Device filled(device.size());
    filled.write(0, device.bytes());
    filled.truncate(sb.data_offset + std::uint64_t{sb.block_cnt} * sb.block_size);
    for (const std::uint64_t no : {1, 3})
        for (std::uint64_t at = 0; at < DATA_BLOCK; at += BLOCK_SIZE)
            filled.write(sb.data_offset + no * DATA_BLOCK + at, Block{});
    const RunResult done = run(filled);
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_EQ(done.err, total_line(read_tree(into)));
    const SalvageTree tree = read_tree(into);
    ASSERT_EQ(tree.manifest.size(), 2U);
    EXPECT_EQ(tree.manifest[0]["length"], 5000);
    EXPECT_EQ(tree.manifest[1]["length"], DATA_BLOCK);
    EXPECT_EQ(tree.manifest[0]["by"], "size");
    EXPECT_EQ(tree.files.at(file(2)), std::string(5000, '\0'));
}

// A page is whole, and the file may end in it.
TEST_F(SalvageV1, FilesEndWithinAPage)
{
    for (const std::uint64_t size : {0x7001, 0x7FFF, 0x8000}) {
        SCOPED_TRACE(size);
        inodes[0].size = size;
        inodes[1].size = DATA_BLOCK + 1;
        std::vector<HeldPiece> held;
        const Device device = device_with(
            {extent(1, 2, 0, 0xFF), extent(3, 3, 0, 0xFF), extent(4, 3, 1, 1, 1)}, &held);
        ASSERT_EQ(held.size(), 3U);
        EXPECT_EQ(held[0].cut, 0x8000 - size);
        EXPECT_EQ(held[2].cut, 4095U);
        expect(device, held);
        EXPECT_EQ(fs::file_size(into + "/" + file(2)), size);
    }
}

// Where a file has data pages after its end, which may be wrong, nothing of it is cut off.
TEST_F(SalvageV1, FilesThatGoOnAfterTheirEnd)
{
    inodes[0].size = 0x7FFF;
    inodes[1].size = 0x6FFF;
    InodeV1 by_size = inode_used(5, 1);
    by_size.size = 4999;
    inodes.push_back(by_size);
    ExtentV1 small = extent(7, 5, 0, 0);
    small.size = 5000;
    const auto extents = [&](std::uint16_t clean) {
        return std::vector<ExtentV1>{extent(1, 2, 0, 0xFF), extent(2, 2, 1, 1, clean),
                                     extent(4, 3, 0, 0xFF), small};
    };
    const auto past_ends = [this] {
        std::map<std::uint64_t, std::uint64_t> bytes;
        for (const auto &line : read_tree(into).manifest) {
            bytes[line["extent"]] = line.value("past_end", 0);
            EXPECT_FALSE(line.contains("cut"));
        }
        return bytes;
    };
    const auto complaint = [](std::uint64_t bytes) {
        return text("zu_tierctl: %lu bytes of 3 files lie past the end that the size of the file "
                    "gives: they are salvaged as well, see past_end in the manifest\n",
                    bytes);
    };
    Device device = device_with(extents(0));
    for (const std::uint64_t no : {1, 2, 4, 7})
        for (std::uint64_t page = 0; page < 8; ++page)
            device.write(sb.data_offset + no * DATA_BLOCK + page * BLOCK_SIZE, Block{});
    RunResult done = run(device);
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_EQ(done.err, complaint(1 + 4096 + 4097 + 1) + total_line(read_tree(into)));
    EXPECT_EQ(past_ends(),
              (std::map<std::uint64_t, std::uint64_t>{{1, 1}, {2, 4096}, {4, 4097}, {7, 1}}));
    EXPECT_EQ(fs::file_size(into + "/" + file(2)), DATA_BLOCK + BLOCK_SIZE);
    EXPECT_EQ(fs::file_size(into + "/" + file(3)), 0x8000U);

    // What was written back tells it too.
    device.write(static_cast<std::uint64_t>(extent_offset(sb, 2)),
                 encode(extents(1)[1], sb.extent_size));
    done = run(device, {});
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_EQ(done.err, complaint(1 + 4097 + 1) + total_line(read_tree(into)));
    EXPECT_EQ(fs::file_size(into + "/" + file(2)), 0x8000U);
}

TEST_F(SalvageV1, SizesThatContradictTheBitmap)
{
    for (const std::size_t count : {1, 2}) {
        std::vector<ExtentV1> extents{extent(1, 2, 0, 0xF0), extent(2, 2, 1, 0xF0),
                                      extent(3, 3, 0, 0xF0), extent(4, 3, 1, 0xF0),
                                      extent(5, 3, 2, 0xF0, 1)};
        extents[0].size = 3 * BLOCK_SIZE + (count == 1 ? 1 : 0);
        extents[1].size = 4 * BLOCK_SIZE + 1;
        extents[4].size = 1;
        std::vector<HeldPiece> held;
        const Device device = device_with(extents, &held);
        const RunResult done = run(device, {});
        EXPECT_EQ(done.status, 0) << done;
        EXPECT_EQ(done.err,
                  text("zu_tierctl: %s of the table extent %s a size that is not that of "
                       "the pages in the bitmap: these pages are salvaged\n",
                       count == 1 ? "1 entry" : "2 entries", count == 1 ? "has" : "have") +
                      total_line(expected_tree(dirty(held))));
        expect_same(read_tree(into), expected_tree(dirty(held)));
    }
}

// Wherever a super block says that the data are.
TEST_F(SalvageV1, DataOutsideOfTheDevice)
{
    const auto extents = {extent(1, 2, 0, 3), extent(3, 3, 0xFFFFFFFF, 1)};
    for (const std::uint64_t offset :
         {sb.data_offset + 512, std::uint64_t{1} << 50, BIT_63, 0 - std::uint64_t{4096}}) {
        SCOPED_TRACE(offset);
        SuperV1 wrong = sb;
        wrong.data_offset = offset;
        Device device = device_with(extents);
        device.write(4096, encode(wrong));
        const RunResult done = run(device);
        EXPECT_EQ(done.status, 1);
        EXPECT_EQ(done.err, "zu_tierctl: 12288 bytes cannot be read: see " + into +
                                "/manifest.ndjson\nzu_tierctl: copied 0 bytes of 2 files\n");
        for (const auto &line : read_tree(into).manifest)
            EXPECT_EQ(line["state"], "unreadable");
        EXPECT_EQ(fs::file_size(into + "/" + file(2)), 8192U);
        const RunResult domain = run_ctl({"domain", "--all", device.path()});
        EXPECT_EQ(domain.status, 0) << domain;
    }
}

TEST_F(SalvageV1, TablesThatDoNotFit)
{
    for (const std::uint32_t size : {0U, 3U, 4097U, 0xFFFFFFFFU}) {
        SuperV1 wrong = sb;
        wrong.extent_size = size;
        Device device = device_with({extent(1, 2, 0, 3)});
        device.write(4096, encode(wrong));
        const RunResult done = run(device);
        EXPECT_EQ(done.status, 1) << done;
        EXPECT_EQ(done.err, "zu_tierctl: 20 entries of the table extent are damaged: what is held "
                            "there is not known\nzu_tierctl: copied 0 bytes of 0 files\n");
        EXPECT_TRUE(read_tree(into).files.empty());
    }
}

// Nothing is begun that cannot be finished.
TEST_F(SalvageV1, NoRoom)
{
    sb = super_v1(4, 8, 3000);
    sb.block_size = 0xFFFFF000;
    std::vector<ExtentV1> extents;
    for (std::uint64_t no = 0; no < sb.block_cnt; ++no) {
        extents.push_back(extent(no, 2, static_cast<std::uint32_t>(no), 0));
        extents.back().size = sb.block_size;
    }
    const RunResult done = run(device_with(extents));
    EXPECT_EQ(done.status, 1) << done;
    EXPECT_TRUE(done.err.starts_with("zu_tierctl: " + into + " has room for ")) << done;
    const std::uint64_t needed = sb.block_cnt * (std::uint64_t{sb.block_size} + 400);
    EXPECT_TRUE(done.err.ends_with(text(" bytes, and %lu are to be salvaged\n", needed))) << done;
    EXPECT_FALSE(fs::exists(into));
}

// Layout V2

class SalvageV2 : public SalvageHostile {
protected:
    const SuperV2 sb = [] {
        SuperV2 super = super_v2(3, 5, 10);
        super.block_size = DATA_BLOCK;
        return super;
    }();
    const std::string file =
        uuid_text(brick_used(1).uuid) + "/" + uuid_text(inode_v2_used(2, 1).uuid);

    static ExtentV2 extent(std::uint64_t no, const std::map<std::uint32_t, MappedMeta> &maps)
    {
        ExtentV2 made = extent_v2_used(no, 2);
        made.maps = maps;
        return made;
    }

    Device device_with(const std::vector<ExtentV2> &extents,
                       std::vector<HeldPiece> *held = nullptr) const
    {
        Device device = make_v2_device(sb, {brick_used(1)}, {inode_v2_used(2, 1)}, extents);
        if (held != nullptr)
            *held =
                fill(device, "v2", sb.data_offset + std::uint64_t{sb.block_cnt} * sb.block_size);
        return device;
    }
};

TEST_F(SalvageV2, PiecesThatOverlap)
{
    std::vector<HeldPiece> held;
    const Device device =
        device_with({extent(1, {{0, {0, 0, 8192, 0, 2}}, {1, {20000, 1, 100, 2, 1}}}),
                     extent(3, {{0, {8191, 0, 5000, 0, 2}}, {4, {1000000, 0, 4096, 8, 1}}}),
                     extent(5, {{0, {500000, 0, 8192, 0, 2}},
                                {2, {504096, 1, 8192, 4, 2}},
                                {3, {508000, 0, 10, 6, 1}}})},
                    &held);
    ASSERT_EQ(held.size(), 7U);
    for (HeldPiece &piece : held) {
        EXPECT_EQ(piece.file, file);
        if (piece.extent != 1) {
            piece.conflict = piece.extent == 3 ? 1 : 5;
            piece.file += text(".conflict-%lu", piece.extent);
        }
    }
    held[5].file += "-2";
    held[6].file += "-3";
    expect(device, held, conflict(1, 3) + conflict(5, 5));
}

// Where the super block hides the pieces, nothing is salvaged, and that is said.
TEST_F(SalvageV2, PiecesThatAreNotDescribed)
{
    Device device = device_with({extent(1, {{0, {0, 0, 8192, 0, 2}}}), extent(3, {})});
    SuperV2 wrong = sb;
    wrong.size_mapped_meta = 24;
    device.write(4096, encode(wrong));
    const std::string complaint = "zu_tierctl: 2 entries of the table extent are not described by "
                                  "the super block: what is held there is not known\n";
    const RunResult done = run(device);
    EXPECT_EQ(done.status, 1) << done;
    EXPECT_EQ(done.err, complaint + "zu_tierctl: copied 0 bytes of 0 files\n");
    EXPECT_TRUE(read_tree(into).manifest.empty());
    const RunResult domain = run_ctl({"domain", "--dirty", device.path()});
    EXPECT_EQ(domain.status, 1) << domain;
    EXPECT_EQ(domain.err, complaint);
}

TEST_F(SalvageV2, PlacesThatNoFileHas)
{
    const Device device = [this] {
        Device made = device_with({extent(1, {{0, {BIT_63 - 10, 0, 4096, 0, 1}},
                                              {1, {0 - std::uint64_t{100}, 0, 5000, 1, 2}},
                                              {2, {0, 0, 100, 4, 1}}})});
        made.truncate(sb.data_offset + std::uint64_t{sb.block_cnt} * sb.block_size);
        for (std::uint64_t at = 0; at < DATA_BLOCK; at += BLOCK_SIZE)
            made.write(sb.data_offset + DATA_BLOCK + at, Block{});
        return made;
    }();
    for (int again = 0; again < 2; ++again) {
        const RunResult done = again == 0
                                   ? run(device)
                                   : run_ctl({"salvage", "--all", "--resume", device.path(), into});
        EXPECT_EQ(done.status, 1);
        EXPECT_EQ(done.err, "zu_tierctl: 9096 bytes belong where no file can have them: see " +
                                into +
                                "/manifest.ndjson\nzu_tierctl: copied 100 bytes of 1 file\n");
        const SalvageTree tree = read_tree(into);
        ASSERT_EQ(tree.manifest.size(), 3U);
        EXPECT_EQ(tree.manifest[0]["state"], "no place");
        EXPECT_EQ(tree.manifest[0]["offset"], BIT_63 - 10);
        EXPECT_EQ(tree.manifest[1]["state"], "no place");
        EXPECT_EQ(tree.manifest[1]["offset"], 0 - std::uint64_t{100});
        EXPECT_EQ(tree.manifest[2]["state"], "copied");
        EXPECT_EQ(tree.files.at(file), std::string(100, '\0'));
    }
}

// Layout V3

class SalvageV3 : public SalvageHostile {
protected:
    const SuperV3 sb = super_v3(3, 5, 2048);

    Device device_with(const std::vector<ShardV3> &shards, const std::vector<ExtentV3> &extents,
                       std::vector<HeldPiece> *held) const
    {
        ShardBlockV3 shard_block;
        shard_block.shards = shards;
        ExtentBlockV3 extent_block;
        extent_block.extents = extents;
        Device device = make_v3_device(sb, {brick_v3_used(1)}, {inode_v3_used(2, 1)},
                                       {{0, shard_block}}, {{0, extent_block}});
        *held = fill(device, "v3", device.size());
        return device;
    }
};

TEST_F(SalvageV3, AddressesAndShardsThatAreTaken)
{
    std::vector<HeldPiece> held;
    const Device device = device_with({{.slot = 1, .ino = 2, .index = 7},
                                       {.slot = 3, .ino = 2, .index = 7},
                                       {.slot = 9, .ino = 4}},
                                      {{.slot = 0, .lba = 5, .shard = 1},
                                       {.slot = 1, .lba = 6, .shard = 1},
                                       {.slot = 4, .lba = 5, .shard = 3},
                                       {.slot = 5, .lba = 5, .shard = 9},
                                       {.slot = 6, .lba = 5, .shard = 77},
                                       {.slot = 8, .lba = 5, .shard = 1}},
                                      &held);
    const std::string file =
        uuid_text(brick_v3_used(1).uuid) + "/" + uuid_text(inode_v3_used(2, 1).uuid) + "/7";
    const std::vector<std::string> files{file + "/5.block",          file + "/6.block",
                                         file + ".shard-3/5.block",  "unknown/inode-4/0/5.block",
                                         "unknown/shard-77/5.block", file + "/5.block.conflict-8"};
    ASSERT_EQ(held.size(), files.size());
    for (std::size_t i = 0; i < files.size(); ++i)
        held[i].file = files[i];
    held[5].conflict = 0;
    expect(device, held, conflict(0, 8));
}

TEST_F(SalvageV3, BlocksLargerThanAnyHas)
{
    std::vector<HeldPiece> held;
    Device device = device_with({}, {}, &held);
    SuperV3 wrong = sb;
    wrong.block_size = std::uint64_t{1} << 40;
    device.write(4096, encode(wrong));
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"salvage", device.path(), into}, {"domain", "--dirty", device.path()}})
        expect_complaint(run_ctl(args), 1,
                         device.path() + ": its super block gives data blocks of 1099511627776 "
                                         "bytes, more than any has");
    EXPECT_EQ(run_ctl({"domain", device.path()}).status, 0);
}

} // namespace
