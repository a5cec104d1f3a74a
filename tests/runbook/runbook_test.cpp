// Every command of the runbook, section by section, with the output that stands there.

#include "run.h"
#include "runbook.h"
#include "temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Where the commands of a section are looked for.
std::string path()
{
    std::string path = std::filesystem::path(ZU_TIER).parent_path().string() + ":" + getenv("PATH");
    return getenv("ZU_TIER_DUCKDB") != nullptr ? path + ":" + STAND_INS : path;
}

bool is_installed(const std::string &name)
{
    const RunOptions options{.environment = {{"PATH", path()}}};
    return run_program("/bin/sh", {"-c", "command -v " + name}, options).status == 0;
}

// What the commands of a section need and not every machine has.
std::string missing(const Section &section)
{
    for (const Step &step : section.steps)
        for (const char *name : {"duckdb"})
            if (step.command.starts_with(name) && !is_installed(name))
                return name;
    return {};
}

class Runbook : public testing::TestWithParam<Section> {};

TEST_P(Runbook, Section)
{
    const std::string lacking = missing(GetParam());
    if (!lacking.empty())
        GTEST_SKIP() << lacking << " is not installed";

    const TempDir directory;
    std::string script;
    const std::vector<Step> &steps = GetParam().steps;
    for (std::size_t i = 0; i < steps.size(); ++i)
        script += "{ " + steps[i].command + "} >output." + std::to_string(i) + " 2>&1\n";
    const RunResult run =
        run_program("/bin/bash", {"-c", script},
                    {.environment = {{"PATH", path()},
                                     {"TZ", "UTC"},
                                     {"LC_ALL", "C.UTF-8"},
                                     {"PDSH_RCMD_TYPE", "exec"}}, // here, instead of there
                     .working_directory = directory.path("")});
    EXPECT_EQ(run.err, "");
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const std::string output = directory.read("output." + std::to_string(i));
        EXPECT_TRUE(matches(output, steps[i].output)) << "$ " << steps[i].command << output;
    }
}

INSTANTIATE_TEST_SUITE_P(Operators, Runbook, testing::ValuesIn(sections_of(read_file(RUNBOOK))));

TEST(RunbookText, IsReadFromItsBlocks)
{
    const auto sections = sections_of("# A page\n## One\n```console\n$ a \\\n> b\nout\n```\n"
                                      "$ no command\n## None\ntext\n");
    ASSERT_EQ(sections.size(), 1U);
    EXPECT_EQ(sections[0].title, "One");
    ASSERT_EQ(sections[0].steps.size(), 1U);
    EXPECT_EQ(sections[0].steps[0].command, "a \\\nb\n");
    EXPECT_EQ(sections[0].steps[0].output, "out\n");
}

TEST(RunbookText, MatchesOnlyWhatIsShown)
{
    EXPECT_TRUE(matches("abc\n", "abc\n"));
    EXPECT_FALSE(matches("abc\nd\n", "abc\n"));
    EXPECT_TRUE(matches("a1b2c", "a...b...c"));
    EXPECT_TRUE(matches("abc", "a...b...c"));
    EXPECT_FALSE(matches("a1c", "a...b...c"));
    EXPECT_FALSE(matches("xa1b2c", "a...b...c"));
    EXPECT_FALSE(matches("a1b2cd", "a...b...c"));
    EXPECT_FALSE(matches("ab", "ab...b"));
}

} // namespace
