// The dump driver over tables whose blocks hold the result of their formatter.

#include "dump_text.h"
#include "in_process.h"
#include "zu_tier/driver/dump.h"

#include <limits>

using namespace tier_test;

namespace {

constexpr const char *DUMP_COMMON = "zutr_dump_common";
constexpr std::int64_t TABLE_START = 3 * 4096; // so there are blocks before the table
constexpr std::int32_t INT_LARGEST = std::numeric_limits<std::int32_t>::max();

struct Visit {
    std::int32_t no;
    std::uint32_t block; // the number that the block itself holds
    std::string delim;

    bool operator==(const Visit &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Visit &visit)
{
    return out << visit.no << " block " << visit.block << " '" << visit.delim << "'";
}

std::vector<Visit> visits;

std::string item(std::int64_t no) { return text("{%ld}", no); }

// The formatter: bytes 0..3 of a block are its number, bytes 4..7 the result it asks for.
std::int32_t format_block(std::int32_t no, void *meta, const char *delim, zutr_params_t *params)
{
    const ConstByteSpan block(static_cast<const std::uint8_t *>(meta), BLOCK_SIZE);
    visits.push_back({no, get_u32(block, 0), delim});
    const auto result = static_cast<std::int32_t>(get_u32(block, 4));
    if (result == 0)
        std::fputs((delim + item(no)).c_str(), params->out_fp);
    return result;
}

struct Walk {
    Call call;
    std::string out;
    std::vector<Visit> visits;
};

class DumpDriver : public testing::Test {
protected:
    Device device{0};
    std::int32_t base_no = 0;
    std::int32_t error = -1;

    // Blocks numbered from 100 before the table, from 0 inside it.
    void make_table(const std::vector<std::int32_t> &results)
    {
        device.truncate(0);
        device.truncate(TABLE_START + results.size() * BLOCK_SIZE);
        for (std::uint64_t i = 0; i < 3; ++i)
            put_block(i * BLOCK_SIZE, static_cast<std::uint32_t>(100 + i), 0);
        for (std::size_t i = 0; i < results.size(); ++i)
            put_block(TABLE_START + i * BLOCK_SIZE, static_cast<std::uint32_t>(i), results[i]);
    }

    Walk dump(std::int32_t meta_no, std::int32_t max_cnt) const
    {
        const OpenDevice open(device, O_RDONLY | O_DIRECT);
        const MemoryStream out;
        zutr_params_t params = params_on(device, open);
        params.out_fp = out.get();
        params.base_no = base_no;
        params.meta_no = meta_no;
        params.filter.error = error;
        visits.clear();
        Walk walk;
        walk.call = captured(
            [&] { return zutr_dump_common(&params, "key", TABLE_START, max_cnt, format_block); });
        walk.out = out.text();
        walk.visits = visits;
        return walk;
    }

    // The output for block `index` of the table when it cannot be read or checked.
    std::string bad_item(std::int32_t errno_value, std::int64_t index) const
    {
        return error_record(errno_value, "key", base_no + index, TABLE_START + index * 4096);
    }

    static LogLine chunk_failed(std::int64_t offset, std::int32_t length)
    {
        return debug_line(DUMP_COMMON,
                          text("read key failed:-1, offset:%ld, len:%d", offset, length));
    }

private:
    void put_block(std::uint64_t offset, std::uint32_t number, std::int32_t result)
    {
        Block block{};
        put_u32(block, 0, number);
        put_u32(block, 4, static_cast<std::uint32_t>(result));
        device.write(offset, block);
    }
};

class DumpDriverWalk : public DumpDriver {
protected:
    // Walks the table and compares everything with what follows from the results of its blocks.
    void expect_walk(const std::vector<std::int32_t> &results)
    {
        std::vector<std::string> items;
        std::vector<Visit> expected;
        for (std::size_t i = 0; i < results.size(); ++i) {
            const auto no = static_cast<std::int32_t>(i) + base_no;
            expected.push_back({no, static_cast<std::uint32_t>(i), items.empty() ? "" : ","});
            if (results[i] == 0)
                items.push_back(item(no));
            else if (results[i] < 0 && error != 0)
                items.push_back(bad_item(-results[i], static_cast<std::int64_t>(i)));
        }
        const Walk walk = dump(-1, static_cast<std::int32_t>(results.size()));
        EXPECT_EQ(walk.call, Call{});
        EXPECT_EQ(walk.out, joined(items));
        EXPECT_EQ(walk.visits, expected);
    }
};

TEST_F(DumpDriverWalk, EveryMixtureOfPrintedSkippedAndBadEntries)
{
    const std::vector<std::int32_t> choices{0, 1, -14};
    for (std::size_t mixture = 0; mixture < 81; ++mixture) {
        const std::vector<std::int32_t> results{choices[mixture % 3], choices[mixture / 3 % 3],
                                                choices[mixture / 9 % 3], choices[mixture / 27]};
        make_table(results);
        for (const std::int32_t filter : {-1, 0, 1, 2}) {
            SCOPED_TRACE(testing::PrintToString(results) + text(" error=%d", filter));
            error = filter;
            expect_walk(results);
        }
    }
}

TEST_F(DumpDriverWalk, ErrorRecordsNameTheErrorOfTheFormatter)
{
    const std::vector<std::int32_t> results{-5, -12, -14, -22};
    make_table(results);
    expect_walk(results);
}

TEST_F(DumpDriverWalk, EntriesAreNumberedFromTheBase)
{
    const std::vector<std::int32_t> results{0, -14, 1, 0};
    make_table(results);
    for (const std::int32_t base : {1, 4096, INT_LARGEST - 3}) {
        SCOPED_TRACE(base);
        base_no = base;
        expect_walk(results);
    }
}

TEST_F(DumpDriverWalk, TablesAroundTheChunkSize)
{
    for (const std::size_t count : {1U, 255U, 256U, 257U, 300U, 512U, 513U}) {
        SCOPED_TRACE(count);
        std::vector<std::int32_t> results(count);
        results.front() = results.back() = -14;
        results[count / 2] = 1;
        make_table(results);
        expect_walk(results);
    }
}

TEST_F(DumpDriverWalk, AnyNegativeEntryNumberMeansTheWholeTable)
{
    make_table({0, 0});
    for (const std::int32_t meta_no : {-1, -2, std::numeric_limits<std::int32_t>::min()})
        EXPECT_EQ(dump(meta_no, 2).out, "[{0},{1}]") << meta_no;
}

TEST_F(DumpDriverWalk, OnlyTheBlocksOfTheTableAreShown)
{
    make_table({0, 0, 0, 0});
    EXPECT_EQ(dump(-1, 2).out, "[{0},{1}]");
}

TEST_F(DumpDriverWalk, UnreadableBlocksBecomeErrorRecords)
{
    std::vector<std::int32_t> results(300);
    results[256] = 1;
    make_table(results);
    constexpr std::int64_t READABLE = 258;
    device.truncate(TABLE_START + READABLE * BLOCK_SIZE);
    base_no = 1000;

    constexpr std::int64_t CHUNK = TABLE_START + MIB;
    std::vector<std::string> good;
    std::vector<std::string> bad;
    Log log{chunk_failed(CHUNK, 44 * 4096)};
    std::vector<Visit> expected;
    for (std::int64_t i = 0; i < 300; ++i) {
        const auto no = static_cast<std::int32_t>(1000 + i);
        if (i >= READABLE) {
            bad.push_back(bad_item(5, i));
            log.push_back(
                debug_line(DUMP_COMMON, text("read key %d failed:-1, offset:%ld", no, CHUNK)));
            continue;
        }
        expected.push_back({no, static_cast<std::uint32_t>(i), i == 0 ? "" : ","});
        if (i != 256)
            good.push_back(item(no));
    }
    std::vector<std::string> all = good;
    all.insert(all.end(), bad.begin(), bad.end());

    for (const std::int32_t filter : {-1, 0}) {
        error = filter;
        const Walk walk = dump(-1, 300);
        EXPECT_EQ(walk.out, joined(filter == 0 ? good : all));
        EXPECT_EQ(walk.call, (Call{.result = 0, .log = log}));
        EXPECT_EQ(walk.visits, expected);
    }
}

TEST_F(DumpDriverWalk, FirstItemMayBeAnUnreadableBlock)
{
    make_table({0, 0});
    device.truncate(TABLE_START);
    EXPECT_EQ(dump(-1, 2).out, joined({bad_item(5, 0), bad_item(5, 1)}));
    error = 0;
    EXPECT_EQ(dump(-1, 2).out, "[]");
}

class DumpDriverEntry : public DumpDriver {
protected:
    void expect_entry(std::int32_t meta_no, std::int32_t max_cnt, std::uint32_t block,
                      std::int32_t result, const std::string &out)
    {
        SCOPED_TRACE(meta_no);
        const Walk walk = dump(meta_no, max_cnt);
        EXPECT_EQ(walk.call, (Call{.result = result}));
        EXPECT_EQ(walk.out, out);
        EXPECT_EQ(walk.visits, (std::vector<Visit>{{meta_no, block, ""}}));
    }

    void expect_failure(std::int32_t meta_no, std::int32_t max_cnt, std::int32_t result,
                        const std::string &message)
    {
        SCOPED_TRACE(meta_no);
        const Walk walk = dump(meta_no, max_cnt);
        EXPECT_EQ(walk.call, (Call{.result = result, .log = {error_line(DUMP_COMMON, message)}}));
        EXPECT_EQ(walk.out, "");
        EXPECT_EQ(walk.visits, std::vector<Visit>{});
    }
};

TEST_F(DumpDriverEntry, IsShownWithoutAFrame)
{
    make_table({0, 1, -14, -5, 2});
    for (const std::int32_t filter : {-1, 0, 1}) {
        error = filter;
        expect_entry(0, 5, 0, 0, item(0));
        expect_entry(1, 5, 1, 0, "");
        expect_entry(2, 5, 2, -14, "");
        expect_entry(3, 5, 3, -5, "");
        expect_entry(4, 5, 4, 0, "");
    }
}

TEST_F(DumpDriverEntry, LiesBehindTheBaseOfItsRegion)
{
    make_table({0, 0, 0});
    base_no = 1000;
    expect_entry(1000, 1003, 0, 0, item(1000));
    expect_entry(1002, 1003, 2, 0, item(1002));
    // The distance is signed: before the base lies what lies before the region.
    expect_entry(999, 1003, 102, 0, item(999));
    expect_entry(997, 1003, 100, 0, item(997));
    base_no = INT_LARGEST - 1;
    expect_entry(INT_LARGEST - 1, INT_LARGEST, 0, 0, item(INT_LARGEST - 1));
}

TEST_F(DumpDriverEntry, MustLieBelowTheBound)
{
    make_table({0, 0, 0});
    for (const std::int32_t meta_no : {3, 4, INT_LARGEST})
        expect_failure(meta_no, 3, -22, text("invalid key %d, max cnt:3", meta_no));
    // The bound applies to the number itself, whatever the base.
    base_no = 2;
    expect_failure(3, 3, -22, "invalid key 3, max cnt:3");
    expect_entry(2, 3, 0, 0, item(2));
}

TEST_F(DumpDriverEntry, BeyondTheDeviceCannotBeRead)
{
    make_table({0, 0});
    for (const std::int32_t meta_no : {2, 1 << 20, INT_LARGEST - 1})
        expect_failure(meta_no, INT_LARGEST, -5,
                       text("read key %d failed:-1, offset:%ld", meta_no,
                            TABLE_START + std::int64_t{meta_no} * 4096));
    base_no = 4;
    expect_failure(0, 2, -5, text("read key 0 failed:-1, offset:%ld", TABLE_START - 4 * 4096));
}

using DumpDriverDeathTest = DumpDriver;

TEST_F(DumpDriverDeathTest, ProgrammingErrorsAbort)
{
    make_table({0});
    const OpenDevice open(device, O_RDONLY | O_DIRECT);
    zutr_params_t good = params_on(device, open);
    zutr_params_t closed = good;
    closed.fd = -1;
    zutr_params_t silent = good;
    silent.out_fp = nullptr;

    struct Row {
        zutr_params_t *params;
        const char *meta_type;
        std::int64_t start;
        std::int32_t max_cnt;
        meta_format_func_t format;
        const char *condition;
    };
    const char *const arguments = "params && meta_type && max_cnt > 0 && format_func";
    const char *const open_ends = "params->fd >= 0 && params->out_fp";
    const char *const aligned = "meta_start % SIZE_4K == 0";
    for (const Row &row : {Row{nullptr, "key", TABLE_START, 1, format_block, arguments},
                           Row{&good, nullptr, TABLE_START, 1, format_block, arguments},
                           Row{&good, "key", TABLE_START, 0, format_block, arguments},
                           Row{&good, "key", TABLE_START, -1, format_block, arguments},
                           Row{&good, "key", TABLE_START, 1, nullptr, arguments},
                           Row{&closed, "key", TABLE_START, 1, format_block, open_ends},
                           Row{&silent, "key", TABLE_START, 1, format_block, open_ends},
                           Row{&closed, "key", TABLE_START + 1, 1, format_block, open_ends},
                           Row{&good, "key", TABLE_START + 512, 1, format_block, aligned},
                           Row{&good, "key", TABLE_START - 1, 1, format_block, aligned}})
        EXPECT_ABORT(
            zutr_dump_common(row.params, row.meta_type, row.start, row.max_cnt, row.format),
            row.condition);
}

} // namespace
