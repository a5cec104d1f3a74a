// Output and log never go to the device itself, whatever name it goes by.

#include "expect.h"
#include "loop_device.h"
#include "v1_device.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace tier_test;

namespace {

// A run with the device as its log, which stands before or after it, is refused.
void expect_log_refused(const std::string &device, const std::string &log, const TempDir &directory)
{
    ASSERT_TRUE(default_log_is_missing());
    const std::string conf = directory.write("conf", R"({"bi_use":0,"bi_no":0})");
    const LogLine refusal = error_line("zutr_prepare_param", "cannot open log file " + log +
                                                                 ", error:Device or resource busy");
    using Args = std::vector<std::string>;
    for (const Args &command :
         {Args{"-c", "dump_super"}, Args{"-c", "repair_brick", "-f", conf, "-y"}}) {
        // What stands between them must not be logged into the device either.
        for (const Args &files : {Args{"-p", device, "-l", log}, Args{"-l", log, "-p", device},
                                  Args{"-l", log, "-c", "unknown", "-p", device}}) {
            for (const bool first : {false, true}) {
                std::vector<std::string> args = files;
                args.insert(first ? args.begin() : args.end(), command.begin(), command.end());
                SCOPED_TRACE(testing::PrintToString(args));
                const RunResult run = run_tool(args);
                EXPECT_EQ(run.status, 22) << run;
                EXPECT_EQ(run.out, "");
                EXPECT_EQ(parse_log(run.err), Log{refusal});
            }
        }
    }
}

TEST(LogDevice, ImageUnderAnyName)
{
    const Device device = make_v1_device(super_v1(1, 1, 1), {brick_used(0)});
    const TempDir &directory = device.directory();
    const std::vector<std::uint8_t> before = device.bytes();
    std::filesystem::create_hard_link(device.path(), directory.path("link"));
    std::filesystem::create_symlink(device.path(), directory.path("symlink"));
    for (const std::string name : {"device", "link", "symlink"})
        expect_log_refused(device.path(), directory.path(name), directory);
    EXPECT_EQ(device.bytes(), before);
}

TEST(LogDevice, MissingDevice)
{
    const TempDir directory;
    const std::string path = directory.path("missing");
    expect_log_refused(path, path, directory);
    EXPECT_FALSE(std::filesystem::exists(path));
}

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
    for (const std::string &out : {loop->path(), node}) {
        expect_run(dump_to(out),
                   {.status = 22,
                    .log = {error_line("zutr_prepare_param",
                                       "open path " + out + " failed:Device or resource busy")}});
        expect_log_refused(loop->path(), out, device.directory());
    }
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
