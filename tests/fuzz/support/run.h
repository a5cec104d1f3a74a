#pragma once

#include "world.h"
#include "zu_tier/front/zu_tier.h"

#include <functional>

namespace tier_fuzz {

enum class Ending { returned, assertion, cut_short };

struct Outcome {
    Ending ending;
    std::int64_t value = 0;          // what was returned
    const char *assertion = nullptr; // that failed
};

// Makes a call into the tool, in `world`, as a process of its own would: it leaves only its
// outcome, the device and what it printed.
Outcome run(const std::function<std::int64_t()> &call);

// The whole tool; the first argument is its name.
Outcome run_tool(std::vector<std::string> arguments);

// What a handler is given when the device of `world` is open and its super block read.
zutr_params_t params_of(zutr_cmd_t cmd, Bytes &super);

} // namespace tier_fuzz
