// The rules of zu_tierctl check about the content of an entry: what breaks each, and what just does
// not.

#include "check_run.h"
#include "sample_image.h"

#include <functional>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr std::uint64_t PAST_ANY = std::uint64_t{1} << 63; // offsets are below

template <class World>
class CheckRulesOf : public CheckedWorld<World> {
protected:
    void expect(const std::vector<std::string> &expected) const
    {
        expect_findings(this->world.device(), expected);
    }

    // The text of the only finding.
    std::string only_text() const
    {
        const Device device = this->world.device();
        const Report report = run_check(device.path());
        EXPECT_EQ(report.findings.size(), 1U);
        return report.findings.empty() ? "" : report.findings[0].text;
    }

    std::int64_t brick_at(std::uint32_t no) const { return brick_offset(this->world.sb, no); }

    // Of a path that it may have.
    void identify_brick(std::uint32_t no, const Uuid &uuid)
    {
        BrickV1 &brick = this->world.bricks[no];
        brick.uuid = uuid;
        brick.brickid.replace(brick.brickid.size() - 36, 36, uuid_text(uuid));
    }
};

template <class World>
class CheckRules : public CheckRulesOf<World> {
};
TYPED_TEST_SUITE(CheckRules, AllWorlds);

template <class World>
class CheckExtentRules : public CheckRulesOf<World> {
};
TYPED_TEST_SUITE(CheckExtentRules, OldWorlds);

using CheckRulesV1 = CheckRulesOf<WorldV1>;
using CheckRulesV2 = CheckRulesOf<WorldV2>;
using CheckRulesV3 = CheckRulesOf<WorldV3>;

TYPED_TEST(CheckRules, UseFlags)
{
    this->world.bricks[1].use = 0x8000'0000;
    this->world.inodes[2].use = 2;
    const Device device = this->world.device();
    const Report report = run_check(device.path());
    ASSERT_EQ(report.findings.size(), 2U);
    EXPECT_EQ(summary(report.findings[0]), warning("odd_use", "brick", 1, this->brick_at(1)));
    EXPECT_EQ(report.findings[0].text, "its use flag is 2147483648, which is odd: 1 is usual");
    EXPECT_EQ(summary(report.findings[1]), warning("odd_use", "inode", 2, this->inode_at(2)));
    EXPECT_EQ(report.tables.at("inode").in_use, 3U);
}

TYPED_TEST(CheckRules, NilIdentities)
{
    this->identify_brick(0, Uuid{});
    this->world.inodes[1].uuid = {};
    this->expect({warning("nil_identity", "brick", 0, this->brick_at(0)),
                  warning("nil_identity", "inode", 1, this->inode_at(1))});
    this->world.inodes[1].uuid[15] = 1;
    this->expect({warning("nil_identity", "brick", 0, this->brick_at(0))});
}

TYPED_TEST(CheckRules, PathOfAnotherIdentity)
{
    this->world.bricks[1].uuid[15] ^= 1;
    EXPECT_EQ(this->only_text(), "its path does not end in its identity " +
                                     uuid_text(this->world.bricks[1].uuid) + ", which is odd");
    this->expect({warning("odd_brick_path", "brick", 1, this->brick_at(1))});
}

TYPED_TEST(CheckRules, PathInCapitals)
{
    this->identify_brick(1, numbered_uuid(0xAB));
    for (char &c : this->world.bricks[1].brickid)
        c = static_cast<char>(toupper(c));
    this->expect({});
}

TYPED_TEST(CheckRules, ControlCharactersInAPath)
{
    for (const char c : {'\x01', '\n', '\x1F', '\x7F'}) {
        this->world.bricks[1].brickid[17] = c;
        EXPECT_EQ(
            this->only_text(),
            text("character 18 of its path is the control character 0x%02x, which is odd", c));
        this->expect({warning("odd_brick_path", "brick", 1, this->brick_at(1))});
    }
    for (const char c : {' ', '~', '\x80', '\xFF'}) {
        this->world.bricks[1].brickid[17] = c;
        this->expect({});
    }
}

TYPED_TEST(CheckRules, PathOfTwoBricks)
{
    this->world.bricks[1].brickid = this->world.bricks[0].brickid;
    const Device device = this->world.device();
    const Report report = run_check(device.path());
    ASSERT_EQ(report.findings.size(), 2U);
    EXPECT_EQ(summary(report.findings[0]),
              warning("odd_brick_path", "brick", 1, this->brick_at(1)));
    EXPECT_EQ(summary(report.findings[1]), error("duplicate_brick", "brick", 1, this->brick_at(1)));
    EXPECT_EQ(report.findings[1].text,
              "path \"" + this->world.bricks[0].brickid + "\" is also that of brick 0");
}

// What follows the end of a path is not part of it.
TYPED_TEST(CheckRules, PathsAreComparedUpToTheirEnd)
{
    std::vector<BrickV1> bricks(this->world.bricks.begin(), this->world.bricks.end());
    Device device = this->world.device();
    Block block = device.block(static_cast<std::uint64_t>(this->brick_at(1)));
    const std::string path = bricks[0].brickid;
    for (std::size_t i = 0; i < path.size(); ++i)
        put_u8(block, 32 + i, static_cast<std::uint8_t>(path[i]));
    put_u8(block, 159, 7);
    seal(block, BrickV1::LENGTH);
    put_block(device, this->brick_at(1), block);
    expect_findings(device, {warning("odd_brick_path", "brick", 1, this->brick_at(1)),
                             error("duplicate_brick", "brick", 1, this->brick_at(1))});
    put_u8(block, 32, 'X');
    seal(block, BrickV1::LENGTH);
    put_block(device, this->brick_at(1), block);
    expect_findings(device, {warning("odd_brick_path", "brick", 1, this->brick_at(1))});
}

TYPED_TEST(CheckRules, UnlinkedWithoutATime)
{
    this->world.inodes[1].dtime = 0;
    this->expect({warning("odd_unlink", "inode", 1, this->inode_at(1))});
    this->world.inodes[1].unlink = 0;
    this->expect({});
}

TYPED_TEST(CheckRules, FilesPastAnyOffset)
{
    this->world.inodes[0].size = PAST_ANY - 1;
    this->expect({});
    this->world.inodes[0].size = PAST_ANY;
    this->expect({error("file_too_large", "inode", 0, this->inode_at(0))});
    this->world.inodes[0].size = ~std::uint64_t{0};
    EXPECT_EQ(this->only_text(), "its 18446744073709551615 bytes reach past any offset");
}

TYPED_TEST(CheckRules, FreeEntriesMayHoldAnything)
{
    this->world.bricks[1].use = 0;
    this->world.bricks[1].uuid = {};
    this->world.bricks[1].brickid = "\n";
    this->world.inodes[1].brick_no = 0;
    this->world.inodes.push_back(this->world.inodes[0]);
    this->world.inodes[3].no = 3;
    this->world.inodes[3].use = 0;
    this->world.inodes[3].uuid = {};
    this->world.inodes[3].size = PAST_ANY;
    this->world.inodes[3].dtime = 0;
    this->expect({});
}

TYPED_TEST(CheckExtentRules, UseFlag)
{
    this->world.extents[2].use = 0xFFFF;
    this->expect({warning("odd_use", "extent", 2, this->extent_at(2))});
}

TYPED_TEST(CheckExtentRules, Sizes)
{
    const std::uint32_t block = this->world.sb.block_size;
    this->world.extents[0].size = 1;
    this->world.extents[1].size = block;
    this->expect({});
    this->world.extents[0].size = 0;
    this->world.extents[1].size = block + 1;
    this->expect({warning("empty_extent", "extent", 0, this->extent_at(0)),
                  error("extent_too_long", "extent", 1, this->extent_at(1))});
    this->world.extents[0].size = ~std::uint64_t{0};
    this->world.extents[1].size = 1;
    EXPECT_EQ(this->only_text(),
              text("it holds 18446744073709551615 bytes, a block has %u", block));
}

TYPED_TEST(CheckExtentRules, Bitmaps)
{
    ASSERT_EQ(this->world.sb.extent_size, 56U + 2 * 8);
    this->world.extents[1].bitmap = {0, std::uint64_t{1} << 63};
    this->expect({});
    this->world.extents[1].bitmap = {0, 0};
    this->expect({warning("empty_bitmap", "extent", 1, this->extent_at(1))});
}

TYPED_TEST(CheckExtentRules, BlocksOfFiles)
{
    const std::uint64_t block = this->world.sb.block_size;
    this->world.extents.resize(2);
    if constexpr (requires { this->world.extents[0].maps; })
        this->world.extents[0].maps.clear(); // which have places of their own
    this->world.extents[0].block = 0xFFFF'FFFF;
    this->world.inodes[0].size = 0xFFFF'FFFF * block + 1;
    this->world.extents[1].block = 7;
    this->world.inodes[1].size = 7 * block + 1;
    this->expect({});
    this->world.inodes[1].size--;
    this->expect({error("extent_past_file", "extent", 1, this->extent_at(1))});
    EXPECT_EQ(this->only_text(),
              text("block 7 of its file begins at byte %lu, the file has %lu bytes", 7 * block,
                   7 * block));
    this->world.inodes[0].size--;
    this->expect({error("extent_past_file", "extent", 0, this->extent_at(0)),
                  error("extent_past_file", "extent", 1, this->extent_at(1))});
    this->world.extents[1].use = 0;
    this->expect({error("extent_past_file", "extent", 0, this->extent_at(0))});
}

TYPED_TEST(CheckExtentRules, FileWithoutBytes)
{
    this->world.inodes[1].size = 0;
    this->world.extents[1].block = 0;
    this->expect({error("extent_past_file", "extent", 1, this->extent_at(1))});
    this->world.inodes[1].size = 1;
    this->expect({});
}

// The size of a file that is not known is none.
TYPED_TEST(CheckExtentRules, FilesThatAreDamaged)
{
    this->world.inodes[1].size = 0;
    this->world.inodes[1].checksum = 1;
    this->expect({error("bad_checksum", "inode", 1, this->inode_at(1)),
                  warning("extent_of_unknown_inode", "extent", 1, this->extent_at(1))});
}

TYPED_TEST(CheckExtentRules, TableByItself)
{
    this->world.inodes[1].size = 0;
    expect_findings(this->world.device(),
                    {error("extent_past_file", "extent", 1, this->extent_at(1))},
                    {"--table", "extent"});
}

// Bytes that do not fill a word are no part of a bitmap.
TEST_F(CheckRulesV1, ExtentsWithoutBitmap)
{
    world.sb.extent_size = 63;
    for (ExtentV1 &extent : world.extents)
        extent.bitmap.clear();
    expect({});
    world.sb.extent_size = 64;
    world.extents.resize(1);
    expect({warning("empty_bitmap", "extent", 0, extent_at(0))});
}

TEST_F(CheckRulesV2, TextsOfPieces)
{
    struct {
        MappedMeta piece;
        std::string text;
    } const cases[] = {
        {{0, 0, 4097, 0, 1}, "piece 31 has 4097 bytes in 1 pages of 4096"},
        {{0, 0, 1, 0, 0}, "piece 31 has 1 bytes in 0 pages of 4096"},
        {{0, 0, 8192, 0, 3},
         "piece 31 has 8192 bytes in 3 pages of 4096, which is odd: they need 2"},
        {{0, 0, 8 * 4096, 255, 8}, "piece 31 ends with page 262, counted from 0; a block has 256"},
    };
    world.extents[0].maps.clear();
    for (const auto &[piece, text] : cases) {
        world.extents[0].maps[31] = piece;
        EXPECT_EQ(only_text(), text);
    }
}

TEST_F(CheckRulesV2, PiecesPastTheirFile)
{
    world.extents.resize(1);
    world.extents[0].block = 0;
    world.extents[0].maps = {{0, {0, 1, 4096, 0, 1}}, {2, {1'000'000, 1, 4096, 1, 1}}};
    world.inodes[0].size = 1'000'001;
    expect({});
    world.inodes[0].size = 1'000'000;
    expect({error("piece_past_file", "extent", 0, extent_at(0))});
    EXPECT_EQ(only_text(), "piece 2 begins at byte 1000000 of its file, which has 1000000");
    world.extents[0].maps[2].orig_len = 0; // no piece
    expect({});
}

TEST_F(CheckRulesV2, PiecesOfOneOffset)
{
    world.extents[0].maps = {{0, {4096, 0, 1, 0, 1}},
                             {5, {8192, 0, 1, 5, 1}},
                             {7, {4096, 1, 1, 7, 1}},
                             {9, {4096, 0, 0, 9, 1}}}; // empty
    EXPECT_EQ(only_text(), "piece 7 comes from offset 4096, as piece 0 does");
    expect({error("pieces_of_one_offset", "extent", 0, extent_at(0))});
    world.extents[1].maps = {{0, {4096, 0, 1, 0, 1}}}; // of another extent
    world.extents[0].maps[7].offset++;
    expect({});
}

TEST_F(CheckRulesV3, IndexesOfShards)
{
    const std::uint64_t block = world.sb.block_size;
    world.inodes[1].size = 2 * block + 1; // at most three shards
    world.shards[0].shards[1].index = 2;
    expect({});
    world.shards[0].shards[1].index = 3;
    const std::int64_t at = word_offset(shard_offset(world.sb, 0), 511);
    expect({error("shard_past_file", "shard", 511, at)});
    EXPECT_EQ(only_text(), text("its index is 3, but the file has %lu bytes, and a shard holds a "
                                "block of %lu or more",
                                2 * block + 1, block));
    world.inodes[1].size = 0;
    world.shards[0].shards[1].index = 0;
    expect({error("shard_past_file", "shard", 511, at)});
}

TEST_F(CheckRulesV3, ReservedBitsOfShards)
{
    world.shards[0].shards[0].reserved = 0x1000;
    world.shards[0].shards.push_back({.slot = 9, .ino = 0, .in_use = 0, .reserved = 1});
    expect({warning("reserved_bits", "shard", 1, word_offset(shard_offset(world.sb, 0), 1))});
    EXPECT_EQ(only_text(), "its reserved bits are 0x1000, which is odd: 0 is usual");
}

// Each alone, in a word in the middle of a block and in its last one.
TEST_F(CheckRulesV3, WordsOfExtents)
{
    const ExtentV3 sound{.slot = 100, .lba = 5, .shard = 1, .dirty = 1, .bitmap = 0x8000};
    struct {
        std::function<void(ExtentV3 &)> change;
        std::string severity;
        std::string kind;
    } const cases[] = {
        {[](ExtentV3 &) {}, "", ""},
        {[](ExtentV3 &extent) { extent.sense = 15; }, "", ""},
        {[](ExtentV3 &extent) { extent.demote = 1; }, "", ""},
        {[](ExtentV3 &extent) { extent.dirty = 0; }, "", ""},
        {[](ExtentV3 &extent) { extent.in_use = 0; }, "error", "free_but_dirty"},
        {[](ExtentV3 &extent) { extent.bitmap = 0; }, "error", "dirty_but_empty"},
        {[](ExtentV3 &extent) { extent.dm_err = 1; }, "warning", "error_flag"},
        {[](ExtentV3 &extent) { extent.reserved = 1; }, "warning", "reserved_bits"},
        {[](ExtentV3 &extent) { extent.bitmap = extent.dirty = 0; }, "warning", "empty_bitmap"},
        {[](ExtentV3 &extent) { extent.in_use = extent.bitmap = 0; }, "error", "free_but_dirty"},
        {[](ExtentV3 &extent) { extent.in_use = extent.dirty = 0; }, "", ""},
        {[](ExtentV3 &extent) {
             extent.in_use = extent.dirty = 0;
             extent.dm_err = extent.reserved = 1;
         },
         "", ""},
    };
    const std::int64_t block = extent_offset(world.sb, 3);
    for (const std::uint32_t slot : {0U, 100U, 511U}) {
        for (const auto &[change, severity, kind] : cases) {
            ExtentV3 changed = sound;
            changed.slot = slot;
            change(changed);
            world.extents[3].extents = {changed};
            std::vector<std::string> expected;
            if (!kind.empty())
                expected.push_back((severity == "error" ? error : warning)(
                    kind, "extent", 3 * 512 + slot, word_offset(block, slot), "entry"));
            expect(expected);
        }
    }
}

// Samples of sizes that leave their entries little room.
TEST(CheckSamples, HaveNothingOdd)
{
    const struct {
        const char *layout;
        std::vector<std::string> args;
    } cases[] = {
        {"v1", {"--extent-size", "64", "--blocks", "2000"}},
        {"v1", {"--extent-size", "56"}},
        {"v2", {"--extent-size", "64", "--blocks", "2000"}},
        {"v2", {"--block-size", "266240"}},
        {"v3", {"--blocks", "1"}},
        {"v3", {"--inodes", "2", "--blocks", "1", "--extents", "65536"}},
        {"v3", {"--extents", "65536", "--seed", "7"}},
    };
    for (const auto &[layout, args] : cases)
        expect_findings(make_sample(args, layout), {});
}

// Findings of words and of references come in the order of the entries.
TEST_F(CheckRulesV3, OrderOfFindings)
{
    world.extents[3].extents = {
        {.slot = 1, .shard = 2, .bitmap = 1},
        {.slot = 2, .lba = 9, .shard = 1, .bitmap = 1, .dm_err = 1, .reserved = 1},
        {.slot = 3, .shard = 3, .bitmap = 1}};
    const std::int64_t block = extent_offset(world.sb, 3);
    expect({error("extent_of_free_shard", "extent", 1537, word_offset(block, 1)),
            warning("error_flag", "extent", 1538, word_offset(block, 2)),
            warning("reserved_bits", "extent", 1538, word_offset(block, 2)),
            error("extent_of_free_shard", "extent", 1539, word_offset(block, 3))});
}

} // namespace
