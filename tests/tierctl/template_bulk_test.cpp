// zu_tierctl template of several entries: a file for each.

#include "cache.h"
#include "template_run.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class TemplateBulk : public testing::TestWithParam<std::string> {
protected:
    Cache cache = make_cache(GetParam());
    const TempDir directory;
    const std::string into = directory.path("fix");

    RunResult make(const std::vector<std::string> &args) const
    {
        return run_template(cache.device, args);
    }

    std::string file(const std::string &name) const { return read_file(into + "/" + name); }
};

INSTANTIATE_TEST_SUITE_P(Layout, TemplateBulk, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(TemplateBulk, AFileForEachEntry)
{
    flip(cache.device, cache.offset("inode", 2) + 1);
    const auto before = cache.device.bytes();
    const RunResult made = make({"inode", "0,2..4", "--into", into});
    EXPECT_EQ(made.status, 0) << made;
    EXPECT_EQ(made.out, "");
    std::string notes;
    for (const std::string no : {"0", "2", "3", "4"}) {
        const RunResult one = make({"inode", no});
        EXPECT_EQ(file("inode-" + no + ".json"), one.out);
        notes += one.err;
    }
    const std::string anonymous = ", with this file as FILE: ";
    std::size_t files = 0;
    for (const std::string no : {"0", "2", "3", "4"}) {
        notes.replace(notes.find(anonymous), anonymous.size(), ": ");
        notes.replace(notes.find("-f FILE"), 7, "-f " + into + "/inode-" + no + ".json");
        ++files;
    }
    EXPECT_EQ(made.err, notes);
    EXPECT_EQ(std::distance(fs::directory_iterator(into), {}), static_cast<std::ptrdiff_t>(files));
    EXPECT_TRUE(cache.device.bytes() == before);
    const LoggedRun repair =
        run_logged(cache.device, "repair_inode", {"-f", into + "/inode-2.json", "-y"});
    EXPECT_EQ(repair.status, 0) << repair;
    EXPECT_EQ(make({"inode", "2"}).err.find("damaged"), std::string::npos);
}

TEST_P(TemplateBulk, DirectoryThatIsThere)
{
    fs::create_directory(into);
    EXPECT_EQ(make({"super", "0", "--into", into}).status, 0);
    EXPECT_EQ(make({"brick", "1", "--into", into}).status, 0);
    EXPECT_EQ(file("super-0.json"), make({"super", "0"}).out);
    EXPECT_EQ(file("brick-1.json"), make({"brick", "1"}).out);
}

TEST_P(TemplateBulk, NoFileIsReplaced)
{
    fs::create_directory(into);
    const std::string taken = directory.write("fix/inode-3.json", "precious");
    expect_template_failure(cache.device, {"inode", "2..4", "--into", into}, 1, taken + " exists");
    EXPECT_EQ(read_file(taken), "precious");
    EXPECT_EQ(std::distance(fs::directory_iterator(into), {}), 1);
}

TEST_P(TemplateBulk, WhatCannotBeReadIsLeftOut)
{
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(cache.offset("inode", 3)));
    const RunResult made = make({"inode", "2..4", "--into", into});
    EXPECT_EQ(made.status, 1) << made;
    EXPECT_EQ(file("inode-2.json"), make({"inode", "2"}).out);
    EXPECT_EQ(std::distance(fs::directory_iterator(into), {}), 1);
    std::string complaints;
    for (const std::string no : {"3", "4"})
        complaints += "zu_tierctl: inode " + no + ": cannot read inode " + no + " of " +
                      cache.device.path() + ": " + NO_DEVICE + "\n";
    EXPECT_TRUE(made.err.ends_with(complaints + "zu_tierctl: 2 of 3 files were not written\n"))
        << made;
}

TEST_P(TemplateBulk, SeveralNeedADirectory)
{
    for (const std::string numbers : {"0..1", "0,1"})
        expect_template_failure(cache.device, {"inode", numbers}, 2,
                                "zu_tier repairs one entry a file: several need --into DIR");
    EXPECT_EQ(make({"inode", "2,2..2"}).out, make({"inode", "2"}).out);
    const std::string file = directory.write("file", "");
    for (const std::string &path : {file, directory.path("none/fix")}) {
        const RunResult run = make({"inode", "0..1", "--into", path});
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_TRUE(run.err.starts_with("zu_tierctl: cannot create " + path + ": ")) << run;
    }
    expect_template_failure(cache.device, {"inode", "0..18446744073709551615", "--into", into}, 2,
                            "inode 0..18446744073709551615: the table has 5 entries");
    EXPECT_FALSE(fs::exists(into));
}

TEST(TemplatePacked, EntriesNameTheirBlock)
{
    const Cache cache = make_cache("v3");
    const RunResult block = run_template(cache.device, {"extent", "2"});
    const RunResult entry = run_template(cache.device, {"extent:1124"});
    EXPECT_EQ(entry.status, 0) << entry;
    EXPECT_EQ(entry.out, block.out);
    EXPECT_EQ(entry.err, "zu_tierctl: extent 1124 is in block 2\n" + block.err);
    expect_template_failure(cache.device, {"shard:512"}, 2,
                            "shard 512 is the head of block 1 and no entry");
}

} // namespace
