// What is particular to repairs of the hot table: they clear a block, and read nothing but its
// place.

#include "hot_repair.h"

using namespace tier_test;

namespace {

TEST_F(HotRepair, ClearsAnyBlock)
{
    for (const std::uint64_t no : {0U, 1U, 3U}) {
        target = table.offset(super, no);
        expect_block(sample_file().text(), Block{});
    }
}

TEST_F(HotRepair, LineOfADumpIsARepairFile)
{
    const LoggedRun dump = run_logged(device, "dump_hot", {"-n", "1"});
    ASSERT_EQ(dump.status, 0) << dump;
    expect_block(dump.out, Block{});
}

} // namespace
