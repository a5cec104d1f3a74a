#pragma once

// Tables of sample devices, of any length, and runs of the tool over them.

#include "run.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

namespace tier_test {

// A table by the layout, by the option that gives its entries, and by the command that shows it.
struct Table {
    const char *name;
    const char *layout;
    const char *entries;
    const char *command;
    std::uint64_t entries_of_block = 1;
};

constexpr Table INODES_V1 = {"inodes of V1", "v1", "--inodes", "dump_inode"};
constexpr Table EXTENTS_V1 = {"extents of V1", "v1", "--blocks", "dump_extent"};
constexpr Table INODES_V2 = {"inodes of V2", "v2", "--inodes", "dump_inode"};
constexpr Table EXTENTS_V2 = {"extents of V2", "v2", "--blocks", "dump_extent"};
constexpr Table SHARDS_V3 = {"shards of V3", "v3", "--shards", "dump_shard", 512};
constexpr Table EXTENTS_V3 = {"extents of V3", "v3", "--extents", "dump_extent", 512};

inline std::ostream &operator<<(std::ostream &out, const Table &table) { return out << table.name; }

// A sample device whose table has so many blocks.
inline Device table_of(const Table &table, std::uint64_t blocks)
{
    Device device(0);
    const std::string count = std::to_string(blocks * table.entries_of_block);
    const RunResult run = run_program(ZU_TIERCTL, {"sample", "--force", "--layout", table.layout,
                                                   table.entries, count, device.path()});
    EXPECT_EQ(run.status, 0) << run;
    return device;
}

using Args = std::vector<std::string>;

// Runs the dump of the table under another program: `wrapper` is that one and its arguments. With
// an empty one it runs by itself.
inline RunResult run_dump(const Args &wrapper, const Device &device, const Table &table,
                          const Args &args, RunOptions options = {})
{
    options.environment.emplace_back("TZ", "UTC0");
    Args line = wrapper;
    line.insert(line.end(), {ZU_TIER, "-p", device.path(), "-c", table.command});
    line.insert(line.end(), args.begin(), args.end());
    const RunResult run = run_program(line.front(), {line.begin() + 1, line.end()}, options);
    EXPECT_EQ(run.status, 0) << line.front() << ": " << run.err.substr(0, 1000);
    return run;
}

} // namespace tier_test
