#pragma once

#include "run.h"

#include <future>
#include <string>

namespace tier_test {

// A terminal of so many columns, for the standard output of a program.
class PseudoTerminal {
public:
    explicit PseudoTerminal(unsigned short columns);
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal &) = delete;
    PseudoTerminal &operator=(const PseudoTerminal &) = delete;

    const std::string &path() const { return path_; }

    // All that was written to it; ends it.
    std::string take();

private:
    int fd_;
    std::string path_;
    int program_side_; // kept open so that reading waits for the program
    std::future<std::string> written_;
};

// Runs a program on a terminal, an xterm unless the environment of the run has another: what it
// writes there is `out`, with line ends as it writes them.
RunResult run_on_terminal(const std::string &path, const std::vector<std::string> &args,
                          unsigned short columns, RunOptions options = {});

} // namespace tier_test
