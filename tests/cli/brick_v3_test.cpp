// The brick table of V3 where it differs from that of the other layouts.

#include "table.h"
#include "table_dump.h"
#include "table_repair.h"

using namespace tier_test;

namespace {

using BrickV3Dump = TableDump<BrickTableV3>;

TEST_F(BrickV3Dump, MagicReadsItsOwnFourCharacters)
{
    const Block block = encode(brick_v3_used(0));
    EXPECT_EQ(std::string(block.begin() + 4, block.begin() + 8), "iKXB");
}

TEST_F(BrickV3Dump, BrickOfAnotherLayoutIsFaulty)
{
    for (const std::uint32_t use : {0U, 1U}) {
        BrickV3 brick = brick_v3_used(2);
        brick.use = use;
        brick.magic = BrickV1().magic;
        put(2, brick, true);
        expect_walk();
        expect_single(2);
    }
}

class BrickV3Repair : public TableRepair<BrickTableV3> {
protected:
    void set_bricks(std::uint64_t count)
    {
        SuperV3 changed = super;
        changed.brick_cnt = count;
        set_super(changed);
    }
};

TEST_F(BrickV3Repair, CountIsShownWhole)
{
    for (const std::uint64_t count : {std::uint64_t{5}, std::uint64_t{0}}) {
        set_bricks(count);
        Log lines{debug_line(table.parser, "bi_use: 0"), debug_line(table.parser, "bi_no: 5"),
                  error(text("bi_no 5 is invalid, max: %lu", count))};
        expect_refused(R"({"bi_use":0,"bi_no":5})", lines);
    }
    set_bricks(0x100000005);
    EXPECT_EQ(repair(R"({"bi_use":0,"bi_no":5})").status, 0);
}

TEST_F(BrickV3Repair, LastBrickGoesToTheLastSlot)
{
    for (const std::uint64_t count : {1U, 3U, 5U}) {
        set_bricks(count);
        const auto last = static_cast<std::uint32_t>(count - 1);
        BrickV3 brick = table.repairable(last, 0);
        ASSERT_EQ(table.offset(super, last),
                  static_cast<std::int64_t>(super.brick_table_offset + (count - 1) * 4096));
        expect_entry(file_text(brick), brick);
        brick.no = static_cast<std::uint32_t>(count);
        expect_entry_or_bounds_error(file_text(brick), brick);
    }
}

} // namespace
