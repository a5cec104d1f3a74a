#pragma once

#include "device.h"
#include "log.h"
#include "settings.h"

#include <chrono>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace tier_test {

struct RunOptions {
    std::vector<std::pair<std::string, std::string>> environment{}; // added to the test's own
    std::string working_directory{};                                // empty: the test's own
    std::string stdout_path{};                                      // empty: captured
    std::chrono::milliseconds timeout{60'000};
};

struct RunResult {
    int status = -1; // exit status, -1 when a signal ended the program
    int signal = 0;
    bool timed_out = false;
    std::string out;
    std::string err;
};

// The path of a program of the project: in the directory ZU_TIER_PROGRAMS, if the environment names
// one, else as it was built with the tests.
std::string program(const std::string &name);

inline const std::string ZU_TIER = program("zu_tier");
inline const std::string ZU_TIERCTL = program("zu_tierctl");

// The executable under test. Standard input is /dev/null, no core is written.
RunResult run_tool(const std::vector<std::string> &args, const RunOptions &options = {});

RunResult run_program(const std::string &path, const std::vector<std::string> &args,
                      const RunOptions &options = {});

struct LoggedRun : RunResult {
    Log log;    // the log file
    Log errors; // standard error
};

// Runs the tool with a fresh log file "log" in `directory`: "-l <log>" comes before `args`.
LoggedRun run_with_log(const TempDir &directory, const std::vector<std::string> &args,
                       const RunOptions &options = {});

// Runs one command on a device with a log file of its own. `args` follow "-l <log> -p <device>
// -c <command>".
LoggedRun run_logged(const Device &device, const std::string &command,
                     const std::vector<std::string> &args = {}, const RunOptions &options = {});

LogLine settings_line(const Device &device, const std::string &command,
                      const Settings &settings = {});

// The lines of an output, without their ends.
std::vector<std::string> lines_of(const std::string &text);

// The commands that zu_tierctl names where a device has no super block, and what it says of one
// that has none of a known layout.
inline std::string super_ways(const std::string &path)
{
    return "zu_tierctl rescue " + path + ", or zu_tierctl revert SAVED " + path + " super 0";
}
inline std::string no_super_block(const std::string &path)
{
    return path + " has no super block of a known layout; what helps: " + super_ways(path);
}

std::ostream &operator<<(std::ostream &out, const RunResult &result);

} // namespace tier_test
