// The extent tables of all layouts as they are shown.

#include "table.h"
#include "table_dump.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(Extent, TableDump, ExtentTables, LayoutNames);

} // namespace tier_test

namespace {

template <class T>
class ExtentDump : public TableDump<T> {
};

TYPED_TEST_SUITE(ExtentDump, ExtentTables, LayoutNames);

TYPED_TEST(ExtentDump, SamplingLowIsStoredInReverse)
{
    Block block = this->table.encoded(this->super, this->table.used(1, 2));
    for (std::uint8_t i = 0; i < 4; ++i)
        block[20 + i] = static_cast<std::uint8_t>(0x11 * (i + 1));
    seal(block, this->table.record_length(this->super));
    this->device.write(static_cast<std::uint64_t>(extent_offset(this->super, 1)), block);
    const LoggedRun run = run_logged(this->device, "dump_extent", {"-n", "1"});
    EXPECT_NE(run.out.find("\"te_sampling_low\":\"11223344\","), std::string::npos) << run;
}

TYPED_TEST(ExtentDump, SamplingLowHasEightDigits)
{
    for (const std::uint32_t value : {0U, 1U, 0x80U, 0xABCDEF01U, 0xFFFFFFFFU}) {
        auto extent = this->table.used(1, 2);
        extent.sampling_low = value;
        this->put(1, extent);
        this->expect_walk();
    }
}

TYPED_TEST(ExtentDump, NumberIsComparedInAllItsBits)
{
    auto extent = free_entry<typename TypeParam::Entry>(1);
    extent.no = 0x1'0000'0001;
    this->put(1, extent, true);
    this->expect_walk();
}

TYPED_TEST(ExtentDump, OwnerZeroShowsNoFreeExtent)
{
    this->put(2, this->table.used(2, 0));
    this->put(4, this->table.used(4, 1));
    EXPECT_EQ(run_logged(this->device, "dump_extent", {"-g", "owner=0"}).out,
              this->walked({this->item(2)}));
    EXPECT_EQ(run_logged(this->device, "dump_extent", {"-g", "owner=0,use=0"}).out, "[]");
}

} // namespace
