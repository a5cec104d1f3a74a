// Processor instructions for each entry of a table. After a change of more than a tenth the figure
// must be recorded anew.

#include "instructions.h"
#include "tables.h"

using namespace tier_test;

namespace {

struct CostRow {
    Table table;
    std::uint64_t blocks;
    Args args;
    double recorded; // instructions for an entry
};

const CostRow COST_ROWS[] = {
    {INODES_V2, 1000, {}, 2000},
    {EXTENTS_V1, 500, {}, 1450},
    {EXTENTS_V2, 500, {}, 7560},
    {EXTENTS_V3, 16, {}, 152},
    {SHARDS_V3, 16, {}, 104.5},
    // Entries that are not in use are logged.
    {EXTENTS_V3, 16, {"-g", "use=1", "-l", "/dev/null"}, 146},
};

void PrintTo(const CostRow &row, std::ostream *out)
{
    *out << row.table << (row.args.empty() ? "" : ", filtered");
}

// The figures are those of a checksum by carry-less multiplication.
bool has_fast_checksum()
{
#ifdef __x86_64__
    return __builtin_cpu_supports("pclmul") != 0;
#else
    return false;
#endif
}

double instructions(const Table &table, std::uint64_t blocks, const Args &args)
{
    const Device device = table_of(table, blocks);
    const InstructionCounter counter(device.directory());
    run_dump(counter.wrapper(), device, table, args, {.stdout_path = "/dev/null"});
    return static_cast<double>(counter.count());
}

class Instructions : public testing::TestWithParam<CostRow> {};

INSTANTIATE_TEST_SUITE_P(, Instructions, testing::ValuesIn(COST_ROWS));

TEST_P(Instructions, PerEntryAsRecorded)
{
    if (!has_fast_checksum())
        GTEST_SKIP() << "the figures are those of another processor";
    const auto &[table, blocks, args, recorded] = GetParam();
    const double per_entry =
        (instructions(table, 2 * blocks, args) - instructions(table, blocks, args)) /
        static_cast<double>(blocks * table.entries_of_block);
    EXPECT_NEAR(per_entry, recorded, recorded / 10);
}

} // namespace
