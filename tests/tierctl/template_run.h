#pragma once

// Runs of zu_tierctl template, and of zu_tier with what they give.

#include "run.h"
#include "template_model.h"

#include <string>
#include <vector>

namespace tier_test {

// An entry of a device, and what a run must say of it besides what its content tells.
struct TemplateCase {
    std::string table;
    std::uint64_t no;
    std::uint64_t offset;
    std::vector<std::string> before{};   // notes before the changes
    std::vector<std::string> refusals{}; // reasons why zu_tier does not take the file
    std::string version{};               // the layout that zu_tier must be told: " -v 1"
    std::vector<std::string> args{};     // more arguments
};

// zu_tierctl template <device> <args>
RunResult run_template(const Device &device, const std::vector<std::string> &args,
                       const RunOptions &options = {});

// A failed run with that complaint, which prints nothing and leaves the device alone.
void expect_template_failure(Device &device, const std::vector<std::string> &args, int status,
                             const std::string &complaint);

// The run prints just that, and zu_tier makes of the file just the expected block or, if reasons
// are told, refuses it. The repaired block stays.
void expect_template(Device &device, const TemplateCase &entry, const ExpectedTemplate &expected);

} // namespace tier_test
