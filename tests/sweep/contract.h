#pragma once

// The contract of every run of the tool.

#include "assertions.h"
#include "run.h"
#include "snapshot.h"

#include <optional>

namespace tier_test {

// A super block whose numbers can be anything.
constexpr unsigned ABSURD_SUPER = GEOMETRY | NO_SIZE | MANY_ENTRIES;

struct Terms {
    bool commit = false;     // -y was given to a repair
    unsigned situations = 0; // Situation bits

    // Where a commit writes; by default the place that the run printed.
    std::optional<std::uint64_t> place{};

    // What it writes there. By default anything.
    std::optional<Block> block{};
};

// Checks the run, which found the device with the content `before` and left it with `after`.
void expect_contract(const RunResult &run, const Snapshot &before, const Snapshot &after,
                     const Terms &terms = {});

// The run with the beginning of what it printed, for messages.
RunResult clipped(RunResult run);

} // namespace tier_test
