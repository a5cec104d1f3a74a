// Every key of every repair file with every number that is of interest, one at a time. The result
// of each file is computed from the model. What else a key may be, the tests of keys try.

#include "fault_sweep.h"
#include "key_sweep.h"

#include <iterator>
#include <sstream>

using namespace tier_test;

namespace {

SweepRuns configuration_runs("configuration");

// Fractions, signs and the bounds of 31, 32, 53, 63 and 64 bits.
constexpr const char *NUMBERS =
    "0 0.5 1 1.5 1e3 -0.5 -1 -1.5 2147483647.9 2147483648 -2147483649 4294967295 4294967296 "
    "4294967297 9007199254740993 9223372036854775807 9223372036854775808 9223372036854775809 "
    "18446744073709551615 18446744073709551616 -9223372036854775808 -9223372036854775809 1e400";

class Configuration : public KeySweep {
protected:
    LoggedRun run(const std::vector<std::string> &args) override
    {
        configuration_runs.count();
        return KeySweep::run(args);
    }
    void TearDown() override { configuration_runs.record_test(); }
};

TEST_P(Configuration, Numbers)
{
    std::istringstream numbers(NUMBERS);
    expect_numbers({std::istream_iterator<std::string>(numbers), {}});
}

INSTANTIATE_TEST_SUITE_P(Sweep, Configuration, testing::ValuesIn(all_samples()), sample_name);

} // namespace
