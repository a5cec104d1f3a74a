#pragma once

// What every command of both programs must stand: inputs that are none, and outputs that take
// nothing.

#include "run.h"

#include <map>
#include <string>
#include <vector>

namespace tier_test {

// Lays at `path`, in place of what is there, one of these: "missing"; "unreadable" or "read-only",
// a copy of the file `good`; "tiny", "empty" or "random", a file of 10, 0 or 65536 random bytes;
// "directory"; "fifo"; "socket"; "/dev/null" and the like, a link to that character device.
void lay(const std::string &kind, const std::string &good, const std::string &path);

// Standard outputs that take nothing, with the reason that a write to them gives.
inline const std::map<std::string, std::string> BAD_OUTPUTS{
    {"full", "No space left on device"},
    {"closed", "Bad file descriptor"},
    {"broken", "Broken pipe"}, // a pipe without a reader
};

// Runs a program without the right to read and write whatever the permissions say. `output` is one
// of BAD_OUTPUTS, or empty: captured.
RunResult run_as_user(const std::string &path, const std::vector<std::string> &args,
                      const std::string &output = {});

// What lies in a directory: each name, and a hash of the bytes of a regular file that can be read.
std::map<std::string, std::size_t> files_in(const TempDir &directory);

} // namespace tier_test
