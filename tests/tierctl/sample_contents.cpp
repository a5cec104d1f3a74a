#include "sample_contents.h"

#include <regex>

namespace tier_test {

void expect_accepted(const Device &device, const std::string &line)
{
    const LoggedRun shown = run_logged(device, "dump_super");
    EXPECT_EQ(shown.out, line);
    const std::string file = device.directory().write("super.json", shown.out);
    const LoggedRun repaired = run_logged(device, "repair_super", {"-f", file});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_EQ(repaired.out, line);
}

void expect_no_fault(const Device &device, const SampleTable &table, const std::string &dump)
{
    SCOPED_TRACE(table.name);
    const LoggedRun run = run_logged(device, table.command, {"-g", "error=1"});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, dump);
    EXPECT_EQ(run.err, "");
}

void expect_bricks(const std::vector<BrickV1> &bricks, std::uint32_t magic)
{
    expect_both_kinds(bricks);
    std::set<Uuid> identities;
    for (const BrickV1 &brick : bricks) {
        SCOPED_TRACE(brick.no);
        identities.insert(brick.uuid);
        EXPECT_EQ(brick.magic, magic);
        EXPECT_LE(brick.use, 1U);
        EXPECT_EQ(brick.unlink, 0U);
        EXPECT_EQ(brick.reserved, 0U);
        if (brick.use == 0) {
            EXPECT_EQ(brick.brickid, "");
            continue;
        }
        EXPECT_EQ(brick.brickid.size(), 93U);
        const std::regex path(std::string("/kd/data/zu/local/") + VOLUME_ID + "/" +
                              uuid_text(brick.uuid));
        EXPECT_TRUE(std::regex_match(brick.brickid, path)) << brick.brickid;
    }
    EXPECT_EQ(identities.size(), bricks.size());
}

void expect_inode_in_use(const InodeV1 &inode, const std::vector<BrickV1> &bricks,
                         std::uint64_t ctime)
{
    EXPECT_EQ(inode.use, 1);
    ASSERT_LT(inode.brick_no, bricks.size());
    EXPECT_EQ(bricks[inode.brick_no].use, 1U);
    EXPECT_GT(inode.size, 0U);
    EXPECT_GE(inode.mtime, ctime);
    EXPECT_GE(inode.ctime, inode.mtime);
    EXPECT_GE(inode.atime, inode.ctime);
    EXPECT_LT(inode.atime, YEAR_END * NANOSECONDS);
    EXPECT_LE(inode.unlink, 1);
    if (inode.unlink == 0) {
        EXPECT_EQ(inode.dtime, 0U);
    } else {
        EXPECT_GE(inode.dtime, inode.atime);
        EXPECT_LT(inode.dtime, YEAR_END * NANOSECONDS);
    }
}

void expect_extent_in_use(const ExtentV1 &extent, const InodeV1 &owner, std::uint32_t block_size)
{
    EXPECT_EQ(extent.use, 1);
    EXPECT_EQ(owner.use, 1);
    EXPECT_EQ(text("%08x", extent.sampling_low), uuid_text(owner.uuid).substr(0, 8));
    EXPECT_LE(extent.clean, 1);
    EXPECT_GE(extent.ntime, YEAR_START);
    EXPECT_LT(extent.ntime, YEAR_END);
    EXPECT_GT(extent.size, 0U);
    EXPECT_LE(extent.size, block_size);
    EXPECT_LE(std::uint64_t{extent.block} * block_size + extent.size, owner.size);
}

bool has_page(const ExtentV1 &extent, std::uint64_t page)
{
    return (extent.bitmap[page / 64] >> (page % 64) & 1U) != 0;
}

} // namespace tier_test
