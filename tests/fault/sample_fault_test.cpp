// Samples that memory or the disk does not let zu_tierctl finish.

#include "faulty_run.h"
#include "loop_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class SampleFaults : public testing::Test {
protected:
    const TempDir directory;
    const std::string path = directory.path("image");

    // Under this fault, which takes one call, the run leaves nothing but the trace.
    void expect_failure(const std::string &fault, const std::string &complaint) const
    {
        SCOPED_TRACE(fault);
        const std::string trace = directory.write("trace", "");
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                               {"ZUTR_FAULTS", "trace:" + trace + ";" + fault}};
        const RunResult run = run_program(
            ZU_TIERCTL, {"sample", "--layout", "v1", "--damage", "inode:1", path}, options);
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
        EXPECT_EQ(lines_of(read_file(trace)).size(), 1U);
        std::filesystem::remove(trace);
        EXPECT_TRUE(std::filesystem::is_empty(directory.path("")));
    }
};

TEST_F(SampleFaults, NoMemory) { expect_failure("posix_memalign=ENOMEM", "std::bad_alloc"); }

TEST_F(SampleFaults, EntryThatCannotBeReadBack)
{
    expect_failure("pread=EIO", "cannot read " + path + ": Input/output error");
}

TEST_F(SampleFaults, NoRoomOnTheDisk)
{
    for (const std::string turn : {"#1", "#2", "#4"})
        expect_failure("pwrite" + turn + "=ENOSPC",
                       "cannot write " + path + ": No space left on device");
}

// What the library says of a block device with a swap space

class SampleBlkidFaults : public SampleFaults {
protected:
    // The complaint is `before`, the path of the device and `after`.
    void expect_kept(const std::string &fault, const std::string &before,
                     const std::string &after) const
    {
        SCOPED_TRACE(fault);
        directory.write("disk", "");
        const std::string disk = directory.path("disk");
        std::filesystem::resize_file(disk, 16 << 20);
        ASSERT_EQ(run_program("/sbin/mkswap", {"-q", disk}).status, 0);
        const std::string content = read_file(disk);
        {
            const auto device = LoopDevice::attach(disk);
            if (device == nullptr)
                GTEST_SKIP() << "no right to set up a loop device";
            RunOptions options;
            options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB}, {"ZUTR_FAULTS", fault}};
            const RunResult run =
                run_program(ZU_TIERCTL,
                            {"sample", "--layout", "v1", "--inodes", "4", "--blocks", "4",
                             "--block-size", "262144", "--force", device->path()},
                            options);
            EXPECT_EQ(run.status, 1) << run;
            EXPECT_EQ(run.err, "zu_tierctl: " + before + device->path() + after + "\n");
        }
        EXPECT_TRUE(read_file(disk) == content);
    }
};

TEST_F(SampleBlkidFaults, WhatHasNoNameIsKept)
{
    expect_kept("blkid_value=EINVAL", "",
                " holds something that blkid recognises: only "
                "--overwrite-cache overwrites it");
}

TEST_F(SampleBlkidFaults, WhatCannotBeLookedAtIsKept)
{
    expect_kept("blkid_device=EIO", "cannot look for file systems on ", ": Input/output error");
}

} // namespace
