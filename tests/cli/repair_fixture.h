#pragma once

#include "device.h"
#include "expect.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

// The result of a repair.
struct Repaired {
    std::int64_t offset;
    Block block;
    std::string json;
};

// Runs of one repair command on a device of one layout version.
class RepairFixture : public testing::Test {
protected:
    RepairFixture(std::string command, int code, int version, Device on)
        : device(std::move(on)), command_(std::move(command)), code_(code), version_(version)
    {
    }

    Device device;

    std::string conf() const { return device.directory().path("conf.json"); }

    // Node addresses in the messages are replaced by "<address>".
    LoggedRun repair(const std::string &document, const std::vector<std::string> &args = {},
                     const RunOptions &options = {});

    // The log of a run whose parser or loader wrote `lines`.
    Log log_with(const Log &lines, const Log &rest = {}) const;
    LogLine dry_run_line() const;
    LogLine parse_failure_line(int status) const;

    // The file is accepted: a dry run prints the entry and leaves the device alone, a commit prints
    // it too and replaces exactly its block. `outcome` is asked with the output of each run.
    void expect_accepted(const std::string &document, const Log &lines,
                         const std::function<Repaired(const std::string &out)> &outcome);

    // The file cannot be loaded, or is refused by the parser; a commit writes nothing.
    void expect_not_loaded(const std::string &document, const Log &lines);
    void expect_refused(const std::string &document, Log lines, int status = 22);

private:
    void expect_failure(const std::string &document, const Log &lines, int status);

    std::string command_;
    int code_;
    int version_;
};

} // namespace tier_test
