#pragma once

// The processor instructions of a program, counted by valgrind: the same on every run and, but for
// the C library's choice of functions, on every machine.

#include "temp_dir.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

namespace tier_test {

class InstructionCounter {
public:
    explicit InstructionCounter(const TempDir &directory) : report_(directory.write("report", ""))
    {
    }

    // What comes before the program and its arguments.
    std::vector<std::string> wrapper() const
    {
        return {"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                "--log-file=" + report_};
    }

    // Those of the run that has ended last.
    std::uint64_t count() const
    {
        static const std::regex COUNT(R"(refs: +([0-9,]+))");
        const std::string text = read_file(report_);
        std::smatch found;
        if (!std::regex_search(text, found, COUNT)) {
            ADD_FAILURE() << text;
            return 0;
        }
        std::string count = found[1];
        std::erase(count, ',');
        return std::stoull(count);
    }

private:
    std::string report_;
};

} // namespace tier_test
