#pragma once

#include "zu_tier/front/zu_tier.h"

namespace tier_fuzz {

struct Outcome;

// Ends the process, with `rule` on standard error, when it does not hold: that is a finding.
void require(bool holds, const char *rule);

// What the contract of a run depends on.
struct Situation {
    zutr_cmd_t command = ZUTR_CMD_UNKNOWN;
    bool commit = false;
    bool log = true;             // there is a log stream
    bool forced_version = false; // the super block was not read
};

// The result is one that a run may have, or an assertion that is there for such a situation. The
// device is as it was, or a committed repair wrote one block; everything opened is closed.
void check_contract(const Outcome &outcome, const Situation &situation);

} // namespace tier_fuzz
