// The completion of bash, asked as the shell asks it.

#include "run.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

using namespace tier_test;

namespace {

using Words = std::set<std::string>;

// The words of a text, which blanks and commas part.
Words words_of(std::string text)
{
    std::ranges::replace(text, ',', ' ');
    std::istringstream in(text);
    Words words;
    for (std::string word; in >> word;)
        words.insert(word);
    return words;
}

// What is offered for the last of the words of a command line.
Words offered(const std::vector<std::string> &line)
{
    const std::string &name = line.front();
    std::string script = "source " COMPLETION_DIRECTORY "/" + name + "\nCOMP_WORDS=(";
    for (const std::string &word : line)
        script += "'" + word + "' ";
    script += ")\nCOMP_CWORD=" + std::to_string(line.size() - 1) + "\n_" + name +
              "\necho \"${COMPREPLY[*]}\"";
    const RunResult run = run_program("/bin/bash", {"-c", script});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.err, "");
    return words_of(run.out);
}

// The words of a text that begin so, up to the first character that no option has.
Words named(const std::string &text, const std::string &beginning)
{
    Words found;
    for (const std::string &word : words_of(text))
        if (word.starts_with(beginning))
            found.insert(word.substr(
                0, word.find_first_not_of("abcdefghijklmnopqrstuvwxyz-_", beginning.size())));
    return found;
}

Words difference(const Words &of, const Words &without)
{
    Words left;
    std::ranges::set_difference(of, without, std::inserter(left, left.end()));
    return left;
}

TEST(Completion, EveryOptionAndCommandOfTheTool)
{
    const std::string usage = run_tool({"-h"}).out;
    EXPECT_EQ(difference(named(usage, "--"), offered({"zu_tier", "--"})), Words{});
    Words tables;
    for (const char *table : {"super", "brick", "inode", "extent", "shard", "hot"})
        for (const char *verb : {"dump_", "repair_"})
            tables.insert(std::string(verb) + table);
    tables.insert("convert_super");
    EXPECT_EQ(offered({"zu_tier", "-c", ""}), tables);
    EXPECT_EQ(offered({"zu_tier", "--cmd", "dump_s"}), (Words{"dump_super", "dump_shard"}));
    EXPECT_EQ(offered({"zu_tier", "-g", "e"}), (Words{"error=0", "error=1"}));
    EXPECT_EQ(offered({"zu_tier", "-p", "dev"}), Words{});
}

TEST(Completion, EveryCommandOfTheCompanionAndItsOptions)
{
    const std::string help = run_program(ZU_TIERCTL, {"--help"}).out;
    const Words commands = difference(offered({"zu_tierctl", ""}), {"--help", "--version"});
    ASSERT_FALSE(commands.empty());
    for (const std::string &command : commands) {
        EXPECT_NE(help.find("\n  " + command + " "), std::string::npos) << command;
        const RunResult run = run_program(ZU_TIERCTL, {command, "--help"});
        ASSERT_EQ(run.status, 0) << run;
        const std::string options = run.out.substr(0, run.out.find("Example"));
        EXPECT_EQ(named(options, "--"), offered({"zu_tierctl", command, "--"})) << command;
    }
    std::istringstream list(help.substr(help.find("Subcommands:")));
    std::size_t listed = 0;
    for (std::string line; std::getline(list, line);)
        listed += line.starts_with("  ") ? 1 : 0;
    EXPECT_EQ(listed, commands.size());
}

TEST(Completion, TablesOfTheCompanion)
{
    const Words tables{"super", "brick", "inode", "extent", "shard", "hot"};
    EXPECT_EQ(offered({"zu_tierctl", "template", "dev", ""}), tables);
    EXPECT_EQ(offered({"zu_tierctl", "revert", "saved", "dev", "s"}), (Words{"super", "shard"}));
    EXPECT_EQ(offered({"zu_tierctl", "undo", "undo", "dev", "b"}), Words{"brick"});
    EXPECT_EQ(offered({"zu_tierctl", "check", "dev", "--table", "h"}), Words{"hot"});
    EXPECT_EQ(offered({"zu_tierctl", "sample", "--layout", ""}), (Words{"v1", "v2", "v3"}));
    EXPECT_EQ(offered({"zu_tierctl", "plan", "dev", "--only", ""}), Words{"certain"});
    EXPECT_EQ(offered({"zu_tierctl", "usage", "dev", "--by", ""}),
              (Words{"age", "brick", "inode"}));
    EXPECT_EQ(offered({"zu_tierctl", "revert", "sav"}), Words{});
}

} // namespace
