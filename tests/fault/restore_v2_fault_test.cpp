// Restoring a V2 inode where memory or the device fails: what differs from V1.

#include "expect.h"
#include "faulty_run.h"
#include "v2_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class RestoreV2Faults : public testing::Test {
protected:
    static constexpr std::uint32_t NO = 4; // the first after the regular table

    const SuperV2 super = without_maps();
    Device device = make_v2_device(super);
    const std::int64_t inode = expansion_offset(super, 0);
    const std::int64_t table = extent_offset(super, 0);
    Block slot{};

    // Extents of which the restore looks at every byte that their checksum covers.
    static SuperV2 without_maps()
    {
        SuperV2 sb = super_v2(1, NO, 3);
        sb.block_size = 262144;
        sb.hot_size = 0;
        set_maps(sb, 0);
        return sb;
    }

    void SetUp() override
    {
        device.truncate(static_cast<std::uint64_t>(inode) + BLOCK_SIZE);
        slot.fill(0xD7);
        device.write(static_cast<std::uint64_t>(inode), slot);
    }

    FaultyRun restore(const std::string &faults) const
    {
        return run_faulty(program("restore_driver"), device, "dump_inode", faults,
                          {"-n", std::to_string(NO), "-y"});
    }

    static Block restored(Block block)
    {
        put_u32(block, 4, 0x494E4F44);
        put_u32(block, 68, NO);
        seal(block, InodeV2::LENGTH);
        return block;
    }

    // Ends with `result`, and with `after` in the slot.
    void expect_restore(const std::string &faults, int result, const std::string &out,
                        const Log &errors, const Block &after)
    {
        SCOPED_TRACE(faults);
        device.write(static_cast<std::uint64_t>(inode), slot);
        const FaultyRun run = restore(faults);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, out + text("result:%d\n", result));
        ASSERT_FALSE(run.errors.empty());
        EXPECT_EQ(run.errors.front().func, "inode_is_valid");
        EXPECT_EQ(Log(run.errors.begin() + 1, run.errors.end()), errors);
        EXPECT_FALSE(run.taken.empty());
        EXPECT_EQ(device.block(static_cast<std::uint64_t>(inode)), after);
    }

    static std::string success() { return text("mark inode no:%u unused success\n", NO); }
};

TEST_F(RestoreV2Faults, UnreadableSlotIsRestoredFromZeros)
{
    for (const char *const effect : {"EIO", "short:0"})
        expect_restore(text("pread@%ld+4096=%s", inode, effect), 0, success(), {},
                       restored(Block{}));
}

TEST_F(RestoreV2Faults, FailedWriteNamesNoOffset)
{
    const LogLine failure =
        error_line("zutr_restore_inode_v2", text("inode no:%u write failed. ret:-1", NO));
    expect_restore("pwrite=EIO", -5, "", {failure}, slot);
}

TEST_F(RestoreV2Faults, MemoryIsRefused)
{
    expect_restore("posix_memalign(4096)#2=ENOMEM", 12, "", {}, slot);
    expect_restore("posix_memalign(12288)=ENOMEM", 12, "", {}, slot);
}

TEST_F(RestoreV2Faults, UnreadableTableCountsAsZeroFilled)
{
    std::string lines;
    for (std::uint64_t no = 0; no < 3; ++no)
        lines += text("inode no:%u zero filled extent:%lu offset:%ld\n", NO, no,
                      extent_offset(super, no));
    const LogLine failure =
        error_line("zutr_repair_readn", text("read failed. offset:%ld ret: -1", table));
    expect_restore(text("pread@%ld+12288=EIO", table), -5,
                   lines + text("inode no:%u can't make sure used\n", NO), Log(3, failure), slot);
}

} // namespace
