// Every call for input or output of every command failing in every way, once and from then on.

#include "fault_sweep.h"

using namespace tier_test;

namespace {

SweepRuns io_runs("io");

struct Call {
    std::string name;
    std::vector<std::string> effects;
    std::vector<std::string> retried{}; // for ever: no run may end before they do
};

const std::vector<std::string> ERRORS{"EIO", "EINTR", "EAGAIN", "ENOSPC"};
const std::vector<Call> CALLS{
    {"open", ERRORS},
    {"close", ERRORS},
    {"stat", ERRORS},
    {"fstat", ERRORS},
    {"fopen", ERRORS},
    {"fclose", ERRORS},
    {"fread", {"EIO", "EINTR", "EAGAIN", "ENOSPC", "short:0", "short:7"}},
    {"write", {"EIO", "EINTR", "EAGAIN", "ENOSPC", "short:7"}},
    {"pread", {"EIO", "ENOSPC", "short:0", "short:512"}, {"EINTR", "EAGAIN"}},
    {"pwrite", {"EIO", "ENOSPC", "short:512"}, {"EINTR", "EAGAIN", "short:0"}},
};

std::vector<std::string> names()
{
    std::vector<std::string> result;
    for (const Call &call : CALLS)
        result.push_back(call.name);
    return result;
}

class IoSweep : public FaultSweep {
protected:
    IoSweep() : FaultSweep(io_runs, 0) {}

    void fail_once(const Scenario &scenario, const Call &call, std::uint64_t n)
    {
        for (const auto &effects : {call.effects, call.retried})
            for (const std::string &effect : effects)
                disturbed(scenario, text("%s#%lu=%s", call.name.c_str(), n, effect.c_str()));
    }

    // One error stands for the others.
    void fail_for_good(const Scenario &scenario, const Call &call, std::uint64_t n)
    {
        for (const std::string &effect : call.effects)
            if (effect == "EIO" || effect.starts_with("short"))
                disturbed(scenario, text("%s#%lu-=%s", call.name.c_str(), n, effect.c_str()));
    }
};

TEST_P(IoSweep, EveryCallFails)
{
    for (const Scenario &scenario : scenarios()) {
        Calls seen = undisturbed(scenario, names());
        for (const Call &call : CALLS)
            for (std::uint64_t n = 1; n <= seen[call.name]; ++n) {
                fail_once(scenario, call, n);
                fail_for_good(scenario, call, n);
            }
    }
}

// Only transfers from and to the device are repeated, and these as often as it takes.
TEST_P(IoSweep, InterruptedTransfersAreRepeated)
{
    for (const Scenario &scenario : scenarios()) {
        Calls seen = undisturbed(scenario, names());
        for (const Call &call : CALLS)
            for (const std::string &effect : call.retried)
                if (seen[call.name] != 0)
                    disturbed(scenario, text("%s#1-100=%s", call.name.c_str(), effect.c_str()));
    }
}

INSTANTIATE_TEST_SUITE_P(, IoSweep, testing::ValuesIn(swept_commands()), command_name);

class EndlessIoSweep : public IoSweep {};

// Then the run goes on until it is killed, and has done nothing meanwhile.
TEST_P(EndlessIoSweep, IsWaitedFor)
{
    constexpr std::chrono::milliseconds LONG(300);
    for (const Scenario &scenario : scenarios()) {
        Calls seen = undisturbed(scenario, names());
        for (const Call &call : CALLS)
            for (const std::string &effect : call.retried) {
                if (seen[call.name] == 0)
                    continue;
                SCOPED_TRACE(scenario.name + ", " + call.name + ' ' + effect);
                const Outcome outcome = run(scenario, call.name + '=' + effect, LONG);
                EXPECT_TRUE(outcome.timed_out) << clipped(outcome);
                EXPECT_NE(outcome.taken, "");
                expect_untouched();
            }
    }
}

// One that reads and writes.
std::vector<SweptCommand> reading_and_writing()
{
    std::vector<SweptCommand> commands = swept_commands();
    std::erase_if(commands,
                  [](const SweptCommand &each) { return each.name != "V1_repair_inode"; });
    std::erase_if(commands.front().scenarios, [](const Scenario &each) { return !each.commits(); });
    commands.front().scenarios.resize(1);
    return commands;
}

INSTANTIATE_TEST_SUITE_P(, EndlessIoSweep, testing::ValuesIn(reading_and_writing()), command_name);

} // namespace
