// The inode table of V3 where it differs from that of the other layouts.

#include "table.h"
#include "table_dump.h"
#include "table_repair.h"

using namespace tier_test;

namespace {

using InodeV3Dump = TableDump<InodeTableV3>;

TEST_F(InodeV3Dump, InodeOfAnotherLayoutIsFaulty)
{
    for (const auto use : {std::uint16_t{0}, std::uint16_t{1}}) {
        InodeV3 inode = inode_v3_used(2, 1);
        inode.use = use;
        inode.magic = InodeV2().magic;
        put(2, inode, true);
        expect_walk();
        expect_single(2);
    }
}

TEST_F(InodeV3Dump, UnusedInodeOfTheOwnerIsHidden)
{
    InodeV3 unused = inode_v3_used(3, 2);
    unused.use = 0;
    put(3, unused);
    put(4, inode_v3_used(4, 2));
    expect_walk({.owner = 2});
    expect_walk({.use = 0, .owner = 2});
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "owner=2"}).out, "[" + item(4) + "]");
}

TEST_F(InodeV3Dump, LargestValuesOfTheNewFields)
{
    InodeV3 inode = inode_v3_used(1, 0);
    inode.new_data = inode.blocks = ~std::uint64_t{0};
    put(1, inode);
    expect_walk();
}

class InodeV3Repair : public TableRepair<InodeTableV3> {
protected:
    SuperV3 changed = super;

    // The entry is accepted and shown with this offset.
    void expect_shown(const InodeV3 &inode, std::uint64_t offset)
    {
        set_super(changed);
        const LoggedRun run = repair(file_text(inode));
        expect_run(run, {.status = 0,
                         .out = json(inode, static_cast<std::int64_t>(offset)),
                         .log = log_with(key_log(inode), {dry_run_line()})});
    }

    void expect_bounds_error(const InodeV3 &inode)
    {
        set_super(changed);
        ASSERT_FALSE(table.bounds_errors(super, inode).empty());
        expect_entry_or_bounds_error(file_text(inode), inode);
    }
};

TEST_F(InodeV3Repair, BlocksOfTheSizeWhenTheFileGivesNone)
{
    struct Case {
        std::uint64_t size;
        std::uint64_t blocks;
    };
    for (const Case &each :
         {Case{0, 0}, Case{1, 0}, Case{131071, 0}, Case{131072, 1}, Case{262143, 1},
          Case{1048576, 8}, Case{0x8000000000000000, 0x400000000000},
          Case{0xFFFFFFFFFFFFFFFF, 0x7FFFFFFFFFFF}}) {
        SCOPED_TRACE(each.size);
        InodeV3 inode = sample;
        inode.size = each.size;
        inode.blocks = each.blocks;
        RepairFile sized = file;
        sized.number("i_size", each.size).erase("i_blocks");
        expect_entry(sized.text(), inode);
    }
}

TEST_F(InodeV3Repair, BlocksOfTheFileGoBeforeThoseOfTheSize)
{
    for (const std::uint64_t blocks : {std::uint64_t{0}, std::uint64_t{1}, ~std::uint64_t{0}}) {
        InodeV3 inode = sample;
        inode.size = 1048576;
        inode.blocks = blocks;
        expect_entry(RepairFile(file).number("i_size", 1048576).number("i_blocks", blocks).text(),
                     inode);
    }
    // What does not have the right type does not fall back to the size.
    expect_refused_at("i_blocks", RepairFile(file).set("i_blocks", "\"8\"").text(),
                      "parse i_blocks failed");
}

// The number has a sign, which the log shows as the high bits and the message does not.
TEST_F(InodeV3Repair, NegativeNumberIsRefused)
{
    for (const std::string given : {"-1", "4294967295"}) {
        SCOPED_TRACE(given);
        const Log lines{
            debug_line(table.parser, "i_no: 18446744073709551615"),
            debug_line(table.parser, "i_use: 0"),
            error("i_no 4294967295 or brick_no 0 is invalid, max i_cnt:6, max b_cnt:5")};
        expect_refused(R"({"i_use":0,"i_no":)" + given + "}", lines);
    }
    const Log lines{debug_line(table.parser, "i_no: 18446744071562067968"),
                    debug_line(table.parser, "i_use: 0"),
                    error("i_no 2147483648 or brick_no 0 is invalid, max i_cnt:6, max b_cnt:5")};
    expect_refused(R"({"i_use":0,"i_no":2147483648})", lines);
}

TEST_F(InodeV3Repair, NegativeNumberIsAboveEveryCountThatLeavesOutItsHighBits)
{
    InodeV3 inode = sample;
    for (const std::uint32_t no : {0xFFFFFFFFU, 0x80000000U}) {
        inode.no = no;
        for (const std::uint64_t count :
             {std::uint64_t{0x100000000}, std::uint64_t{0x8000000000000000},
              std::uint64_t{0xFFFFFFFF80000000}}) {
            changed.inode_cnt = count;
            expect_bounds_error(inode);
        }
    }
    // Below such a count its slot lies before the table.
    changed.inode_cnt = 0xFFFFFFFFFFFFFFFF;
    inode.no = 0xFFFFFFFE; // -2
    expect_shown(inode, changed.inode_table_offset - 2 * BLOCK_SIZE);
}

TEST_F(InodeV3Repair, BrickNumberIsComparedWithAllBitsOfTheCount)
{
    InodeV3 inode = sample;
    inode.brick_no = 0xFFFFFFFF;
    for (const std::uint64_t count : {std::uint64_t{0x100000000}, ~std::uint64_t{0}}) {
        changed.brick_cnt = count;
        expect_shown(inode, changed.inode_table_offset + sample.no * BLOCK_SIZE);
    }
    changed.brick_cnt = 0xFFFFFFFF;
    expect_bounds_error(inode);
}

TEST_F(InodeV3Repair, CountsAreShownWhole)
{
    changed.inode_cnt = 0;
    changed.brick_cnt = 0x8000000000000007;
    expect_bounds_error(sample);
    changed.inode_cnt = 0xFFFFFFFF00000006;
    changed.brick_cnt = 1;
    expect_bounds_error(sample);
}

TEST_F(InodeV3Repair, FreeInodeNeedsABrickTableToo)
{
    changed.brick_cnt = 0;
    expect_bounds_error(free_entry<InodeV3>(1));
    changed.brick_cnt = 1;
    expect_shown(free_entry<InodeV3>(1), changed.inode_table_offset + BLOCK_SIZE);
}

// All keys are read before the numbers are looked at.
TEST_F(InodeV3Repair, NumbersAreCheckedLast)
{
    InodeV3 inode = sample;
    inode.no = 6;
    inode.brick_no = 5;
    Log lines = key_log(inode, "i_blocks");
    lines.push_back(error("parse i_blocks failed"));
    expect_refused(table.file_of(super, inode).set("i_blocks", "null").text(), lines);
    expect_bounds_error(inode);
}

} // namespace
