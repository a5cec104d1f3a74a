#pragma once

// Command lines that together take every path of the tool, for sweeps that let every call of a run
// fail in turn.

#include "contract.h"
#include "device.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tier_test {

struct Scenario {
    std::string name;
    std::vector<std::string> args;        // after the log file and the device
    std::string conf{};                   // the content of the repair file; empty: there is none
    int status = 0;                       // -1: a failed assertion
    unsigned situations = 0;              // that allow one, when nothing fails
    bool logged = true;                   // to a file of its own
    bool to_file = false;                 // prints to a file
    bool makes_uuid = false;              // and prints it
    std::optional<std::uint64_t> place{}; // where -y writes
    std::optional<Block> block{};         // what it writes there

    // What it may also print with status 0, when some blocks cannot be shown.
    std::vector<std::string> degraded{};

    bool commits() const;
};

// The scenarios of one command on one device.
struct SweptCommand {
    std::string name;
    std::function<Device()> device;
    std::vector<Scenario> scenarios;
};

// Of all layouts; those of the front end come first.
const std::vector<SweptCommand> &swept_commands();

// By layout and kind.
std::vector<SweptCommand> super_commands();
std::vector<SweptCommand> entry_commands();
std::vector<SweptCommand> packed_commands();

// The scenario as a commit and as a dry run.
void add_commit(SweptCommand &command, Scenario repair);
void add_repair(SweptCommand &command, const Scenario &repair);

// Of a walk over a table that cannot be read.
std::string unreadable_table(const char *key, const std::vector<std::int64_t> &offsets);

std::ostream &operator<<(std::ostream &out, const SweptCommand &command);

} // namespace tier_test
