// The system calls of a walk: a table is read by the mebibyte, and output is written in whole
// buffers.

#include "tables.h"

#include <algorithm>
#include <iterator>
#include <regex>
#include <sstream>

using namespace tier_test;

namespace {

// Standard output as strace names it.
constexpr const char *OUTPUT = "/memfd:stdout";

struct SystemCall {
    std::string name;
    std::string file; // what its descriptor stands for
    std::uint64_t size = 0;
    std::uint64_t offset = 0;
};

// The calls of a run that move data, as strace shows them without the data.
std::vector<SystemCall> parse_trace(const std::string &trace)
{
    static const std::regex CALL(R"((\w+)\(\d+<(.*?)>.*?, .*?, (\d+)(?:, (\d+))?\) += (\d+))");
    std::vector<SystemCall> calls;
    std::istringstream stream(trace);
    for (std::string line; std::getline(stream, line);) {
        std::smatch part;
        if (!std::regex_match(line, part, CALL))
            continue;
        EXPECT_EQ(part[3], part[5]) << "came up short: " << line;
        calls.push_back(
            {part[1], part[2], std::stoull(part[3]), part[4].matched ? std::stoull(part[4]) : 0});
    }
    return calls;
}

struct TracedRun : RunResult {
    std::vector<SystemCall> calls{};
    std::string log{};

    std::vector<SystemCall> of(const std::string &name, const std::string &file) const
    {
        std::vector<SystemCall> result;
        std::ranges::copy_if(calls, std::back_inserter(result), [&](const SystemCall &call) {
            return call.name == name && call.file == file;
        });
        return result;
    }
};

// With a log file when `logged`.
TracedRun run_traced(const Device &device, const Table &table, Args args, bool logged)
{
    const TempDir &directory = device.directory();
    const std::string log = directory.write("log", "");
    const std::string trace = directory.write("trace", "");
    if (logged)
        args.insert(args.end(), {"-l", log});
    const Args strace{"/usr/bin/strace", "-y", "-s0", "-o" + trace,
                      "--trace=read,pread64,readv,preadv,write,pwrite64,writev,pwritev"};
    TracedRun run{run_dump(strace, device, table, args)};
    run.calls = parse_trace(read_file(trace));
    run.log = read_file(log);
    return run;
}

// All bytes of `text` have gone out through `writes`, few for every 64 KiB of it.
void expect_written(const std::vector<SystemCall> &writes, const std::string &text,
                    std::uint64_t for_64k)
{
    std::uint64_t bytes = 0;
    for (const SystemCall &call : writes)
        bytes += call.size;
    EXPECT_EQ(bytes, text.size());
    EXPECT_LE(writes.size(), text.size() * for_64k / 65536 + 1) << text.size() << " bytes";
}

struct CallRow {
    Table table;
    std::uint64_t blocks;
    std::uint64_t writes_for_64k; // of output
};

// The tables end within, at and just after a mebibyte.
constexpr CallRow CALL_ROWS[] = {
    {INODES_V1, 256, 16},  {INODES_V1, 300, 16}, {EXTENTS_V1, 513, 16}, {INODES_V2, 512, 16},
    {EXTENTS_V2, 257, 16}, {SHARDS_V3, 300, 5},  {EXTENTS_V3, 600, 4},
};

class SystemCalls : public testing::TestWithParam<CallRow> {
protected:
    const CallRow row = GetParam();
    const Device device = table_of(row.table, row.blocks);
};

INSTANTIATE_TEST_SUITE_P(, SystemCalls, testing::ValuesIn(CALL_ROWS));

void PrintTo(const CallRow &row, std::ostream *out)
{
    *out << row.blocks << " blocks of " << row.table;
}

TEST_P(SystemCalls, OneReadForEachMebibyte)
{
    const TracedRun run = run_traced(device, row.table, {}, false);
    const std::vector<SystemCall> reads = run.of("pread64", device.path());
    // The first finds the super block.
    const std::uint64_t size = row.blocks * BLOCK_SIZE;
    ASSERT_EQ(reads.size(), 1 + (size + MIB - 1) / MIB);
    EXPECT_EQ(reads[0].size, BLOCK_SIZE);
    EXPECT_EQ(reads[0].offset, 4096U);
    for (std::size_t i = 1; i < reads.size(); ++i) {
        EXPECT_EQ(reads[i].size, std::min(MIB, size - (i - 1) * MIB)) << i;
        EXPECT_EQ(reads[i].offset, reads[1].offset + (i - 1) * MIB) << i;
    }
}

TEST_P(SystemCalls, OutputGoesOutInWholeBuffers)
{
    const TracedRun run = run_traced(device, row.table, {}, false);
    ASSERT_GT(run.out.size(), 65536U);
    expect_written(run.of("write", OUTPUT), run.out, row.writes_for_64k);
}

TEST_P(SystemCalls, LogGoesOutInWholeBuffers)
{
    const TracedRun run = run_traced(device, row.table, {"-g", "use=0"}, true);
    ASSERT_GT(run.log.size(), 8192U);
    expect_written(run.of("write", device.directory().path("log")), run.log, 16);
}

} // namespace
