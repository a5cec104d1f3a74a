#pragma once

#include "expect.h"
#include "repair_file.h"
#include "v1_device.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

// One key of a V1 super block's repair file, in reading order, with its value and what the log
// says of it once it is accepted.
struct SuperKey {
    std::string name;
    std::string value;
    std::string logged;
};

std::vector<SuperKey> super_keys(const SuperV1 &sb);
RepairFile repair_file(const SuperV1 &sb);

// Repairs of the super block of one device that already carries another valid one.
class SuperV1Repair : public testing::Test {
protected:
    const SuperV1 old_super = super_v1(2, 2, 2);
    Device device = make_v1_device(old_super);

    std::string conf() const { return device.directory().path("conf.json"); }

    LoggedRun repair(const std::string &conf_text, const std::vector<std::string> &args);

    // The log of a run that reads the keys of `sb` up to `keys` of them, then what follows.
    Log log_of_keys(const SuperV1 &sb, std::size_t keys, const Log &rest) const;

    LogLine rejected() const;

    // The file is accepted: dry run and commit print the record that `sb` describes, and only the
    // commit writes it, as the one block that changes. Returns the log of the commit.
    Log expect_accepted(const std::string &conf_text, const SuperV1 &sb,
                        const std::vector<std::string> &args = {});

    // The file is refused with this log, commit or not, and nothing is written.
    void expect_refused(const std::string &conf_text, const Log &log,
                        const std::vector<std::string> &args = {});
};

} // namespace tier_test
