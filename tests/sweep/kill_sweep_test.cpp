// Commits killed where they enter and leave every system call: the device has the old block or the
// new one. A killed run can do nothing more, as when the power fails.

#include "fault_sweep.h"
#include "kill_run.h"
#include "loop_device.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

using namespace tier_test;

namespace {

SweepRuns kill_runs("kill");

// Those that find a mistake write nothing, whether they are killed or not.
std::vector<SweptCommand> committing_commands()
{
    std::vector<SweptCommand> commands;
    for (SweptCommand command : swept_commands()) {
        std::erase_if(command.scenarios, [](const Scenario &scenario) {
            return scenario.status != 0 || std::ranges::count(scenario.args, "-y") == 0;
        });
        if (!command.scenarios.empty())
            commands.push_back(command);
    }
    return commands;
}

// Programs of another build may be under the sanitizers: their memory takes a few calls more or
// less from run to run, and what was the moment of the last run is not that of this one.
const std::size_t SHIFT = std::getenv("ZU_TIER_PROGRAMS") != nullptr ? 8 : 0;

class KillSweep : public testing::TestWithParam<SweptCommand> {
protected:
    void TearDown() override { kill_runs.record_test(); }

    // The image lies under the device that the run is given.
    void sweep(const Scenario &scenario, const std::string &path)
    {
        SCOPED_TRACE(scenario.name);
        std::vector<std::string> args{"-l", device_.directory().path("log")};
        args.insert(args.end(), {"-p", path});
        args.insert(args.end(), {"-f", device_.directory().write("conf", scenario.conf)});
        args.insert(args.end(), scenario.args.begin(), scenario.args.end());
        kill_everywhere(scenario, args);
    }

    Device device_ = GetParam().device();

private:
    void kill_everywhere(const Scenario &scenario, const std::vector<std::string> &args)
    {
        std::size_t stop = 1;
        bool was_written = false;
        std::size_t first_written = 0;
        while (run_killed_at(stop, args) == stop) {
            SCOPED_TRACE(stop);
            const bool is_written = check(scenario);
            if (is_written && first_written == 0)
                first_written = stop;
            EXPECT_TRUE(is_written || first_written == 0 || stop - first_written < SHIFT)
                << "written, and then not";
            was_written = is_written;
            kill_runs.count();
            ++stop;
        }
        EXPECT_GT(stop, 10U);
        EXPECT_EQ(was_written, scenario.place.has_value());
        check(scenario);
    }

    // Whether the block has been written. It is the old one again afterwards.
    bool check(const Scenario &scenario)
    {
        const Snapshot after = take_snapshot(device_.path());
        if (after == before_)
            return false;
        const std::uint64_t place = scenario.place.value_or(0);
        const Block now = block_at(after, place);
        EXPECT_TRUE(scenario.place && (!scenario.block || now == *scenario.block));
        EXPECT_EQ(differences(with_block(before_, place, now), after), "");
        device_.write(place, block_at(before_, place));
        return true;
    }

    const Snapshot before_ = take_snapshot(device_.path());
};

TEST_P(KillSweep, FileHasTheOldBlockOrTheNew)
{
    for (const Scenario &scenario : GetParam().scenarios)
        sweep(scenario, device_.path());
}

TEST_P(KillSweep, LoopDeviceHasTheOldBlockOrTheNew)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    const std::unique_ptr<LoopDevice> loop = LoopDevice::attach(device_.path());
    ASSERT_NE(loop, nullptr);
    sweep(GetParam().scenarios.front(), loop->path());
}

INSTANTIATE_TEST_SUITE_P(, KillSweep, testing::ValuesIn(committing_commands()), command_name);

} // namespace
