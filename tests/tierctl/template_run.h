#pragma once

// Runs of zu_tierctl template, and the proof of what they say: what zu_tier makes of their files.

#include "run.h"

#include <string>
#include <vector>

namespace tier_test {

// What a run says of an entry, in the order in which it does.
struct Template {
    std::string file{};
    std::vector<std::string> flaws{};    // of the entry and of its file
    std::vector<std::string> changes{};  // "KEY: A -> B"
    std::vector<std::string> refusals{}; // messages of zu_tier
    std::string option{};                // of the command that repairs: "-v1", or nothing
};

// zu_tierctl template <device> <args>
RunResult run_template(const Device &device, const std::vector<std::string> &args,
                       const RunOptions &options = {});

// A run that must succeed and say all that a run says.
Template read_template(const Device &device, const std::vector<std::string> &args);

// A failed run with that complaint, which prints nothing.
void expect_template_failure(const Device &device, const std::vector<std::string> &args, int status,
                             const std::string &complaint);

// Templates of the entries of a device, which stays as it is. Each file is given to zu_tier, to
// repair a copy of the device: it refuses the file with just the messages that were foreseen, or
// it writes a block that differs from the one of the device in just the fields that were told.
class TemplateProof {
public:
    explicit TemplateProof(const Device &device);

    // What the template said. `args` follow the table and the number.
    Template check(const std::string &table, std::uint64_t no,
                   const std::vector<std::string> &args = {});

    // Has been called last: nothing but the blocks of the entries has been written.
    void finish() const;

private:
    LoggedRun repair(const std::string &table, const Template &made, const std::string &more) const;
    void expect_changes(const std::string &table, std::uint64_t no, const Template &made) const;
    std::vector<std::string> take_changes(const std::string &table, std::uint64_t no) const;
    void expect_refused(const LoggedRun &run, const Template &made) const;

    const Device &device_;
    TempDir directory_;
    const std::string copy_ = directory_.path("copy");
};

// Every entry of a table with `count` of them.
std::vector<Template> check_table(TemplateProof &proof, const std::string &table,
                                  std::uint64_t count, const std::vector<std::string> &args = {});

} // namespace tier_test
