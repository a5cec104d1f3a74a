#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tier_test {

// Runs the tool and kills it where it enters or leaves a system call: at the `stop`-th such place,
// counted from 1. Returns how many of them the run has reached; fewer than `stop` when it has come
// to its end, which must have been exit status 0.
std::size_t run_killed_at(std::size_t stop, const std::vector<std::string> &args);

} // namespace tier_test
