// One write of the output that fails while all later ones succeed: the output has a gap, and its
// end alone would look right.

#include "expect.h"
#include "faulty_run.h"
#include "v1_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class LostOutput : public testing::TestWithParam<int> {
protected:
    Device device = make_v1_device(super_v1(1, 3000, 1));
    const std::string faults = text("write#%d=ENOSPC", GetParam());

    static Log log_with(const LogLine &settings)
    {
        return {settings, error_line("main", "write output failed:No space left on device")};
    }
};

TEST_P(LostOutput, IsMissedInAnOutputFile)
{
    const std::string path = device.directory().path("out");
    const FaultyRun run = run_faulty(device, "dump_inode", faults, {"-o", path});
    EXPECT_EQ(run.taken.size(), 1U);
    expect_run(run, {.status = 5,
                     .log = log_with(settings_line(device, "dump_inode", {.out_path = path}))});
}

TEST_P(LostOutput, IsMissedOnStandardOutput)
{
    const FaultyRun run =
        run_faulty(device, "dump_inode", faults, {}, {.stdout_path = "/dev/null"});
    EXPECT_EQ(run.taken.size(), 1U);
    expect_run(run, {.status = 5, .log = log_with(settings_line(device, "dump_inode"))});
}

INSTANTIATE_TEST_SUITE_P(Write, LostOutput, testing::Values(1, 2, 5));

} // namespace
