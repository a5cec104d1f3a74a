// The memory that a walk asks for does not depend on the length of the table.

#include "faulty_run.h"
#include "tables.h"

using namespace tier_test;

namespace {

struct Filter {
    const char *name;
    Args args;
};

// Everything is shown; entries are hidden without a log; the same with a log file.
std::vector<Filter> filters()
{
    return {{"all", {}},
            {"in use", {"-g", "use=1"}},
            {"nothing", {"-g", "error=1"}},
            {"logged", {"-g", "error=1", "-l", "/dev/null"}}};
}

// The calls for memory during the dump of a table.
std::size_t allocations(const Table &table, std::uint64_t blocks, const Filter &filter)
{
    const Device device = table_of(table, blocks);
    const std::string trace = device.directory().write("trace", "");
    RunOptions options;
    options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                           {"ZUTR_FAULTS", "trace:" + trace +
                                               ";malloc=pass;calloc=pass;realloc=pass"
                                               ";posix_memalign=pass;aligned_alloc=pass"}};
    run_dump({}, device, table, filter.args, options);
    const std::vector<std::string> calls = lines_of(read_file(trace));
    EXPECT_FALSE(calls.empty()); // the buffer of the walk at least
    return calls.size();
}

class Allocations : public testing::TestWithParam<Table> {};

INSTANTIATE_TEST_SUITE_P(, Allocations,
                         testing::Values(INODES_V1, EXTENTS_V1, INODES_V2, EXTENTS_V2, SHARDS_V3));

TEST_P(Allocations, AsManyForALongTable)
{
    for (const Filter &filter : filters())
        EXPECT_EQ(allocations(GetParam(), 100, filter), allocations(GetParam(), 400, filter))
            << filter.name;
}

// A copy of the block is made for its checksum.
TEST(AllocationsOfExtentsV3, OneMoreForEachBlock)
{
    for (const Filter &filter : filters())
        EXPECT_EQ(allocations(EXTENTS_V3, 100, filter) + 300, allocations(EXTENTS_V3, 400, filter))
            << filter.name;
}

} // namespace
