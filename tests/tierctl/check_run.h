#pragma once

// Runs of zu_tierctl check and what they report, and small devices of each layout in which nothing
// is wrong, to be changed before they are made.

#include "run.h"
#include "v2_device.h"
#include "v3_device.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tier_test {

struct Finding {
    std::string kind;
    std::string severity;
    std::string table;
    std::string unit;
    std::uint64_t no = 0;
    std::uint64_t last = 0;
    std::uint64_t count = 0;
    std::optional<std::uint64_t> block;
    std::int64_t offset = 0;
    bool zero = false;
    std::uint64_t one_bit = 0; // findings that so many flipped bits explain, as the text says too
    std::uint64_t two_bits = 0;
    std::string command;
    std::string text;
};

struct Cause {
    std::string table;
    std::uint64_t no = 0;
    std::uint64_t last = 0;
    std::string text;
};

struct Counts {
    std::uint64_t entries = 0;
    std::uint64_t in_use = 0;
    std::uint64_t free = 0;
    std::uint64_t damaged = 0;
    std::uint64_t unreadable = 0;

    bool operator==(const Counts &) const = default;
};

void PrintTo(const Counts &counts, std::ostream *out);

struct Report {
    RunResult run;
    std::string device;
    std::string layout;
    std::vector<Cause> causes;
    std::vector<Finding> findings;
    std::map<std::string, Counts> tables;
};

// zu_tierctl check --json <args> <device>: a well-formed document, whose counts add up and fit the
// exit status, and nothing else. The first with --all.
Report run_check(const std::string &device, std::vector<std::string> args = {});
Report run_check_in_runs(const std::string &device, const std::vector<std::string> &args = {});

// "error bad_magic: inode entry 7 at 1073152"
std::string summary(const Finding &finding);
std::string error(const std::string &kind, const std::string &table, std::uint64_t no,
                  std::int64_t offset, const std::string &unit = "entry");
std::string warning(const std::string &kind, const std::string &table, std::uint64_t no,
                    std::int64_t offset, const std::string &unit = "entry");

// The check finds exactly that, in that order.
void expect_findings(const Device &device, const std::vector<std::string> &expected,
                     const std::vector<std::string> &args = {});

// Entries in use with every field different from zero, and nothing odd.
template <class Inode>
Inode sound_inode(Inode inode)
{
    inode.size = 0x7000'0000'0000'0000U + inode.no;
    return inode;
}
template <class Extent>
Extent sound_extent(Extent extent)
{
    extent.size = 4096 + extent.no;
    return extent;
}

// Three bricks, two of them in use; five inodes, the first three in use; extents of these.
struct WorldV1 {
    static constexpr int VERSION = 1;

    SuperV1 sb = super_v1(3, 5, 6);
    std::vector<BrickV1> bricks{brick_used(0), brick_used(1)};
    std::vector<InodeV1> inodes{inode(0, 0), inode(1, 1), inode(2, 0)};
    std::vector<ExtentV1> extents{extent(0, 0), extent(1, 1), extent(2, 2), extent(3, 0)};

    static InodeV1 inode(std::uint32_t no, std::uint32_t brick)
    {
        return sound_inode(inode_used(no, brick));
    }
    static ExtentV1 extent(std::uint64_t no, std::uint32_t inode)
    {
        return sound_extent(extent_used(no, inode));
    }

    Device device() const;
};

// The first extent has the pieces 0, 2 and 3.
struct WorldV2 {
    static constexpr int VERSION = 2;

    WorldV2();

    SuperV2 sb = super_v2(3, 5, 6);
    std::vector<BrickV1> bricks{brick_used(0), brick_used(1)};
    std::vector<InodeV2> inodes{inode(0, 0), inode(1, 1), inode(2, 0)};
    std::vector<ExtentV2> extents{extent(0, 0), extent(1, 1), extent(2, 2), extent(3, 0)};

    static InodeV2 inode(std::uint32_t no, std::uint32_t brick)
    {
        return sound_inode(inode_v2_used(no, brick));
    }
    static ExtentV2 extent(std::uint64_t no, std::uint32_t inode)
    {
        return {sound_extent(extent_used(no, inode))};
    }

    Device device() const;
};

// Shards in the blocks 0 and 1, extents of them in the blocks 0 and 2.
struct WorldV3 {
    static constexpr int VERSION = 3;

    SuperV3 sb = super_v3(3, 5);
    std::vector<BrickV3> bricks{brick_v3_used(0), brick_v3_used(1)};
    std::vector<InodeV3> inodes{inode(0, 0), inode(1, 1), inode(2, 0)};
    std::map<std::uint64_t, ShardBlockV3> shards{
        {0, {.shards = {{.slot = 1, .ino = 0, .index = 0}, {.slot = 511, .ino = 1, .index = 0}}}},
        {1, {.shards = {{.slot = 3, .ino = 0, .index = 0xFFFF'FFFF}}}}};
    std::map<std::uint64_t, ExtentBlockV3> extents{
        {0,
         {.extents = {{.slot = 0, .lba = 0, .shard = 1, .bitmap = 1},
                      {.slot = 511, .lba = 1, .shard = 1, .bitmap = 1}}}},
        {2, {.extents = {{.slot = 7, .lba = 0, .shard = 515, .bitmap = 1}}}}};

    static InodeV3 inode(std::uint32_t no, std::uint32_t brick)
    {
        return sound_inode(inode_v3_used(no, brick));
    }

    Device device() const { return make_v3_device(sb, bricks, inodes, shards, extents); }
};

using AllWorlds = testing::Types<WorldV1, WorldV2, WorldV3>;
using OldWorlds = testing::Types<WorldV1, WorldV2>; // their extents are no packed words

// Tests of a device of `World` that they change.
template <class World>
class CheckedWorld : public testing::Test {
protected:
    World world;

    std::int64_t inode_at(std::uint32_t no) const { return inode_offset(world.sb, no); }
    std::int64_t extent_at(std::uint64_t no) const { return extent_offset(world.sb, no); }
};

// Byte offset of a word of a packed block.
inline std::int64_t word_offset(std::int64_t block, std::uint64_t slot)
{
    return block + static_cast<std::int64_t>(8 * slot);
}

} // namespace tier_test
