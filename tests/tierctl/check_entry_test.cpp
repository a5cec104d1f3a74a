// What zu_tierctl check finds wrong with entries, and with their references to one another.

#include "check_run.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

template <class World>
class CheckOf : public CheckedWorld<World> {
protected:
    void expect(const std::vector<std::string> &expected) const
    {
        expect_findings(this->world.device(), expected);
    }
};

template <class World>
class CheckEntries : public CheckOf<World> {
};
TYPED_TEST_SUITE(CheckEntries, AllWorlds);

template <class World>
class CheckExtents : public CheckOf<World> {
};
TYPED_TEST_SUITE(CheckExtents, OldWorlds);

using CheckV2 = CheckOf<WorldV2>;
using CheckV3 = CheckOf<WorldV3>;

TYPED_TEST(CheckEntries, NothingIsWrong) { this->expect({}); }

TYPED_TEST(CheckEntries, Counts)
{
    const Device device = this->world.device();
    const Report report = run_check(device.path());
    EXPECT_EQ(report.tables.at("super"), (Counts{1, 1, 0, 0, 0}));
    EXPECT_EQ(report.tables.at("brick"), (Counts{3, 2, 1, 0, 0}));
    EXPECT_EQ(report.tables.at("inode"), (Counts{5, 3, 2, 0, 0}));
    EXPECT_EQ(report.layout, "v" + std::to_string(this->world.sb.version >> 16));
}

TYPED_TEST(CheckEntries, BrickPath)
{
    this->world.bricks[1].brickid.pop_back();
    this->expect({error("bad_brick_path", "brick", 1, brick_offset(this->world.sb, 1))});
    this->world.bricks[1].brickid = std::string(128, 'x');
    this->expect({error("bad_brick_path", "brick", 1, brick_offset(this->world.sb, 1))});
}

TYPED_TEST(CheckEntries, PathOfFreeBrick)
{
    this->world.bricks.push_back({this->world.bricks[1]});
    this->world.bricks[2].no = 2;
    this->world.bricks[2].use = 0;
    this->world.bricks[2].brickid = "short";
    this->expect({});
}

TYPED_TEST(CheckEntries, BrickThatIsFree)
{
    this->world.inodes[2].brick_no = 2;
    this->expect({error("inode_of_free_brick", "inode", 2, this->inode_at(2))});
}

TYPED_TEST(CheckEntries, BrickThatDoesNotExist)
{
    for (const std::uint32_t no : {3U, 0xFFFF'FFFFU}) {
        this->world.inodes[2].brick_no = no;
        this->expect({error("inode_of_missing_brick", "inode", 2, this->inode_at(2))});
    }
}

TYPED_TEST(CheckEntries, BrickThatIsDamaged)
{
    this->world.bricks[1].checksum = 1;
    this->expect({error("bad_checksum", "brick", 1, brick_offset(this->world.sb, 1)),
                  warning("inode_of_unknown_brick", "inode", 1, this->inode_at(1))});
}

TYPED_TEST(CheckEntries, BrickOfAFreeInode)
{
    this->world.inodes[1].use = 0;
    this->world.inodes[1].brick_no = 2;
    const Device device = this->world.device();
    for (const Finding &finding : run_check(device.path()).findings)
        EXPECT_NE(finding.table, "inode");
}

TYPED_TEST(CheckEntries, Identities)
{
    this->world.bricks[1].uuid = this->world.bricks[0].uuid;
    this->world.bricks[1].brickid = this->world.bricks[0].brickid;
    this->world.bricks[1].brickid[0] = 'x';
    this->world.inodes[1].uuid = this->world.inodes[0].uuid;
    this->world.inodes[2].uuid = this->world.inodes[0].uuid;
    const Device device = this->world.device();
    const Report report = run_check(device.path());
    ASSERT_EQ(report.findings.size(), 3U);
    EXPECT_EQ(summary(report.findings[0]),
              error("duplicate_brick", "brick", 1, brick_offset(this->world.sb, 1)));
    EXPECT_EQ(summary(report.findings[1]), error("duplicate_inode", "inode", 1, this->inode_at(1)));
    EXPECT_EQ(summary(report.findings[2]), error("duplicate_inode", "inode", 2, this->inode_at(2)));
    EXPECT_EQ(report.findings[1].text,
              "identity " + uuid_text(this->world.inodes[0].uuid) + " is also that of inode 0");
    EXPECT_EQ(report.findings[2].text, report.findings[1].text);
}

TYPED_TEST(CheckEntries, IdentitiesThatDifferInTheirLastByte)
{
    this->world.inodes[1].uuid = this->world.inodes[0].uuid;
    this->world.inodes[1].uuid[15] ^= 1;
    this->world.bricks[1].uuid = this->world.bricks[0].uuid;
    this->world.bricks[1].uuid[0] ^= 1;
    this->world.bricks[1].brickid.replace(57, 36, uuid_text(this->world.bricks[1].uuid));
    this->expect({});
}

TYPED_TEST(CheckExtents, InodeThatIsFree)
{
    this->world.extents[1].inode_no = 3;
    this->expect({error("extent_of_free_inode", "extent", 1, this->extent_at(1))});
}

TYPED_TEST(CheckExtents, InodeThatDoesNotExist)
{
    this->world.extents[1].inode_no = 5;
    this->world.extents[2].inode_no = 0xFFFF'FFFF;
    this->expect({error("extent_of_missing_inode", "extent", 1, this->extent_at(1)),
                  error("extent_of_missing_inode", "extent", 2, this->extent_at(2))});
}

TYPED_TEST(CheckExtents, InodeThatIsDamaged)
{
    this->world.inodes[2].checksum = 1;
    this->expect({error("bad_checksum", "inode", 2, this->inode_at(2)),
                  warning("extent_of_unknown_inode", "extent", 2, this->extent_at(2))});
}

TYPED_TEST(CheckExtents, InodeOfAFreeExtent)
{
    this->world.extents[1].inode_no = 3;
    this->world.extents[1].use = 0;
    this->expect({});
}

TYPED_TEST(CheckExtents, BlockOfTwo)
{
    this->world.extents[3].block = this->world.extents[0].block; // both of inode 0
    this->world.extents[1].block = this->world.extents[0].block;
    this->expect({error("duplicate_extent", "extent", 3, this->extent_at(3))});
}

TYPED_TEST(CheckExtents, Counts)
{
    const Device device = this->world.device();
    EXPECT_EQ(run_check(device.path()).tables.at("extent"), (Counts{6, 4, 2, 0, 0}));
}

// Pieces of extent 0, one kind of mistake at a time. A block has 256 pages.
struct PieceCase {
    std::uint32_t mapno;
    MappedMeta piece;
    std::vector<std::string> kinds;
};

TEST_F(CheckV2, Pieces)
{
    ASSERT_EQ(world.sb.block_size, 256U * 4096);
    const PieceCase cases[] = {
        {31, {0, 0, 1, 255, 1}, {}},
        {31, {0, 0, 1, 256, 0}, {"piece_exceeds_pages"}},
        {31, {0, 0, 1, 256, 1}, {"piece_outside_block"}},
        {31, {0, 0, 4097, 255, 2}, {"piece_outside_block"}},
        {31, {0, 0, 1, 0xFFFF, 0xFFFF}, {"odd_piece_pages", "piece_outside_block"}},
        {31, {0, 0, world.sb.block_size + 1, 255, 1}, {"piece_too_long", "piece_exceeds_pages"}},
        {31, {0, 0, 4096, 255, 1}, {}},
        {31, {0, 0, 4097, 255, 1}, {"piece_exceeds_pages"}},
        {31, {0, 0, 4096, 254, 2}, {"odd_piece_pages"}},
        {31, {0, 0, 4097, 254, 2}, {}},
        {31, {4096, 0, 1, 255, 1}, {"pieces_of_one_offset"}}, // with piece 3
        {31, {0, 0, 1, 200, 1}, {"pieces_overlap"}},          // with piece 2
        {31, {0, 0, 1, 199, 1}, {"pieces_overlap"}},          // with piece 3
        {31, {0, 0, 1, 199, 0}, {"piece_exceeds_pages"}},
        {31,
         {0, 0, 1, 0, 202},
         {"odd_piece_pages", "pieces_overlap", "pieces_overlap", "pieces_overlap"}},
        {31, {0, 0, 0, 200, 1}, {}}, // empty
        {32, {0, 0, 1, 200, 1}, {}}, // after the last piece lies the hot area
    };
    for (const auto &[mapno, piece, kinds] : cases) {
        SCOPED_TRACE(text("%u: %hu, %hu", mapno, piece.begin, piece.cnt));
        WorldV2 changed;
        if (mapno < changed.sb.map_cnt)
            changed.extents[0].maps[mapno] = piece;
        else
            changed.extents[0].hot_area.assign(64, 0xFF);
        std::vector<std::string> expected;
        for (const std::string &kind : kinds) {
            const bool odd = kind.starts_with("odd_");
            expected.push_back((odd ? warning : error)(kind, "extent", 0, extent_at(0), "entry"));
        }
        expect_findings(changed.device(), expected);
    }
}

// Of a last piece that ends after the checksummed bytes nothing is known, nor of those before it.
TEST_F(CheckV2, PiecesPastTheChecksummedBytes)
{
    world.sb.hot_size = 0;
    world.extents[0].maps[31] = {0, 0, 1, 256, 1};
    const std::uint32_t end = world.sb.extent_size + world.sb.total_map_size;
    for (const std::uint32_t missing : {0U, 1U}) {
        world.sb.total_extent_size = end - missing;
        const Device device = world.device();
        std::vector<std::string> found;
        for (const Finding &finding : run_check(device.path()).findings) {
            if (finding.table == "extent")
                found.push_back(finding.kind);
        }
        EXPECT_EQ(found, missing == 0 ? std::vector<std::string>{"piece_outside_block"}
                                      : std::vector<std::string>{});
    }
}

TEST_F(CheckV2, PiecesOfAFreeExtent)
{
    world.extents[0].maps[31] = {0, 0, 1, 256, 1};
    world.extents[0].use = 0;
    expect({});
}

// One device for all findings, because its area is large.
TEST_F(CheckV2, ExpansionInodes)
{
    set_expansion(world.sb, EXPANSION_UNIT, true);
    const std::uint32_t first = world.sb.inode_cnt;
    const std::uint32_t last = first + EXPANSION_UNIT - 1;
    world.inodes.push_back(world.inode(first, 1));
    world.inodes.push_back(world.inode(last, 2));
    world.inodes.back().uuid = world.inodes[0].uuid;
    world.extents[1].inode_no = first;
    world.extents[2].inode_no = last - 1;
    world.extents[3].inode_no = last + 1;
    Device device =
        make_v2_device(world.sb, world.bricks, world.inodes, world.extents, Expansion::FORMATTED);
    expect_findings(device, {error("inode_of_free_brick", "inode", last, inode_at(last)),
                             error("duplicate_inode", "inode", last, inode_at(last)),
                             error("extent_of_free_inode", "extent", 2, extent_at(2)),
                             error("extent_of_missing_inode", "extent", 3, extent_at(3))});
    const Report report = run_check(device.path(), {"--table", "inode"});
    EXPECT_EQ(report.tables.at("inode"), (Counts{first + EXPANSION_UNIT, 5, EXPANSION_UNIT, 0, 0}));

    // The command of a finding shows what it is about.
    const std::string no = std::to_string(last);
    EXPECT_EQ(report.findings[0].command,
              "zu_tier -l tier.log -p " + device.path() + " -c dump_inode -n " + no);
    EXPECT_EQ(run_logged(device, "dump_inode", {"-n", no}).out,
              json(world.inodes.back(), report.findings[0].offset));

    // Not in use: no extent may refer to its inodes.
    set_expansion(world.sb, EXPANSION_UNIT, false);
    put_block(device, SUPER_OFFSET, encode(world.sb));
    expect_findings(device,
                    {error("extent_of_unused_expansion", "extent", 1, extent_at(1)),
                     error("extent_of_unused_expansion", "extent", 2, extent_at(2)),
                     error("extent_of_missing_inode", "extent", 3, extent_at(3))},
                    {"--table", "extent"});
}

TEST_F(CheckV3, CountsOfPackedTables)
{
    const Device device = world.device();
    const Report report = run_check(device.path());
    EXPECT_EQ(report.tables.at("shard"), (Counts{3 * 511, 3, 3 * 511 - 3, 0, 0}));
    EXPECT_EQ(report.tables.at("hot"), (Counts{3, 3, 0, 0, 0}));
    EXPECT_EQ(report.tables.at("extent"), (Counts{4 * 512, 3, 4 * 512 - 3, 0, 0}));
}

TEST_F(CheckV3, InodesOfShards)
{
    world.shards[1].shards = {{.slot = 1, .ino = 3},
                              {.slot = 2, .ino = 5},
                              {.slot = 3, .ino = 0x3FFFF},
                              {.slot = 4, .ino = 4, .in_use = 0}};
    world.extents.erase(2);
    const std::int64_t block = shard_offset(world.sb, 1);
    expect({error("shard_of_free_inode", "shard", 513, word_offset(block, 1)),
            error("shard_of_missing_inode", "shard", 514, word_offset(block, 2)),
            error("shard_of_missing_inode", "shard", 515, word_offset(block, 3))});
}

TEST_F(CheckV3, InodeThatIsDamaged)
{
    world.inodes[1].checksum = 1;
    expect({error("bad_checksum", "inode", 1, inode_at(1)),
            warning("shard_of_unknown_inode", "shard", 511,
                    word_offset(shard_offset(world.sb, 0), 511))});
}

TEST_F(CheckV3, ShardsOfExtents)
{
    world.extents[3].extents = {
        {.slot = 0, .shard = 0, .bitmap = 1},       {.slot = 1, .shard = 1024, .bitmap = 1},
        {.slot = 2, .shard = 2, .bitmap = 1},       {.slot = 3, .shard = 1536, .bitmap = 1},
        {.slot = 4, .shard = 0x7FFFF, .bitmap = 1}, {.slot = 5, .shard = 2, .in_use = 0}};
    const std::int64_t block = extent_offset(world.sb, 3);
    expect({error("extent_of_shard_head", "extent", 1536, word_offset(block, 0)),
            error("extent_of_shard_head", "extent", 1537, word_offset(block, 1)),
            error("extent_of_free_shard", "extent", 1538, word_offset(block, 2)),
            error("extent_of_missing_shard", "extent", 1539, word_offset(block, 3)),
            error("extent_of_missing_shard", "extent", 1540, word_offset(block, 4))});
}

TEST_F(CheckV3, BlockOfShardsThatIsDamaged)
{
    world.shards[1].checksum = 1;
    world.extents[3].extents = {
        {.slot = 9, .shard = 512, .bitmap = 1}}; // its head is no shard all the same
    expect(
        {error("bad_checksum", "shard", 1, shard_offset(world.sb, 1), "block"),
         error("extent_of_shard_head", "extent", 1545, word_offset(extent_offset(world.sb, 3), 9)),
         warning("extent_of_unknown_shard", "extent", 1031,
                 word_offset(extent_offset(world.sb, 2), 7))});
}

TEST_F(CheckV3, BlockOfExtentsThatIsDamaged)
{
    world.extents[0].checksum = 1;
    world.extents[0].extents[0].shard = 2; // the content of a damaged block is unknown
    const Device device = world.device();
    expect_findings(device,
                    {error("bad_checksum", "extent", 0, extent_offset(world.sb, 0), "block")});
    EXPECT_EQ(run_check(device.path()).tables.at("extent"), (Counts{2048, 1, 1535, 512, 0}));
}

TEST_F(CheckV3, ClaimsOfPackedEntries)
{
    world.shards[2].shards = {{.slot = 5, .ino = 0, .index = 0xFFFF'FFFF},
                              {.slot = 6, .ino = 1, .index = 0xFFFF'FFFF},
                              {.slot = 7, .ino = 0, .in_use = 0, .index = 0}};
    world.extents[1].extents = {{.slot = 3, .lba = 1, .shard = 1, .dirty = 1, .bitmap = 7},
                                {.slot = 4, .lba = 1, .shard = 1, .bitmap = 1},
                                {.slot = 5, .lba = 1, .shard = 515, .bitmap = 1},
                                {.slot = 6, .lba = 1, .shard = 1, .in_use = 0}};
    const Device device = world.device();
    const Report report = run_check(device.path());
    const std::int64_t block = extent_offset(world.sb, 1);
    ASSERT_EQ(report.findings.size(), 3U);
    EXPECT_EQ(summary(report.findings[0]),
              error("duplicate_shard", "shard", 1029, word_offset(shard_offset(world.sb, 2), 5)));
    EXPECT_EQ(report.findings[0].text, "index 4294967295 of inode 0 is also that of shard 515");
    EXPECT_EQ(summary(report.findings[1]),
              error("duplicate_extent", "extent", 515, word_offset(block, 3)));
    EXPECT_EQ(report.findings[1].text, "address 1 of shard 1 is also that of extent 511");
    EXPECT_EQ(summary(report.findings[2]),
              error("duplicate_extent", "extent", 516, word_offset(block, 4)));
    EXPECT_EQ(report.findings[2].text, report.findings[1].text);
}

} // namespace
