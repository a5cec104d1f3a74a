// What a short run of the companion costs, most of it the start of the program: its instructions.
// On a machine of two billion a second 2 million are a millisecond.

#include "instructions.h"
#include "tables.h"

#include <algorithm>
#include <regex>

using namespace tier_test;

namespace {

constexpr std::uint64_t HELP_AT_MOST = 6'000'000;
constexpr std::uint64_t ALL_HELP_AT_MOST = 8'000'000; // of all commands, whose options it makes
constexpr std::uint64_t CHECK_AT_MOST = 7'500'000;

// The instructions of a run of the companion, which must succeed.
std::uint64_t cost_of(const TempDir &directory, const Args &args)
{
    const InstructionCounter counter(directory);
    Args line = counter.wrapper();
    line.push_back(ZU_TIERCTL);
    line.insert(line.end(), args.begin(), args.end());
    const RunResult run = run_program(line.front(), {line.begin() + 1, line.end()});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_FALSE(run.out.empty());
    return counter.count();
}

// As --help lists them.
std::vector<std::string> commands()
{
    static const std::regex COMMAND(R"(  ([a-z]+) .*)");
    std::vector<std::string> names;
    bool listed = false;
    for (const std::string &line : lines_of(run_program(ZU_TIERCTL, {"--help"}).out)) {
        std::smatch found;
        if (listed && std::regex_match(line, found, COMMAND))
            names.push_back(found[1]);
        listed = listed || line == "Subcommands:";
    }
    return names;
}

TEST(Start, HelpOfEveryCommand)
{
    const TempDir directory;
    const std::vector<std::string> names = commands();
    ASSERT_TRUE(std::ranges::count(names, "check") == 1 && std::ranges::count(names, "undo") == 1);
    for (const std::string &name : names)
        EXPECT_LE(cost_of(directory, {name, "--help"}), HELP_AT_MOST) << name;
    EXPECT_LE(cost_of(directory, {"--help"}), ALL_HELP_AT_MOST);
}

TEST(Start, CheckOfASmallDevice)
{
    for (const char *layout : {"v1", "v2", "v3"}) {
        const TempDir directory;
        const std::string image = directory.path("image");
        ASSERT_EQ(run_program(ZU_TIERCTL, {"sample", "--layout", layout, image}).status, 0);
        EXPECT_LE(cost_of(directory, {"check", image}), CHECK_AT_MOST) << layout;
    }
}

} // namespace
