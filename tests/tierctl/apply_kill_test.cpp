// zu_tierctl apply and undo killed where they enter and leave every system call: from there, undo
// gives the device back byte for byte, and apply finishes it.

#include "apply_run.h"
#include "kill_run.h"
#include "loop_device.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

// The parameter is what the device is.
class KilledApply : public ApplyRuns {
protected:
    KilledApply() : ApplyRuns("v1") {}

    void SetUp() override
    {
        if (GetParam() == "LoopDevice") {
            loop_ = LoopDevice::attach(path);
            if (loop_ == nullptr)
                GTEST_SKIP() << "no right to set up a loop device";
            device_ = loop_->path();
        }
        if (GetParam() == "FileSystemWithoutUnnamedFiles") {
            setenv("LD_PRELOAD", ZUTR_FAULTS_LIB, 1);
            setenv("ZUTR_FAULTS", "tmpfile=EOPNOTSUPP", 1);
        }
    }

    void TearDown() override
    {
        unsetenv("LD_PRELOAD");
        unsetenv("ZUTR_FAULTS");
    }

    // What a run may leave: the bytes of the slots that the plan is about, and the undo file.
    struct State {
        std::vector<Block> blocks;
        std::string undo;

        auto operator<=>(const State &) const = default;
    };

    State state() const
    {
        State state;
        for (const PlanStep &step : steps)
            state.blocks.push_back(cache.device.block(static_cast<std::uint64_t>(step.offset)));
        if (fs::exists(undo))
            state.undo = directory.read("undo");
        return state;
    }

    void restore(const State &state)
    {
        for (std::size_t i = 0; i < steps.size(); ++i)
            if (cache.device.block(static_cast<std::uint64_t>(steps[i].offset)) != state.blocks[i])
                put_block(cache.device, steps[i].offset, state.blocks[i]);
        for (const std::string &name : names_in(directory))
            if (name != "plan" && name != "undo")
                fs::remove(directory.path(name)); // shows that files without a name can get one
        if (!state.undo.empty()) {
            directory.write("undo", state.undo);
        } else {
            fs::remove(undo);
        }
    }

    std::vector<std::string> args_of(const std::string &command) const
    {
        if (command == "apply")
            return {"apply", plan, device_, "--undo", undo, "--commit"};
        return {"undo", undo, device_, "--commit"};
    }

    void expect_end(const std::string &command, const std::vector<std::uint8_t> &bytes) const
    {
        const RunResult run = run_ctl(args_of(command));
        EXPECT_EQ(run.status, 0) << run;
        expect_device(bytes);
    }

    // Nothing but the blocks of the plan has changed, and both ways are open. Without an undo file
    // nothing has been written.
    void expect_ways(const State &start, const State &left, const std::string &complete)
    {
        for (std::size_t i = 0; i < steps.size(); ++i)
            EXPECT_TRUE(left.blocks[i] == steps[i].before || left.blocks[i] == steps[i].after ||
                        left.blocks[i] == start.blocks[i]);
        EXPECT_TRUE(left.undo.empty() || left.undo == complete);
        if (left.undo.empty()) {
            expect_device(bad);
        } else {
            expect_end("undo", bad);
            restore(left);
        }
        expect_end("apply", good);
        restore(left);
    }

    // The stops where the command is killed: all of them in a sweep, else some, and those beside
    // each at which another state is on the disk than at the one before.
    std::set<std::size_t> stops_of(const std::string &command) const
    {
        const std::size_t step = std::getenv("ZU_TIER_EVERY_STOP") == nullptr ? 16 : 1;
        const std::size_t first = first_stop_of_tierctl();
        std::set<std::size_t> stops;
        State before = state();
        const std::size_t reached =
            run_stopped(args_of(command), ZU_TIERCTL, [&](pid_t, std::size_t stop) {
                if (stop >= first && (stop - first) % step == 0)
                    stops.insert(stop);
                const State now = state();
                for (std::size_t beside = stop - 2; now != before && beside <= stop + 2; ++beside)
                    stops.insert(beside);
                before = now;
            }).reached;
        EXPECT_GT(reached - first, 100U);
        stops.erase(stops.upper_bound(reached), stops.end());
        return stops;
    }

    // Kills the command at its stops, always from the same start. What was seen before is not tried
    // again.
    void kill_everywhere(const std::string &command, std::size_t states)
    {
        const State start = state();
        const std::string complete = undo_file(planned(), directory.read("plan"), steps);
        const std::set<std::size_t> stops = stops_of(command);
        restore(start);
        std::set<State> seen;
        for (const std::size_t stop : stops) {
            SCOPED_TRACE(stop);
            run_killed_at(stop, args_of(command), ZU_TIERCTL);
            const State left = state();
            if (seen.insert(left).second)
                expect_ways(start, left, complete);
            restore(start);
        }
        EXPECT_EQ(seen.size(), states);
        RecordProperty("runs", static_cast<int>(stops.size()));
    }

private:
    std::unique_ptr<LoopDevice> loop_;
    std::string device_ = path;
};

INSTANTIATE_TEST_SUITE_P(, KilledApply, testing::Values("File", "LoopDevice"),
                         [](const auto &device) { return device.param; });

// Nothing, the undo file, and each block.
TEST_P(KilledApply, Apply) { kill_everywhere("apply", 2 + steps.size()); }

// Only the run that makes the undo file cares.
class KilledNaming : public KilledApply {};
INSTANTIATE_TEST_SUITE_P(, KilledNaming, testing::Values("FileSystemWithoutUnnamedFiles"),
                         [](const auto &device) { return device.param; });

TEST_P(KilledNaming, Apply) { kill_everywhere("apply", 2 + steps.size()); }

TEST_P(KilledApply, ApplyThatGoesOn)
{
    const RunResult done = run_ctl(args_of("apply"));
    ASSERT_EQ(done.status, 0) << done;
    put_block(cache.device, steps[1].offset, steps[1].before);
    put_block(cache.device, steps[2].offset, steps[2].before);
    kill_everywhere("apply", steps.size());
}

TEST_P(KilledApply, Undo)
{
    const RunResult done = run_ctl(args_of("apply"));
    ASSERT_EQ(done.status, 0) << done;
    kill_everywhere("undo", 1 + steps.size());
}

// A run that is asked to end says what it has written, unless it is to ignore that.
TEST_P(KilledApply, AnInterruptedApplyTells)
{
    const std::string told = directory.path("told");
    const std::vector<std::string> args = args_of("apply");
    std::string command = std::string("exec ") + ZU_TIERCTL;
    for (const std::string &arg : args)
        command += " '" + arg + "'";
    command += " 2> '" + told + "'";
    const std::string ways = "; the same command goes on from here, and zu_tierctl undo " + undo +
                             ' ' + args[2] + " goes back\n";
    const std::set<std::string> expected{
        "zu_tierctl: interrupted; not written: brick 1, extent 0, inode 2" + ways,
        "zu_tierctl: interrupted; written: brick 1; not written: extent 0, inode 2" + ways,
        "zu_tierctl: interrupted; written: brick 1, inode 2; not written: extent 0" + ways};
    const State start = state();
    std::set<std::string> seen;
    std::size_t stop = run_stopped({"-c", command}, "/bin/sh", [](pid_t, std::size_t) {}).reached;
    for (; seen.size() < expected.size() && stop > 0 && !HasFailure(); --stop) {
        SCOPED_TRACE(stop);
        restore(start);
        run_killed_at(stop, {"-c", command}, "/bin/sh", 0, SIGTERM);
        const std::string text = directory.read("told");
        const State left = state();
        std::size_t done = 0;
        for (std::size_t i = 0; i < steps.size(); ++i)
            done += left.blocks[i] == steps[i].after ? 1 : 0;
        if (done == steps.size() || (done == 0 && text.empty()))
            continue;
        EXPECT_TRUE(expected.contains(text)) << text;
        if (seen.insert(text).second) {
            const std::size_t rest = text.find("not written: ");
            for (std::size_t i = 0; i < steps.size(); ++i) {
                const std::string name = steps[i].table + ' ' + std::to_string(steps[i].no);
                EXPECT_EQ(left.blocks[i] == steps[i].after, text.find(name) < rest) << name;
            }
            expect_end("apply", good);
        }
    }
    EXPECT_EQ(seen, expected);

    restore(start);
    run_killed_at(stop + 8, {"-c", "trap '' HUP; " + command}, "/bin/sh", 0, SIGHUP);
    EXPECT_EQ(directory.read("told"), "");
    expect_device(good);
}

// The first is written, the second in part.
TEST_P(KilledApply, UndoFromTheMiddleOfAnApply)
{
    const RunResult done = run_ctl(args_of("apply"));
    ASSERT_EQ(done.status, 0) << done;
    Block torn = steps[1].before;
    std::copy_n(steps[1].after.begin(), 512, torn.begin());
    put_block(cache.device, steps[1].offset, torn);
    put_block(cache.device, steps[2].offset, steps[2].before);
    kill_everywhere("undo", 3);
}

} // namespace
