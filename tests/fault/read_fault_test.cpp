// Devices that cannot be read, or only piece by piece.

#include "dump_text.h"
#include "expect.h"
#include "faulty_run.h"
#include "v1_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// A brick table and the calls that read it.
class ReadFaults : public testing::Test {
protected:
    static constexpr std::uint32_t COUNT = 4;
    static constexpr std::uint64_t LENGTH = COUNT * BLOCK_SIZE;

    const SuperV1 super = super_v1(COUNT, 1, 1);
    const Device device =
        make_v1_device(super, {brick_used(0), brick_used(1), brick_used(2), brick_used(3)});
    const std::int64_t table = brick_offset(super, 0);

    std::string item(std::uint32_t no) const
    {
        return json(brick_used(no), brick_offset(super, no));
    }

    std::vector<std::string> items() const { return {item(0), item(1), item(2), item(3)}; }

    // An item for the faults: reads that touch entry `no`, or the whole table.
    std::string reads_of(std::uint32_t no) const
    {
        return text("pread@%ld+4096", brick_offset(super, no));
    }
    std::string reads_of_table() const { return text("pread@%ld+%lu", table, LENGTH); }

    LogLine chunk_failed() const
    {
        return debug_line(DUMP_DRIVER,
                          text("read bi_no failed:-1, offset:%ld, len:%lu", table, LENGTH));
    }

    LogLine block_failed(std::uint32_t no) const
    {
        return debug_line(DUMP_DRIVER, text("read bi_no %u failed:-1, offset:%ld", no, table));
    }

    // The walk under these faults succeeds with these items and lines after the settings.
    void expect_walk(const std::string &faults, const std::vector<std::string> &shown,
                     const Log &lines, const std::vector<std::string> &taken) const
    {
        SCOPED_TRACE(faults);
        Log log{settings_line(device, "dump_brick")};
        log.insert(log.end(), lines.begin(), lines.end());
        const FaultyRun run = run_faulty(device, "dump_brick", faults);
        expect_run(run, {.status = 0, .out = joined(shown), .log = log});
        EXPECT_EQ(run.taken, taken);
    }
};

TEST_F(ReadFaults, TableIsReadWithOneCall)
{
    expect_walk("pread=pass", items(), {},
                {traced("pread", 4096, 4096, "pass"), traced("pread", LENGTH, table, "pass")});
}

TEST_F(ReadFaults, UnreadableSuperBlock)
{
    const FaultyRun run = run_faulty(device, "dump_brick", "pread@4096+4096=EIO;pread=pass");
    expect_run(
        run, {.status = 5,
              .out = "",
              .log = {error_line("zutr_prepare_param", text("read super failed. path:%s, ret: -1, "
                                                            "errno: Input/output error",
                                                            device.path().c_str()))}});
    EXPECT_EQ(run.taken, (std::vector{traced("pread", 4096, 4096, "EIO")}));
}

TEST_F(ReadFaults, InterruptedReadsAreRepeated)
{
    for (const std::string error : {"EINTR", "EAGAIN"})
        expect_walk(text("pread@4096+4096#1-2=%s;%s#1-3=%s;pread=pass", error.c_str(),
                         reads_of_table().c_str(), error.c_str()),
                    items(), {},
                    {traced("pread", 4096, 4096, error), traced("pread", 4096, 4096, error),
                     traced("pread", 4096, 4096, "pass"), traced("pread", LENGTH, table, error),
                     traced("pread", LENGTH, table, error), traced("pread", LENGTH, table, error),
                     traced("pread", LENGTH, table, "pass")});
}

TEST_F(ReadFaults, ShortReadsAreContinued)
{
    expect_walk(text("pread@4096+4096#1=short:512;%s#1=short:4096;%s#1=short:1000;pread=pass",
                     reads_of_table().c_str(), reads_of_table().c_str()),
                items(), {},
                {traced("pread", 4096, 4096, "short:512"), traced("pread", 3584, 4608, "pass"),
                 traced("pread", LENGTH, table, "short:4096"),
                 traced("pread", LENGTH - 4096, table + 4096, "short:1000"),
                 traced("pread", LENGTH - 5096, table + 5096, "pass")});
}

TEST_F(ReadFaults, ChunkWhoseBlocksCanBeReadShowsTheSameEntries)
{
    const std::vector<std::string> effects{"EIO", "short:0"};
    for (const std::string &effect : effects) {
        std::vector<std::string> taken{traced("pread", LENGTH, table, effect)};
        for (std::uint32_t no = 0; no < COUNT; ++no)
            taken.push_back(traced("pread", 4096, brick_offset(super, no), "pass"));
        expect_walk(text("pread(%lu)=%s;%s=pass", LENGTH, effect.c_str(), reads_of_table().c_str()),
                    items(), {chunk_failed()}, taken);
    }
    // The end of the device after a part of the chunk.
    expect_walk(
        text("%s#1=short:4096;%s#1=short:0", reads_of_table().c_str(), reads_of_table().c_str()),
        items(), {chunk_failed()},
        {traced("pread", LENGTH, table, "short:4096"),
         traced("pread", LENGTH - 4096, table + 4096, "short:0")});
}

TEST_F(ReadFaults, UnreadableBlockBecomesAnErrorRecord)
{
    for (std::uint32_t bad = 0; bad < COUNT; ++bad) {
        std::vector<std::string> shown = items();
        shown[bad] = error_record(5, "bi_no", bad, brick_offset(super, bad));
        expect_walk(reads_of(bad) + "=EIO", shown, {chunk_failed(), block_failed(bad)},
                    {traced("pread", LENGTH, table, "EIO"),
                     traced("pread", 4096, brick_offset(super, bad), "EIO")});
    }
}

TEST_F(ReadFaults, UnreadableBlockLeavesNoTraceWithoutErrorRecords)
{
    for (std::uint32_t bad = 0; bad < COUNT; ++bad) {
        std::vector<std::string> shown = items();
        shown.erase(shown.begin() + bad);
        const FaultyRun run =
            run_faulty(device, "dump_brick", reads_of(bad) + "=EIO", {"-g", "error=0"});
        expect_run(run, {.status = 0,
                         .out = joined(shown),
                         .log = {settings_line(device, "dump_brick", {.error = 0}), chunk_failed(),
                                 block_failed(bad)}});
        EXPECT_EQ(run.taken.size(), 2U);
    }
}

TEST_F(ReadFaults, UnreadableTable)
{
    std::vector<std::string> shown;
    Log log{chunk_failed()};
    std::vector<std::string> taken{traced("pread", LENGTH, table, "EIO")};
    for (std::uint32_t no = 0; no < COUNT; ++no) {
        shown.push_back(error_record(5, "bi_no", no, brick_offset(super, no)));
        log.push_back(block_failed(no));
        taken.push_back(traced("pread", 4096, brick_offset(super, no), "EIO"));
    }
    expect_walk(reads_of_table() + "=EIO", shown, log, taken);
}

TEST_F(ReadFaults, InterruptedAndShortReadsOfSingleBlocks)
{
    const std::int64_t offset = brick_offset(super, 2);
    expect_walk(text("pread(%lu)=EIO;%s#1=EINTR;%s#1=short:512;%s#1=EAGAIN", LENGTH,
                     reads_of(2).c_str(), reads_of(2).c_str(), reads_of(2).c_str()),
                items(), {chunk_failed()},
                {traced("pread", LENGTH, table, "EIO"), traced("pread", 4096, offset, "EINTR"),
                 traced("pread", 4096, offset, "short:512"),
                 traced("pread", 3584, offset + 512, "EAGAIN")});
}

TEST_F(ReadFaults, SingleEntry)
{
    const std::vector<std::string> entry{"-n", "2"};
    const std::int64_t offset = brick_offset(super, 2);
    const LogLine settings = settings_line(device, "dump_brick", {.meta_no = 2});

    FaultyRun run = run_faulty(device, "dump_brick", reads_of(2) + "=EIO", entry);
    expect_run(run,
               {.status = 5,
                .out = "",
                .log = {settings, error_line(DUMP_DRIVER,
                                             text("read bi_no 2 failed:-1, offset:%ld", offset))}});
    EXPECT_EQ(run.taken, (std::vector{traced("pread", 4096, offset, "EIO")}));

    run = run_faulty(device, "dump_brick",
                     text("%s#1=EINTR;%s#1=short:512;%s=pass", reads_of(2).c_str(),
                          reads_of(2).c_str(), reads_of_table().c_str()),
                     entry);
    expect_run(run, {.status = 0, .out = item(2), .log = {settings}});
    EXPECT_EQ(run.taken, (std::vector{traced("pread", 4096, offset, "EINTR"),
                                      traced("pread", 4096, offset, "short:512"),
                                      traced("pread", 3584, offset + 512, "pass")}));
}

// Two chunks, of which the second holds a block that cannot be read.
TEST(ReadFaultsOfALargeTable, OnlyTheFailedChunkIsReadBlockByBlock)
{
    constexpr std::uint32_t BAD = 280;
    const SuperV1 super = super_v1(1, 300, 1);
    const Device device = make_v1_device(super);
    const std::int64_t first = inode_offset(super, 0);
    const std::int64_t second = inode_offset(super, 256);

    std::vector<std::string> items;
    std::vector<std::string> taken{traced("pread", MIB, first, "pass"),
                                   traced("pread", 44 * 4096, second, "EIO")};
    for (std::uint32_t no = 0; no < 300; ++no) {
        const std::int64_t offset = inode_offset(super, no);
        items.push_back(no == BAD ? error_record(5, "no", no, offset)
                                  : json(InodeV1{.no = no}, offset));
        if (no >= 256)
            taken.push_back(traced("pread", 4096, offset, no == BAD ? "EIO" : "pass"));
    }
    const FaultyRun run = run_faulty(
        device, "dump_inode",
        text("pread@%ld+4096=EIO;pread@%ld+%d=pass", inode_offset(super, BAD), first, 300 * 4096));
    expect_run(
        run,
        {.status = 0,
         .out = joined(items),
         .log = {settings_line(device, "dump_inode"),
                 debug_line(DUMP_DRIVER,
                            text("read no failed:-1, offset:%ld, len:%d", second, 44 * 4096)),
                 debug_line(DUMP_DRIVER, text("read no %u failed:-1, offset:%ld", BAD, second))}});
    EXPECT_EQ(run.taken, taken);
}

} // namespace
