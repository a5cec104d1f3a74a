// Repairs of the inode table of layout version 1.

#include "table_repair.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(InodeV1, TableRepair, InodeV1);

} // namespace tier_test

namespace {

class InodeV1Repair : public TableRepair<InodeV1> {
protected:
    void expect_numbers(const InodeV1 &inode)
    {
        SCOPED_TRACE(text("inode %u of brick %u", inode.no, inode.brick_no));
        expect_entry_or_bounds_error(repair_file(table.keys, inode).text(), inode);
    }
};

TEST_F(InodeV1Repair, UuidTexts)
{
    expect_uuid_rules("i_uuid");
    InodeV1 nil = sample;
    nil.uuid = {};
    expect_entry(repair_file(table.keys, nil).text(), nil);
}

TEST_F(InodeV1Repair, BrickNumberMustBeBelowTheCount)
{
    for (const std::uint32_t brick_no : {0U, 4U, 5U, 6U, 0xFFFFFFFFU})
        expect_numbers(table.repairable(2, brick_no));
    expect_numbers(table.repairable(6, 5)); // both out of bounds
}

TEST_F(InodeV1Repair, BrickNumberIsNarrowedBeforeItIsChecked)
{
    for (const JsonNumber &number : boundary_numbers())
        expect_number(key("i_brick_no"), number);
}

TEST_F(InodeV1Repair, BrickNeedNotBeInUse)
{
    device.write(static_cast<std::uint64_t>(brick_offset(super, 1)), Block{});
    expect_numbers(table.repairable(2, 1));
}

TEST_F(InodeV1Repair, FreeInodeHoldsNothingButItsNumber)
{
    const std::string document = RepairFile(file).number("i_use", 0).text();
    ASSERT_EQ(repair(document, {"-y"}).status, 0);
    Block expected{};
    put_u32(expected, 4, 0x494E4F44);
    put_u32(expected, 68, 2);
    seal(expected, 96);
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(inode_offset(super, 2))), expected);
}

TEST_F(InodeV1Repair, TimesAreNumbersAndNotTheTextsOfTheDump)
{
    for (const std::string name : {"i_atime", "i_ctime", "i_mtime", "i_dtime"})
        expect_refused_at(name, RepairFile(file).string(name, "2017-07-14 02:40:00").text(),
                          "parse " + name + " failed");
}

TEST_F(InodeV1Repair, DumpedInodeIsNoRepairFile)
{
    expect_refused_at("i_no", json(sample, 0), "parse i_no failed");
}

} // namespace
