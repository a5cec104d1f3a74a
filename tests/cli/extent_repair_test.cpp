// Repairs of the extent tables of all layouts.

#include "table.h"
#include "table_repair.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(Extent, TableRepair, ExtentTables, LayoutNames);

} // namespace tier_test

namespace {

template <class T>
class ExtentRepair : public TableRepair<T> {
};

TYPED_TEST_SUITE(ExtentRepair, ExtentTables, LayoutNames);

TYPED_TEST(ExtentRepair, InodeNumberMustBeBelowTheCount)
{
    for (const std::uint32_t inode_no : {0U, 5U, 6U, 7U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(inode_no);
        const auto extent = this->table.repairable(2, inode_no);
        this->expect_entry_or_bounds_error(this->file_text(extent), extent);
    }
    const auto both = this->table.repairable(7, 6);
    this->expect_entry_or_bounds_error(this->file_text(both), both);
}

// The text of the dump, spelt as a number, gives the same bytes back.
TYPED_TEST(ExtentRepair, SamplingLowIsStoredInReverse)
{
    const std::vector<std::pair<std::string, std::uint32_t>> stored{{"287454020", 0x44332211},
                                                                    {"167772160", 0x0000000A}};
    for (const auto &[number, word] : stored) {
        const RepairFile changed = RepairFile(this->file).set("te_sampling_low", number);
        ASSERT_EQ(this->repair(changed.text(), {"-y"}).status, 0);
        const auto offset = static_cast<std::uint64_t>(extent_offset(this->super, 2));
        EXPECT_EQ(get_u32(this->device.block(offset), 20), word);
    }
}

TYPED_TEST(ExtentRepair, DumpedExtentIsNoRepairFile)
{
    // Its sampling counter is text.
    const std::string dumped = this->table.json(this->super, this->sample, 0);
    this->expect_refused_at("te_sampling_low", dumped, "parse te_sampling_low failed");
}

// A place before the start of the device is refused, whatever the cause.
TYPED_TEST(ExtentRepair, OffsetInFrontOfTheDevice)
{
    auto changed = this->super;
    changed.brick_table_size = 0;
    const auto start = static_cast<std::uint64_t>(extent_offset(changed, 0));
    changed.brick_table_size = std::uint64_t{0} - start - 2 * BLOCK_SIZE;
    this->set_super(changed);
    Log lines = this->key_log(this->table.repairable(1, 0));
    lines.push_back(this->error("entry offset -4096 is invalid"));
    this->expect_refused(this->file_text(this->table.repairable(1, 0)), lines, 14);
    const auto first = this->table.repairable(2, 0); // at the very start
    this->expect_entry(this->file_text(first), first);
}

} // namespace
