// Saved files that lack blocks: every command knows from the list beside the file that these could
// not be read, and calls none of them damaged.

#include "cache.h"

#include <climits>
#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

std::string run_of(const std::string &table, std::uint64_t no, std::uint64_t count,
                   std::int64_t offset)
{
    return text(R"({"table":"%s","no":%lu,"count":%lu,"offset":%ld,"error":"Input/output error"})",
                table.c_str(), no, count, offset);
}

class Unreadable : public testing::TestWithParam<std::string> {
protected:
    const Cache cache = make_cache(GetParam());
    const TempDir directory;
    const std::string saved = directory.path("saved");
    const std::string list = saved + ".unreadable.json";
    const std::int64_t inode = cache.offset("inode", 2);
    const std::int64_t extent = cache.offset("extent", 1);

    void SetUp() override
    {
        ASSERT_EQ(run_ctl({"save", cache.device.path(), saved}).status, 0);
        write_block(inode, std::string(BLOCK_SIZE, '\0'));
        write_block(extent, std::string(BLOCK_SIZE, '\0'));
        write_list({run_of("inode", 2, 1, inode), run_of("extent", 1, 1, extent)});
    }

    void write_block(std::int64_t offset, const std::string &block) const
    {
        std::string content = read_file(saved);
        directory.write("saved",
                        content.replace(static_cast<std::size_t>(offset), BLOCK_SIZE, block));
    }
    std::string block_of_device(std::int64_t offset) const
    {
        return read_file(cache.device.path()).substr(static_cast<std::size_t>(offset), BLOCK_SIZE);
    }

    void write_list(const std::vector<std::string> &runs) const
    {
        std::string text;
        for (const std::string &run : runs)
            text += (text.empty() ? "[\n" : ",\n") + run;
        directory.write("saved.unreadable.json", text + "\n]\n");
    }

    // Each command that reads a device, on the saved file.
    std::vector<std::vector<std::string>> commands() const
    {
        return {{"check", saved},
                {"map", saved},
                {"map", "--html", directory.path("map.html"), saved},
                {"template", saved, "inode", "1"},
                {"save", saved, directory.path("again")},
                {"diff", saved, cache.device.path()},
                {"diff", cache.device.path(), saved},
                {"revert", saved, cache.device.path(), "inode", "1"}};
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, Unreadable, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(Unreadable, CheckCallsThemUnreadable)
{
    const RunResult run = run_ctl({"check", saved});
    EXPECT_EQ(run.status, 1) << run;
    const auto finding = [](const std::string &what, std::int64_t offset) {
        return text("error: %s at %ld: it cannot be read: not in the saved file (unreadable): ",
                    what.c_str(), offset);
    };
    const bool packed = GetParam() == "v3";
    EXPECT_NE(run.out.find(finding("inode 2", inode)), std::string::npos) << run;
    EXPECT_NE(run.out.find(finding(packed ? "extent block 1" : "extent 1", extent)),
              std::string::npos)
        << run;
    for (const char *word : {"bad_magic", "bad_number", "bad_checksum", "is damaged"})
        EXPECT_EQ(run.out.find(word), std::string::npos) << word << run;

    // Without the list the same blocks are damage: somebody would miss it.
    fs::remove(list);
    const RunResult other = run_ctl({"check", saved});
    EXPECT_EQ(other.status, 1);
    EXPECT_NE(other.out.find("bad_checksum"), std::string::npos) << other;
    EXPECT_EQ(other.out.find("unreadable)"), std::string::npos) << other;
}

TEST_P(Unreadable, MapShowsThem)
{
    const RunResult run = run_ctl({"map", saved});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_NE(run.out.find(" 1 unreadable"), std::string::npos) << run;
    EXPECT_EQ(run.out.find(" damaged,"), std::string::npos) << run;
    write_block(cache.offset("inode", 3), std::string(BLOCK_SIZE, '\1'));
    const RunResult both = run_ctl({"map", saved});
    EXPECT_NE(both.out.find(", 1 damaged, 1 unreadable"), std::string::npos) << both;
    fs::remove(list);
    EXPECT_EQ(run_ctl({"map", saved}).out.find(" 1 unreadable"), std::string::npos);
}

TEST_P(Unreadable, NoTemplateIsMadeOfThem)
{
    expect_complaint(run_ctl({"template", saved, "inode", "2"}), 1,
                     "cannot read inode 2 of " + saved + ": not in the saved file");
    expect_complaint(run_ctl({"template", saved, "extent", "1"}), 1,
                     "cannot read extent 1 of " + saved + ": not in the saved file");
    EXPECT_EQ(run_ctl({"template", saved, "inode", "1"}).status, 0);
}

TEST_P(Unreadable, DiffShowsThem)
{
    const RunResult run = run_ctl({"diff", cache.device.path(), saved});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "inode 2: cannot be read in B: not in the saved file\n"
                       "extent 1: cannot be read in B: not in the saved file\n");
}

// A repair that is rehearsed on the saved file fills the hole.
TEST_P(Unreadable, BlocksThatWereWrittenSinceCount)
{
    write_block(inode, block_of_device(inode));
    const RunResult run = run_ctl({"diff", cache.device.path(), saved});
    EXPECT_EQ(run.out, "extent 1: cannot be read in B: not in the saved file\n");
    write_block(extent, block_of_device(extent));
    EXPECT_EQ(run_ctl({"diff", cache.device.path(), saved}).status, 0);
}

// No list can have the name that would be that of theirs.
TEST_P(Unreadable, LongNamesHaveNoList)
{
    const std::string device = cache.device.path();
    const std::string name = directory.path(std::string(NAME_MAX, 'd'));
    fs::copy_file(device, name);
    const auto commands = [&](const std::string &file) -> std::vector<std::vector<std::string>> {
        return {{"check", file},
                {"map", file},
                {"template", file, "inode", "1"},
                {"save", file, directory.path("again")},
                {"diff", file, device},
                {"revert", file, device, "inode", "1"}};
    };
    for (std::size_t i = 0; i < commands(name).size(); ++i) {
        const RunResult expected = run_ctl(commands(device)[i]);
        fs::remove(directory.path("again"));
        const RunResult run = run_ctl(commands(name)[i]);
        fs::remove(directory.path("again"));
        EXPECT_EQ(run.status, expected.status) << run;
        EXPECT_EQ(run.err.find("File name too long"), std::string::npos) << run;
        EXPECT_EQ(lines_of(run.err).size(), lines_of(expected.err).size()) << run;
    }
}

TEST_P(Unreadable, SuperBlockThatTheFileLacks)
{
    write_block(SUPER_OFFSET, std::string(BLOCK_SIZE, '\0'));
    write_list({run_of("super", 0, 1, SUPER_OFFSET)});
    for (const std::string command : {"check", "map"}) {
        const RunResult run = run_ctl({command, saved});
        EXPECT_NE(
            run.err.find("cannot read the super block of " + saved + ": not in the saved file"),
            std::string::npos)
            << run;
    }
}

TEST_P(Unreadable, ListsThatAreNoneAreAnError)
{
    const std::string complaint = list + " is no list of unreadable blocks";
    for (const std::string content :
         {"", "{", "1", "{}", "[1]", R"([{"table":"inode","no":2,"count":1}])",
          R"([{"table":"inode","no":2,"count":1,"offset":"0"}])",
          R"([{"table":"inode","no":2,"count":-1,"offset":4096}])",
          R"([{"table":7,"no":2,"count":1,"offset":4096}])"}) {
        directory.write("saved.unreadable.json", content);
        for (const auto &args : commands()) {
            const RunResult run = run_ctl(args);
            EXPECT_GE(run.status, 1) << run;
            EXPECT_TRUE((run.out + run.err).find(complaint) != std::string::npos)
                << testing::PrintToString(args) << content << run;
        }
    }
}

TEST_P(Unreadable, ListsOfOtherBlocksAreAnError)
{
    const std::uint64_t count = cache.table("inode").count;
    const std::uint64_t most = 0xFFFFFFFFFFFFFFFF;
    for (const std::string &run :
         {run_of("inode", count, 1, inode), run_of("inode", 2, count - 1, inode),
          run_of("inode", 2, most, inode), run_of("inode", most, 1, inode),
          run_of("inode", 2, 1, inode + 4096), run_of("inode", 2, 1, -4096),
          run_of("nothing", 0, 1, inode), run_of("super", 0, 1, 0)}) {
        write_list({run_of("extent", 1, 1, extent), run});
        for (const auto &args : commands()) {
            const RunResult result = run_ctl(args);
            EXPECT_GE(result.status, 1) << result;
            EXPECT_TRUE((result.out + result.err)
                            .find(list + " names blocks that are not in " + saved + ": ") !=
                        std::string::npos)
                << testing::PrintToString(args) << run << result;
        }
    }
}

// Runs that follow one another, cover one another, and are in no order.
TEST_P(Unreadable, RunsInAnyOrder)
{
    write_list({run_of("inode", 2, 1, inode), run_of("extent", 1, 1, extent),
                run_of("inode", 1, 2, cache.offset("inode", 1)),
                run_of("inode", 0, 1, cache.offset("inode", 0))});
    write_block(cache.offset("inode", 1), std::string(BLOCK_SIZE, '\0'));
    const RunResult run = run_ctl({"diff", cache.device.path(), saved});
    EXPECT_EQ(run.out, "inode 1..2: cannot be read in B: not in the saved file\n"
                       "extent 1: cannot be read in B: not in the saved file\n");
}

} // namespace
