#pragma once

#include "expect.h"
#include "layout.h"
#include "probe_log.h"
#include "super_keys.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

// Repairs of the super block of one device that already carries another valid one.
template <class Super>
class SuperRepair : public testing::Test {
protected:
    const std::string version = Layout<Super>::VERSION;
    const std::string parser = "parse_sb_from_json_v" + version;
    const std::string checker = "__check_sb_params_v" + version;
    const Super old_super = Layout<Super>::super(2, 2, 2);
    Device device = Layout<Super>::device(old_super);

    std::string conf() const { return device.directory().path("conf.json"); }

    LoggedRun repair(const std::string &conf_text, const std::vector<std::string> &args);

    // The log of a run whose parser wrote `lines`, then what follows.
    Log log_with(const Log &lines, const Log &rest) const;

    LogLine rejected() const;
    LogLine not_written() const;

    // The file is accepted: dry run and commit print the record that `sb` describes, and only the
    // commit writes it, as the one block that changes. Returns the log of the commit.
    Log expect_accepted(const std::string &conf_text, const Super &sb,
                        const std::vector<std::string> &args = {});

    // The file is refused with this log, commit or not, and nothing is written.
    void expect_refused(const std::string &conf_text, const Log &log,
                        const std::vector<std::string> &args = {});

    // All keys of `sb` are read, then the geometry check ends with this message.
    void expect_out_of_bounds(const Super &sb, const std::string &message);
};

extern template class SuperRepair<SuperV1>;
extern template class SuperRepair<SuperV2>;
extern template class SuperRepair<SuperV3>;

} // namespace tier_test
