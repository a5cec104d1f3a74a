#pragma once

#include "run.h"

#include <string>
#include <string_view>

namespace tier_test {

struct Expected {
    int status = 0;
    std::string out{};
    Log log{};
};

// The run ended by itself with this status, standard output and log file, and standard error has
// only the ERROR lines of the log.
void expect_run(const LoggedRun &run, const Expected &expected);

// The run ended in a failed assertion about `condition`.
void expect_abort(const RunResult &run, std::string_view condition);

// For tests in which no log file can be opened: false (and a failure) when the tool's default log
// directory exists on this machine.
bool default_log_is_missing();

} // namespace tier_test
