// Repairs of the inode tables of all layouts.

#include "table.h"
#include "table_repair.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(Inode, TableRepair, InodeTables, LayoutNames);

} // namespace tier_test

namespace {

template <class T>
class InodeRepair : public TableRepair<T> {
protected:
    void expect_numbers(const typename T::Entry &inode)
    {
        SCOPED_TRACE(text("inode %u of brick %u", inode.no, inode.brick_no));
        this->expect_entry_or_bounds_error(this->file_text(inode), inode);
    }
};

TYPED_TEST_SUITE(InodeRepair, InodeTables, LayoutNames);

TYPED_TEST(InodeRepair, BrickNumberMustBeBelowTheCount)
{
    for (const std::uint32_t brick_no : {0U, 4U, 5U, 6U, 0xFFFFFFFFU})
        this->expect_numbers(this->table.repairable(2, brick_no));
    this->expect_numbers(this->table.repairable(6, 5)); // both out of bounds
}

TYPED_TEST(InodeRepair, BrickNeedNotBeInUse)
{
    this->device.write(static_cast<std::uint64_t>(brick_offset(this->super, 1)), Block{});
    this->expect_numbers(this->table.repairable(2, 1));
}

TYPED_TEST(InodeRepair, DumpedInodeIsNoRepairFile)
{
    this->expect_refused_at("i_no", json(this->sample, 0), "parse i_no failed");
}

} // namespace
