#pragma once

// A sweep of faults over the scenarios of one command: each run is checked against the contract,
// and what it prints with status 0 against the run without a fault.

#include "scenarios.h"

#include <gtest/gtest.h>
#include <map>

namespace tier_test {

// Records how many runs a sweep has made: each test its own number, the program the sum.
class SweepRuns {
public:
    explicit SweepRuns(const char *sweep) : sweep_(sweep) {}
    ~SweepRuns();
    SweepRuns(const SweepRuns &) = delete;
    SweepRuns &operator=(const SweepRuns &) = delete;

    void count() { ++runs_; }
    void record_test();

private:
    const char *sweep_;
    std::size_t runs_ = 0;
    std::size_t recorded_ = 0;
};

class FaultSweep : public testing::TestWithParam<SweptCommand> {
protected:
    FaultSweep(SweepRuns &runs, unsigned situations) : runs_(runs), situations_(situations) {}
    void TearDown() override { runs_.record_test(); }

    const std::vector<Scenario> &scenarios() const { return GetParam().scenarios; }

    // How often a run without a fault makes each of these calls; it sets what others must print.
    using Calls = std::map<std::string, std::uint64_t>;
    Calls undisturbed(const Scenario &scenario, const std::vector<std::string> &calls);

    // A run in which this happens.
    void disturbed(const Scenario &scenario, const std::string &fault);

    // Runs the scenario with this fault until it ends or is killed.
    struct Outcome : RunResult {
        std::string taken; // the calls that a fault took
    };
    Outcome run(const Scenario &scenario, const std::string &faults,
                std::chrono::milliseconds timeout = std::chrono::seconds(20));

    // The device is as it was at first.
    void expect_untouched() const;

    std::string printed; // by the run without a fault

private:
    void check(const Scenario &scenario, const Outcome &outcome, unsigned situations);

    SweepRuns &runs_;
    unsigned situations_;
    Device device_ = GetParam().device();
    const Snapshot before_ = take_snapshot(device_.path());
};

// For the names of the tests.
inline std::string command_name(const testing::TestParamInfo<SweptCommand> &info)
{
    return info.param.name;
}

} // namespace tier_test
