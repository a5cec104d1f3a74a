#pragma once

#include "run.h"

#include <cstddef>
#include <string>
#include <vector>

namespace tier_test {

// Runs a program and kills it where it enters or leaves a system call: at the `stop`-th such place,
// counted from 1. Returns how many of them the run has reached; fewer than `stop` when it has
// ended, which must have been with that exit status.
std::size_t run_killed_at(std::size_t stop, const std::vector<std::string> &args,
                          const std::string &program = ZU_TIER, int status = 0);

} // namespace tier_test
