// The history of benchmarks: which rows are said to have moved, and what is kept.

#include "run.h"
#include "temp_dir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tier_test;
using nlohmann::json;

namespace {

constexpr const char *FASTER = "V9 dump_all to a new file";
constexpr const char *SMALLER = "Peak memory";

struct Added {
    std::string out;
    std::vector<json> lines; // of the history afterwards
};

class History : public testing::Test {
protected:
    // A run of the benchmark that measured these.
    Added add(double faster, double smaller)
    {
        const json rows = {
            {{"walk", FASTER}, {"goal", "6 x"}, {"ratio", faster}, {"met", true}, {"tool_s", 0.25}},
            {{"walk", SMALLER}, {"goal", "<= 6"}, {"ratio", smaller}, {"met", true}},
        };
        const std::string measured = directory_.write("rows.json", rows.dump());
        const RunResult result =
            run_program("/usr/bin/env", {"python3", BENCH_HISTORY, measured, history_, "c0ffee"});
        EXPECT_EQ(result.status, 0) << result;
        Added run{result.out, {}};
        for (const std::string &line : lines_of(read_file(history_)))
            run.lines.push_back(json::parse(line));
        return run;
    }

    // Five runs between 4.0 and 4.2, whose median is 4.1.
    void add_five()
    {
        for (const double faster : {4.0, 4.2, 4.1, 4.2, 4.0})
            last_ = add(faster, 2.5);
    }

    TempDir directory_;
    const std::string history_ = directory_.path("history.ndjson");
    Added last_;
};

TEST_F(History, KeepsCommitMachineAndNumbers)
{
    add(4.0, 2.5);
    const Added run = add(4.5, 3.5);
    ASSERT_EQ(run.lines.size(), 2U);
    EXPECT_EQ(run.lines[0]["rows"][FASTER]["ratio"], 4.0);
    const json &line = run.lines[1];
    EXPECT_EQ(line["commit"], "c0ffee");
    EXPECT_NE(line["machine"], "");
    const json numbers = {{FASTER, {{"ratio", 4.5}, {"tool_s", 0.25}}},
                          {SMALLER, {{"ratio", 3.5}}}};
    EXPECT_EQ(line["rows"], numbers);
}

TEST_F(History, SaysNothingOfRowsWithFewRuns)
{
    for (int turn = 1; turn <= 4; ++turn)
        last_ = add(4.0, 2.5);
    EXPECT_NE(add(9.0, 9.0).out.find("0 of 0 rows have moved; 2 have fewer than 5 earlier runs"),
              std::string::npos);
}

TEST_F(History, PassesOverWhatIsWithinTheNoise)
{
    add_five();
    const Added run = add(4.29, 2.5);
    EXPECT_NE(run.out.find("0 of 2 rows have moved; 0 have"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find(FASTER), std::string::npos) << run.out;
}

TEST_F(History, SaysWhichWayARowHasMoved)
{
    add_five();
    const Added better = add(4.4, 2.0);
    EXPECT_NE(better.out.find("4.10 ->     4.40  better (noise 0.20, 5 runs)"), std::string::npos)
        << better.out;
    EXPECT_NE(better.out.find("2.50 ->     2.00  better"), std::string::npos) << better.out;
    EXPECT_NE(better.out.find("2 of 2 rows have moved"), std::string::npos) << better.out;
    const Added worse = add(3.0, 9.0);
    EXPECT_NE(worse.out.find("4.15 ->     3.00  worse (noise 0.40, 6 runs)"), std::string::npos)
        << worse.out;
    EXPECT_NE(worse.out.find("2.50 ->     9.00  worse"), std::string::npos) << worse.out;
}

TEST_F(History, LeavesOtherMachinesAside)
{
    add_five();
    std::string lines;
    for (json line : last_.lines) {
        line["machine"] = "another";
        lines += line.dump() + "\n";
    }
    directory_.write("history.ndjson", lines);
    EXPECT_NE(add(9.0, 9.0).out.find("0 of 0 rows have moved"), std::string::npos);
}

TEST_F(History, ForgetsWhatIsLongAgo)
{
    add(40.0, 2.5);
    for (int turn = 1; turn <= 9; ++turn)
        last_ = add(4.0, 2.5);
    // The first of ten: noise 36.
    EXPECT_EQ(add(5.0, 2.5).out.find(FASTER), std::string::npos);
    const Added run = add(6.0, 2.5);
    EXPECT_NE(run.out.find("4.00 ->     6.00  better (noise 1.00, 10 runs)"), std::string::npos)
        << run.out;
}

} // namespace
