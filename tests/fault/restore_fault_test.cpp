// Restoring a V1 inode where memory or the device fails.

#include "expect.h"
#include "faulty_run.h"
#include "v1_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr const char *FUNC = "zutr_restore_inode_v1";
constexpr std::uint32_t NO = 3;

// A table of three free extents: nothing stands against restoring inode NO, whose slot is damaged.
class RestoreFaults : public testing::Test {
protected:
    static constexpr std::uint64_t TABLE_LENGTH = 3 * BLOCK_SIZE;

    const SuperV1 super = super_v1(1, 4, 3);
    Device device = make_v1_device(super);
    const std::int64_t inode = inode_offset(super, NO);
    const std::int64_t table = extent_offset(super, 0);
    Block slot{};

    void SetUp() override
    {
        slot.fill(0xD7);
        device.write(static_cast<std::uint64_t>(inode), slot);
    }

    struct Outcome {
        int result = 0;
        std::string out{};
        Log lines{};                      // after the settings
        std::vector<std::uint8_t> slot{}; // as the device holds it, when it changes
    };

    // `taken` are the traced device calls and allocations.
    void expect_restore(const std::string &faults, const Outcome &expected,
                        const std::vector<std::string> &taken,
                        const std::vector<std::string> &flags = {}) const
    {
        SCOPED_TRACE(faults);
        std::vector<std::uint8_t> bytes = device.bytes();
        put_bytes(bytes, static_cast<std::size_t>(inode), expected.slot);
        Log log{settings_line(device, "dump_inode", {.meta_no = NO})};
        log.insert(log.end(), expected.lines.begin(), expected.lines.end());
        std::vector<std::string> args{"-n", std::to_string(NO), "-y"};
        args.insert(args.end(), flags.begin(), flags.end());

        const FaultyRun run =
            run_faulty(program("restore_driver"), device, "dump_inode", faults, args);
        expect_run(
            run,
            {.status = 0, .out = expected.out + text("result:%d\n", expected.result), .log = log});
        EXPECT_EQ(run.taken, taken);
        EXPECT_EQ(device.bytes(), bytes);
    }

    // What a restore makes of these bytes of the slot.
    static std::vector<std::uint8_t> restored(Block block)
    {
        put_u32(block, 4, 0x494E4F44);
        put_u32(block, 68, NO);
        seal(block, InodeV1::LENGTH);
        return {block.begin(), block.end()};
    }

    Outcome success(const Block &block) const
    {
        return {.out = text("mark inode no:%u unused success\n", NO), .slot = restored(block)};
    }

    std::string zero_lines(std::uint32_t from) const
    {
        std::string lines;
        for (std::uint32_t no = from; no < super.block_cnt; ++no)
            lines += text("inode no:%u zero filled extent:%u offset:%ld\n", NO, no,
                          extent_offset(super, no));
        return lines;
    }
};

TEST_F(RestoreFaults, WithoutFaultsItTakesThreeDeviceCalls)
{
    expect_restore(
        text("pread@%ld+%lu=pass;pwrite=pass", inode, table + TABLE_LENGTH - inode), success(slot),
        {traced("pread", 4096, inode, "pass"), traced("pread", TABLE_LENGTH, table, "pass"),
         traced("pwrite", 4096, inode, "pass")});
}

// The allocator's own number comes back, the only positive result.
TEST_F(RestoreFaults, MemoryIsRefused)
{
    const std::vector<std::string> allocations{
        "posix_memalign(4096)#2", // the first holds the super block
        text("posix_memalign(%lu)", TABLE_LENGTH)};
    for (const std::string &allocation : allocations)
        expect_restore(allocation + "=ENOMEM", {.result = 12},
                       {allocation.substr(0, allocation.find('#')) + "=ENOMEM"});
}

TEST_F(RestoreFaults, OwnedInodeIsLeftAlone)
{
    const ExtentV1 extent = extent_used(1, NO);
    const std::int64_t offset = extent_offset(super, extent.no);
    device.write(static_cast<std::uint64_t>(offset), encode(extent, super.extent_size));
    expect_restore("pwrite=pass",
                   {.out = text("inode no:%u uuid:%x extent no:1 offset:%ld\n", NO,
                                extent.sampling_low, offset) +
                           text("inode no:%u extent count: 1 can't make sure uuid\n", NO)},
                   {});
}

TEST_F(RestoreFaults, UnreadableSlotIsRestoredFromZeros)
{
    for (const std::string effect : {"EIO", "short:0"}) {
        device.write(static_cast<std::uint64_t>(inode), slot);
        expect_restore(text("pread@%ld+4096=%s", inode, effect.c_str()), success(Block{}),
                       {traced("pread", 4096, inode, effect)});
    }
}

TEST_F(RestoreFaults, PartlyReadSlotKeepsWhatWasRead)
{
    Block part{};
    put_bytes(part, 0, ConstByteSpan(slot).first(512));
    for (const std::string effect : {"EIO", "short:0"}) {
        device.write(static_cast<std::uint64_t>(inode), slot);
        expect_restore(
            text("pread@%ld+4096#1=short:512;pread@%ld+4096=%s", inode, inode, effect.c_str()),
            success(part),
            {traced("pread", 4096, inode, "short:512"),
             traced("pread", 3584, inode + 512, effect)});
    }
}

TEST_F(RestoreFaults, HealthySlotThatCannotBeReadWholeIsTakenForDamaged)
{
    const Block healthy = encode(inode_used(NO, 0));
    device.write(static_cast<std::uint64_t>(inode), healthy);
    expect_restore(text("pread@%ld+4096=EIO", inode), success(Block{}),
                   {traced("pread", 4096, inode, "EIO")});
    // The record was read and is sound, the block was not.
    device.write(static_cast<std::uint64_t>(inode), healthy);
    expect_restore(
        text("pread@%ld+4096#1=short:512;pread@%ld+4096=EIO", inode, inode), success(healthy),
        {traced("pread", 4096, inode, "short:512"), traced("pread", 3584, inode + 512, "EIO")});
}

TEST_F(RestoreFaults, FailedWrite)
{
    const LogLine failure =
        error_line(FUNC, text("inode no:%u write failed. offset:%ld ret:-1", NO, inode));
    expect_restore("pwrite=EIO", {.result = -5, .lines = {failure}},
                   {traced("pwrite", 4096, inode, "EIO")});
    std::vector<std::uint8_t> head = restored(slot);
    head.resize(512);
    expect_restore("pwrite#1=short:512;pwrite=ENOSPC",
                   {.result = -5, .lines = {failure}, .slot = head},
                   {traced("pwrite", 4096, inode, "short:512"),
                    traced("pwrite", 3584, inode + 512, "ENOSPC")});
}

TEST_F(RestoreFaults, InterruptedCallsAreRepeated)
{
    const std::int64_t length = table + static_cast<std::int64_t>(TABLE_LENGTH) - inode;
    expect_restore(
        text("pread@%ld+%ld#1-2=EINTR;pread@%ld+%ld=pass;pwrite#1=EAGAIN;pwrite=pass", inode,
             length, inode, length),
        success(slot),
        {traced("pread", 4096, inode, "EINTR"), traced("pread", 4096, inode, "EINTR"),
         traced("pread", 4096, inode, "pass"), traced("pread", TABLE_LENGTH, table, "pass"),
         traced("pwrite", 4096, inode, "EAGAIN"), traced("pwrite", 4096, inode, "pass")});
}

// A table that cannot be read at once: only its first block is tried again.
TEST_F(RestoreFaults, TableWithAnUnreadableBlockBehindItsFirst)
{
    const std::string faults =
        text("pread@%ld+4096=EIO;pread@%ld+4096=pass", extent_offset(super, 1), table);
    const std::vector<std::string> taken{
        traced("pread", TABLE_LENGTH, table, "EIO"), traced("pread", 4096, table, "pass"),
        traced("pread", 4096, table, "pass"), traced("pread", 4096, table, "pass")};
    expect_restore(
        faults,
        {.result = -5, .out = zero_lines(1) + text("inode no:%u can't make sure used\n", NO)},
        taken);
    Outcome forced = success(slot);
    forced.out = zero_lines(1) + forced.out;
    expect_restore(faults, forced, taken, {"-F"});
}

TEST_F(RestoreFaults, TableWithAnUnreadableFirstBlock)
{
    const LogLine failure =
        error_line("zutr_repair_readn", text("read failed. offset:%ld ret: -1", table));
    expect_restore(text("pread@%ld+4096=EIO", table),
                   {.result = -5,
                    .out = zero_lines(0) + text("inode no:%u can't make sure used\n", NO),
                    .lines = Log(3, failure)},
                   {traced("pread", TABLE_LENGTH, table, "EIO"),
                    traced("pread", 4096, table, "EIO"), traced("pread", 4096, table, "EIO"),
                    traced("pread", 4096, table, "EIO")});
}

} // namespace
