#pragma once

#include "run.h"

#include <csignal>
#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tier_test {

// Runs a program and sends it a signal, by default the one that kills it, where it enters or leaves
// a system call: at the `stop`-th such place, counted from 1. Returns how many of them the run has
// reached; fewer than `stop` when it has ended before. A run that no signal ended must have that
// exit status.
std::size_t run_killed_at(std::size_t stop, const std::vector<std::string> &args,
                          const std::string &program = ZU_TIER, int status = 0,
                          int signal = SIGKILL);

// The first stop of zu_tierctl that counts: before it only the loader is at work, as in any run.
std::size_t first_stop_of_tierctl();

struct StoppedRun {
    std::size_t reached; // stops, as above
    int state;           // of the end, as waitpid gives it
};

// Runs a program, calls `act` with its process and the number of the stop wherever it is stopped,
// and lets it go on to its end.
StoppedRun run_stopped(const std::vector<std::string> &args, const std::string &program,
                       const std::function<void(pid_t, std::size_t stop)> &act);

// The same, but calls `act` at the `stop`-th one only.
StoppedRun run_stopped_at(std::size_t stop, const std::vector<std::string> &args,
                          const std::string &program, const std::function<void(pid_t)> &act);

} // namespace tier_test
