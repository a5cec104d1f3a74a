// Every allocation of every command refused, once and from then on. In the sanitizer build the
// operator new is the sanitizer's own: what it hands out is not among them.

#include "fault_sweep.h"

using namespace tier_test;

namespace {

SweepRuns memory_runs("memory");

class MemorySweep : public FaultSweep {
protected:
    MemorySweep() : FaultSweep(memory_runs, NO_MEMORY) {}
};

TEST_P(MemorySweep, EveryAllocationIsRefused)
{
    for (const Scenario &scenario : scenarios())
        for (const auto &[call, count] : undisturbed(
                 scenario, {"malloc", "calloc", "realloc", "posix_memalign", "aligned_alloc"}))
            for (std::uint64_t n = 1; n <= count; ++n) {
                disturbed(scenario, text("%s#%lu=ENOMEM", call.c_str(), n));
                // A file is parsed to the first refusal, whether it is to be committed or not.
                if (scenario.conf.empty() || scenario.commits())
                    disturbed(scenario, text("%s#%lu-=ENOMEM", call.c_str(), n));
            }
}

INSTANTIATE_TEST_SUITE_P(, MemorySweep, testing::ValuesIn(swept_commands()), command_name);

} // namespace
