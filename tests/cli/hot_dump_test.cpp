// What is particular to the dump of the hot table: it shows the places of the blocks, whatever
// their content.

#include "expect.h"
#include "packed_table.h"
#include "probe_log.h"

using namespace tier_test;

namespace {

class HotDump : public testing::Test {
protected:
    SuperV3 super = packed_super(4);
    Device device = make_v3_device(super);

    std::string item(std::uint64_t no) const
    {
        return text("{\"meta_offset\":%lu}", super.hot_table_offset + no * 4096);
    }

    std::string items(std::uint64_t count) const
    {
        std::vector<std::string> all;
        for (std::uint64_t no = 0; no < count; ++no)
            all.push_back(item(no));
        return joined(all);
    }

    LoggedRun run(const std::vector<std::string> &args = {}) const
    {
        return run_logged(device, "dump_hot", args);
    }

    Log log(const Settings &settings = {}, const Log &rest = {}) const
    {
        return probe_log(device, "dump_hot", 3, settings, rest);
    }

    static LogLine ignored(int no)
    {
        return debug_line("__dump_hot_v3", text("ignore hot:%d", no));
    }
};

TEST_F(HotDump, BlocksWithTheirOffsets)
{
    expect_run(run(), {.status = 0, .out = items(4), .log = log()});
    for (const int no : {0, 1, 3})
        expect_run(run({"-n", std::to_string(no)}), {.status = 0,
                                                     .out = item(static_cast<std::uint64_t>(no)),
                                                     .log = log({.meta_no = no})});
}

TEST_F(HotDump, WhatTheBlocksHoldDoesNotMatter)
{
    std::vector<std::uint8_t> content(4 * BLOCK_SIZE);
    for (const std::uint8_t byte : std::initializer_list<std::uint8_t>{0, 0xFF}) {
        std::ranges::fill(content, byte);
        device.write(super.hot_table_offset, content);
        expect_run(run(), {.status = 0, .out = items(4), .log = log()});
    }
}

TEST_F(HotDump, FiltersByUseOwnerAndIdentifierDoNotApply)
{
    for (const std::string filter : {"use=0", "use=1", "owner=3", "id=none", "error=0", "error=2",
                                     "use=1,owner=2,id=x,error=0"})
        EXPECT_EQ(run({"-g", filter}).out, items(4)) << filter;
}

TEST_F(HotDump, NoBlockIsDamaged)
{
    expect_run(run({"-g", "error=1"}),
               {.status = 0,
                .out = "[]",
                .log = log({.error = 1}, {ignored(0), ignored(1), ignored(2), ignored(3)})});
    expect_run(run({"-g", "error=1", "-n", "2"}),
               {.status = 0, .out = "", .log = log({.meta_no = 2, .error = 1}, {ignored(2)})});
}

TEST_F(HotDump, TableOfSeveralChunks)
{
    super = packed_super(600);
    const Device large = make_v3_device(super);
    EXPECT_EQ(run_logged(large, "dump_hot").out, items(600));
}

TEST_F(HotDump, BlockBehind4GiB)
{
    constexpr std::uint64_t NO = 0x180000;
    super.hot_table_size = (NO + 1) * 4096;
    device.write(SUPER_OFFSET, encode(super));
    device.truncate(super.hot_table_offset + super.hot_table_size);
    EXPECT_EQ(run({"-n", std::to_string(NO)}).out, item(NO));
}

} // namespace
