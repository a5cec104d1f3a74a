#include "expect.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace tier_test {

namespace {

// One text of several lines, which a failed comparison shows as a difference line by line.
std::string lines_of(const Log &log)
{
    std::ostringstream lines;
    for (const LogLine &line : log)
        lines << line << '\n';
    return lines.str();
}

} // namespace

void expect_run(const LoggedRun &run, const Expected &expected)
{
    EXPECT_EQ(run.signal, 0) << run;
    EXPECT_EQ(run.status, expected.status) << run;
    EXPECT_EQ(run.out, expected.out);
    EXPECT_EQ(lines_of(run.log), lines_of(expected.log)) << "in the log file";
    EXPECT_EQ(lines_of(run.errors), lines_of(errors_of(expected.log))) << "on standard error";
}

void expect_abort(const RunResult &run, std::string_view condition)
{
    EXPECT_EQ(run.signal, SIGABRT) << run;
    EXPECT_NE(run.err.find(condition), std::string::npos) << run;
}

bool default_log_is_missing()
{
    const bool missing = !std::filesystem::exists("/kd/log/zu");
    EXPECT_TRUE(missing) << "this test needs a machine without /kd/log/zu";
    return missing;
}

} // namespace tier_test
