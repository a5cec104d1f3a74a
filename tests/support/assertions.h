#pragma once

// The assertions that may end a run: a hard stop by design. All others guard what no input can
// bring about.

#include <string_view>
#include <vector>

namespace tier_test {

// The situations in which a run may end in a failed assertion, as bits.
enum Situation : unsigned {
    NO_LOG = 1,           // no log file could be opened, and an entry is damaged
    NO_MEMORY = 2,        // an allocation was refused
    FORCED = 4,           // option -v: no super block was read
    GEOMETRY = 8,         // a sealed super block with absurd counts or offsets
    NO_SIZE = 16,         // one whose extents have no size
    MANY_ENTRIES = 32,    // one with more entries in a table than 31 bits count
    DESCRIPTION = 64,     // convert_super of a super block that cannot be one
    UNREADABLE_FILE = 128 // convert_super of a file that cannot be loaded
};

struct Assertion {
    std::string_view condition;
    unsigned situations; // in which it may fail
};

const std::vector<Assertion> &assertions();

// Whether an assertion of this text may fail in one of the situations.
bool may_fail(std::string_view condition, unsigned situations);

} // namespace tier_test
