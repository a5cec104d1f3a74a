// Output to block devices: never to the one that is read, whatever name it goes by.

#include "expect.h"
#include "loop_device.h"
#include "v1_device.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace tier_test;

namespace {

class OutputDevice : public testing::Test {
protected:
    const SuperV1 super = super_v1(1, 1, 1);
    const Device device = make_v1_device(super);
    const Device other{1048576};
    const std::unique_ptr<LoopDevice> loop = LoopDevice::attach(device.path());
    const std::unique_ptr<LoopDevice> target = LoopDevice::attach(other.path());

    void SetUp() override
    {
        if (!loop || !target)
            GTEST_SKIP() << "no loop devices";
    }

    LoggedRun dump_to(const std::string &out) const
    {
        return run_with_log(device.directory(),
                            {"-p", loop->path(), "-c", "dump_super", "-o", out});
    }
};

TEST_F(OutputDevice, DeviceUnderAnotherName)
{
    struct stat status {};
    ASSERT_EQ(stat(loop->path().c_str(), &status), 0);
    const std::string node = device.directory().path("node");
    ASSERT_EQ(mknod(node.c_str(), S_IFBLK | 0600, status.st_rdev), 0);
    const std::vector<std::uint8_t> before = device.bytes();
    for (const std::string &out : {loop->path(), node})
        expect_run(dump_to(out),
                   {.status = 22,
                    .log = {error_line("zutr_prepare_param",
                                       "open path " + out + " failed:Device or resource busy")}});
    EXPECT_EQ(device.bytes(), before);
}

TEST_F(OutputDevice, AnotherDeviceOrFile)
{
    const std::string file = device.directory().write("out", "before");
    for (const std::string &out : {target->path(), file}) {
        const LoggedRun run = dump_to(out);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.errors, Log{});
        EXPECT_TRUE(read_file(out).starts_with(json(super)));
    }
    EXPECT_EQ(read_file(file), json(super));
}

} // namespace
