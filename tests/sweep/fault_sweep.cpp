#include "fault_sweep.h"

#include "faulty_run.h"

#include <algorithm>
#include <cstdio>
#include <regex>

namespace tier_test {

namespace {

// The output without what is made up anew in each run.
std::string without_uuid(const Scenario &scenario, const std::string &out)
{
    static const std::regex MADE_UP("\"bi_(checksum|uuid)\":\"[^\"]*\"");
    return scenario.makes_uuid ? std::regex_replace(out, MADE_UP, "") : out;
}

} // namespace

SweepRuns::~SweepRuns()
{
    if (runs_ != 0)
        std::printf("%s sweep: %zu runs\n", sweep_, runs_);
}

void SweepRuns::record_test()
{
    testing::Test::RecordProperty("runs", std::to_string(runs_ - recorded_));
    recorded_ = runs_;
}

FaultSweep::Outcome FaultSweep::run(const Scenario &scenario, const std::string &faults,
                                    std::chrono::milliseconds timeout)
{
    const TempDir &directory = device_.directory();
    const std::string trace = directory.write("trace", "");
    std::vector<std::string> args;
    if (scenario.logged)
        args.insert(args.end(), {"-l", directory.write("log", "")});
    args.insert(args.end(), {"-p", device_.path()});
    if (scenario.to_file)
        args.insert(args.end(), {"-o", directory.write("out", "")});
    if (!scenario.conf.empty())
        args.insert(args.end(), {"-f", directory.path("conf")});
    args.insert(args.end(), scenario.args.begin(), scenario.args.end());

    Outcome outcome{
        run_tool(args, {.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                                        {"MALLOC_PERTURB_", "90"},
                                        {"ZUTR_FAULTS", "trace:" + trace + ';' + faults}},
                        .timeout = timeout}),
        read_file(trace)};
    if (scenario.to_file)
        outcome.out += directory.read("out");
    outcome.out = without_uuid(scenario, outcome.out);
    runs_.count();
    return outcome;
}

FaultSweep::Calls FaultSweep::undisturbed(const Scenario &scenario,
                                          const std::vector<std::string> &calls)
{
    SCOPED_TRACE(scenario.name);
    device_.directory().write("conf", scenario.conf);
    std::string passes;
    for (const std::string &call : calls)
        passes += (passes.empty() ? "" : ";") + call + "=pass";
    const Outcome outcome = run(scenario, passes);
    EXPECT_EQ(outcome.status, scenario.status) << clipped(outcome);
    check(scenario, outcome, scenario.situations);
    printed = outcome.out;
    Calls seen;
    for (const std::string &line : lines_of(outcome.taken))
        ++seen[line.substr(0, line.find('('))];
    return seen;
}

void FaultSweep::disturbed(const Scenario &scenario, const std::string &fault)
{
    SCOPED_TRACE(scenario.name + ", " + fault);
    const Outcome outcome = run(scenario, fault);
    EXPECT_NE(outcome.taken, "") << "nothing has failed";
    check(scenario, outcome, scenario.situations | situations_);
    EXPECT_TRUE(outcome.status != 0 || outcome.out == printed ||
                std::ranges::count(scenario.degraded, outcome.out) != 0)
        << clipped(outcome);
}

void FaultSweep::check(const Scenario &scenario, const Outcome &outcome, unsigned situations)
{
    const Snapshot after = take_snapshot(device_.path());
    expect_contract(outcome, before_, after,
                    {.commit = scenario.commits(),
                     .situations = situations,
                     .place = scenario.place,
                     .block = scenario.block});
    if (scenario.commits())
        device_.write(*scenario.place, block_at(before_, *scenario.place));
}

void FaultSweep::expect_untouched() const
{
    EXPECT_EQ(differences(before_, take_snapshot(device_.path())), "");
}

} // namespace tier_test
