// The findings of zu_tierctl check about references to damaged or unreadable entries: one warning
// for each of these, however many refer to it.

#include "check_run.h"
#include "sample_image.h"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using namespace tier_test;

namespace {

// The expected finding and its text: "" if it is not about a reference.
struct Expected {
    std::string summary;
    std::string text;
};

void expect_told(const Device &device, const std::vector<Expected> &expected,
                 const std::vector<std::string> &args = {})
{
    const Report report = run_check(device.path(), args);
    ASSERT_EQ(report.findings.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(summary(report.findings[i]), expected[i].summary);
        if (!expected[i].text.empty()) {
            EXPECT_EQ(report.findings[i].text, expected[i].text);
        }
    }
}

// "it refers to inode 7, which is damaged", for so many that refer to it.
std::string naming(std::uint64_t count, const std::string &what, const std::string &which)
{
    std::string who = "it refers to ";
    if (count == 2)
        who = "it and 1 other refer to ";
    else if (count > 2)
        who = "it and " + std::to_string(count - 1) + " others refer to ";
    return who + what + ", which " + which;
}

template <class World>
class CheckUnknown : public testing::Test {
protected:
    World world;

    Expected damaged_brick(std::uint32_t no) const
    {
        return {error("bad_checksum", "brick", no, brick_offset(world.sb, no)), {}};
    }

    Expected inodes_name(std::uint32_t first, std::uint64_t count, std::uint32_t brick) const
    {
        return {warning("inode_of_unknown_brick", "inode", first, inode_offset(world.sb, first)),
                naming(count, "brick " + std::to_string(brick), "is damaged")};
    }
};

TYPED_TEST_SUITE(CheckUnknown, AllWorlds);

TYPED_TEST(CheckUnknown, NamedByOne)
{
    this->world.bricks[1].checksum = 1;
    expect_told(this->world.device(), {this->damaged_brick(1), this->inodes_name(1, 1, 1)});
}

TYPED_TEST(CheckUnknown, NamedByTwo)
{
    this->world.bricks[0].checksum = 1;
    expect_told(this->world.device(), {this->damaged_brick(0), this->inodes_name(0, 2, 0)});
}

TYPED_TEST(CheckUnknown, SeveralInOrderOfWhatIsNamed)
{
    this->world.inodes[0].brick_no = 1;
    this->world.inodes[1].brick_no = 0;
    this->world.inodes[2].brick_no = 1;
    this->world.bricks[0].checksum = 1;
    this->world.bricks[1].checksum = 1;
    expect_told(this->world.device(), {this->damaged_brick(0), this->damaged_brick(1),
                                       this->inodes_name(1, 1, 0), this->inodes_name(0, 2, 1)});
}

TYPED_TEST(CheckUnknown, BehindWhatElseIsFoundInTheTable)
{
    this->world.bricks[0].checksum = 1;
    this->world.inodes[1].brick_no = 2;
    this->world.inodes[2].uuid = this->world.inodes[0].uuid;
    const std::int64_t inode = inode_offset(this->world.sb, 1);
    const std::int64_t twin = inode_offset(this->world.sb, 2);
    expect_told(this->world.device(), {this->damaged_brick(0),
                                       {error("inode_of_free_brick", "inode", 1, inode),
                                        "it refers to brick 2, which is free"},
                                       {error("duplicate_inode", "inode", 2, twin), {}},
                                       this->inodes_name(0, 2, 0)});
}

TYPED_TEST(CheckUnknown, TableThatIsNotAskedFor)
{
    this->world.bricks[0].checksum = 1;
    expect_told(this->world.device(), {}, {"--table", "extent"});
}

// A known error is reported for every entry.
TYPED_TEST(CheckUnknown, FreeAndMissingAreToldOfEach)
{
    for (const std::uint32_t no : {0U, 1U})
        this->world.inodes[no].brick_no = 2;
    this->world.inodes[2].brick_no = 3;
    const std::string text = "it refers to brick 2, which is free";
    const auto at = [this](std::uint32_t no) { return inode_offset(this->world.sb, no); };
    expect_told(this->world.device(), {{error("inode_of_free_brick", "inode", 0, at(0)), text},
                                       {error("inode_of_free_brick", "inode", 1, at(1)), text},
                                       {error("inode_of_missing_brick", "inode", 2, at(2)),
                                        "it refers to brick 3, which does not exist"}});
}

TEST(CheckUnknownOwners, ManyExtentsOfAnInode)
{
    constexpr std::uint32_t EXTENTS = 1000;
    constexpr std::uint32_t FIRST = 17; // of the damaged inode
    WorldV1 world;
    world.sb = super_v1(3, 5, EXTENTS);
    world.inodes[2].checksum = 1;
    world.extents.clear();
    for (std::uint32_t no = 0; no < EXTENTS; ++no)
        world.extents.push_back(world.extent(no, no < FIRST ? 0 : 2));
    expect_told(world.device(), {{error("bad_checksum", "inode", 2, inode_offset(world.sb, 2)), {}},
                                 {warning("extent_of_unknown_inode", "extent", FIRST,
                                          extent_offset(world.sb, FIRST)),
                                  naming(EXTENTS - FIRST, "inode 2", "is damaged")}});
}

TEST(CheckUnknownOwners, BlockOfShardsNamedInSeveralBlocks)
{
    WorldV3 world;
    world.shards[1].checksum = 1;
    world.extents[0].extents = {{.slot = 9, .lba = 1, .shard = 600, .bitmap = 1},
                                {.slot = 10, .shard = 1, .bitmap = 1}};
    world.extents[1].extents = {{.slot = 511, .lba = 2, .shard = 514, .bitmap = 1}};
    world.extents[2].extents = {{.slot = 0, .lba = 3, .shard = 514, .bitmap = 1},
                                {.slot = 1, .lba = 4, .shard = 600, .bitmap = 1}};
    world.extents[3].extents = {{.slot = 5, .lba = 5, .shard = 600, .bitmap = 1},
                                {.slot = 6, .lba = 6, .shard = 1023, .bitmap = 1}};
    const auto expected = [&world](std::uint64_t block, std::uint64_t slot, std::uint64_t count,
                                   std::uint64_t shard) {
        return Expected{warning("extent_of_unknown_shard", "extent", block * SLOTS_V3 + slot,
                                word_offset(extent_offset(world.sb, block), slot)),
                        naming(count, "shard " + std::to_string(shard), "is damaged")};
    };
    const Device device = world.device();
    expect_told(device,
                {{error("bad_checksum", "shard", 1, shard_offset(world.sb, 1), "block"), {}},
                 expected(1, 511, 2, 514),
                 expected(0, 9, 3, 600),
                 expected(3, 6, 1, 1023)});

    // The command shows the block of the entry.
    EXPECT_EQ(run_check(device.path()).findings[1].command,
              "zu_tier -l tier.log -p " + device.path() + " -c dump_extent -n 1");
}

TEST(CheckUnknownOwners, InodesThatCannotBeRead)
{
    WorldV3 world; // inodes after everything else
    world.sb.inode_table_offset = world.sb.data_offset + world.sb.data_size;
    world.shards[0].shards.push_back({.slot = 8, .ino = 4});
    world.shards[0].shards.push_back({.slot = 9, .ino = 2});
    world.shards[2].shards = {{.slot = 7, .ino = 2}, {.slot = 8, .ino = 2, .index = 1}};
    Device device = world.device();
    device.truncate(world.sb.inode_table_offset + 2 * BLOCK_SIZE);
    const std::int64_t block = shard_offset(world.sb, 0);
    const std::int64_t twin = word_offset(shard_offset(world.sb, 2), 7);
    expect_told(device,
                {{error("duplicate_shard", "shard", 2 * SLOTS_V3 + 7, twin), {}},
                 {warning("shard_of_unknown_inode", "shard", 9, word_offset(block, 9)),
                  naming(3, "inode 2", "cannot be read")},
                 {warning("shard_of_unknown_inode", "shard", 8, word_offset(block, 8)),
                  naming(1, "inode 4", "cannot be read")}},
                {"--table", "shard"});
}

// No layout has so many inodes, and memory is kept for no more.
TEST(CheckUnknownOwners, NumbersBeyondEveryLayout)
{
    constexpr std::uint32_t KEPT = 524288;
    WorldV1 world;
    world.extents[0].inode_no = KEPT;
    world.extents[1].inode_no = KEPT - 1;
    world.extents[2].inode_no = KEPT;
    world.extents[3].inode_no = KEPT - 1;
    Device device = world.device();
    world.sb.inode_cnt = 0xFFFF'FFFF;
    put_block(device, SUPER_OFFSET, encode(world.sb));
    const auto expected = [&world](std::uint64_t no, std::uint64_t count, std::uint32_t inode) {
        return Expected{
            warning("extent_of_unknown_inode", "extent", no, extent_offset(world.sb, no)),
            naming(count, "inode " + std::to_string(inode), "cannot be read")};
    };
    expect_told(device, {expected(0, 1, KEPT), expected(2, 1, KEPT), expected(1, 2, KEPT - 1)},
                {"--table", "extent"});
}

// A large table of extents whose shards are all lost.
TEST(CheckUnknownOwners, OneWarningAShard)
{
    Device device = make_sample(
        {"--extents", "65536", "--shards", "4096", "--inodes", "700", "--blocks", "1"}, "v3");
    const SuperV3 sb = decode_super_v3(device.block(SUPER_OFFSET));
    std::vector<Expected> expected;
    for (std::uint64_t block = 0; block < sb.shard_cnt / SLOTS_V3; ++block) {
        const std::int64_t at = shard_offset(sb, block);
        Block content = device.block(static_cast<std::uint64_t>(at));
        content[2000] ^= 1;
        put_block(device, at, content);
        expected.push_back({error("bad_checksum", "shard", block, at, "block"), {}});
    }

    struct Naming {
        std::uint64_t block;
        std::uint64_t slot;
        std::uint64_t count;
    };
    std::map<std::uint64_t, Naming> named; // by shard
    std::uint64_t in_use = 0;
    for (std::uint64_t block = 0; block < sb.extent_cnt / SLOTS_V3; ++block) {
        const auto content = device.block(static_cast<std::uint64_t>(extent_offset(sb, block)));
        for (const ExtentV3 &extent : decode_extents(content).extents) {
            if (extent.in_use != 0) {
                named.try_emplace(extent.shard, Naming{block, extent.slot, 0})
                    .first->second.count++;
                ++in_use;
            }
        }
    }
    for (const auto &[shard, who] : named)
        expected.push_back(
            {warning("extent_of_unknown_shard", "extent", who.block * SLOTS_V3 + who.slot,
                     word_offset(extent_offset(sb, who.block), who.slot)),
             naming(who.count, "shard " + std::to_string(shard), "is damaged")});
    EXPECT_GT(in_use, 10 * named.size());
    expect_told(device, expected);
}

} // namespace
