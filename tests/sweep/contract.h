#pragma once

// What every run of the tool keeps to, whatever it meets.

#include "run.h"
#include "snapshot.h"

#include <optional>

namespace tier_test {

// The situations in which a run may end in a failed assertion, as bits.
enum Situation : unsigned {
    NO_LOG = 1,          // no log file could be opened, and an entry is damaged
    NO_MEMORY = 2,       // an allocation was refused
    FORCED = 4,          // option -v: no super block was read
    GEOMETRY = 8,        // a sealed super block with absurd counts or offsets
    DESCRIPTION = 16,    // convert_super of a super block that cannot be one
    UNREADABLE_FILE = 32 // convert_super of a file that cannot be loaded
};

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
