// --super FILE: commands on a device whose super block is lost.

#include "cache.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

// What check says of a block of zeros in the place of the super block.
const std::vector<std::string> FLAWS{"super 0 at 4096: all zero: its magic is 0x0, not 0x",
                                     "super 0 at 4096: all zero: its checksum does not match"};

class SuperFile : public testing::TestWithParam<std::string> {
protected:
    Cache cache = make_cache(GetParam());
    const TempDir directory;
    const std::string device = cache.device.path();
    const std::string saved = directory.path("saved");
    const std::string copy = directory.path("copy");
    std::string whole; // what the device held with its super block

    void SetUp() override
    {
        whole = read_file(device);
        ASSERT_EQ(run_ctl({"save", device, saved}).status, 0);
        lose_super_block();
    }

    void lose_super_block()
    {
        cache.device.write(SUPER_OFFSET, std::vector<std::uint8_t>(BLOCK_SIZE));
    }
    std::string note(const std::string &file) const
    {
        return "zu_tierctl: the super block is that of " + file + ", not of " + device +
               ", which needs one before zu_tier can read it\n";
    }

    // Each kind of file that has the super block.
    std::vector<std::string> files() const
    {
        const std::string other = directory.write("other", whole);
        const std::string json = directory.write("super.json", dump_of(saved, "dump_super"));
        const RunResult made = run_ctl({"template", saved, "super", "0"});
        EXPECT_EQ(made.status, 0) << made;
        return {saved, other, directory.write("block", whole.substr(SUPER_OFFSET, BLOCK_SIZE)),
                json, directory.write("template.json", made.out)};
    }

    // The lines of a report about entries, which name the device, without those about super blocks.
    static std::vector<std::string> findings_of(const RunResult &run, const std::string &path)
    {
        std::vector<std::string> lines;
        for (std::string line : lines_of(run.out)) {
            if (line.find(" super ") != std::string::npos || line.find(" at ") == std::string::npos)
                continue;
            for (std::size_t at = 0; (at = line.find(path)) != std::string::npos;)
                line.replace(at, path.size(), "DEVICE");
            lines.push_back(line);
        }
        return lines;
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, SuperFile, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(SuperFile, CheckSeesTheEntriesAndTheLoss)
{
    const std::string other = directory.write("whole", whole);
    const std::vector<std::string> expected = findings_of(run_ctl({"check", other}), other);
    EXPECT_EQ(run_ctl({"check", device}).status, 2);
    for (const std::string &file : files()) {
        SCOPED_TRACE(file);
        const RunResult run = run_ctl({"check", "--super", file, device});
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_EQ(run.err, note(file));
        EXPECT_EQ(findings_of(run, device), expected);
        for (const std::string &flaw : FLAWS)
            EXPECT_NE(run.out.find(flaw), std::string::npos) << flaw << run;
    }
    // A device that has the same super block by now has no finding about it.
    cache.device.write(0, std::vector<std::uint8_t>(whole.begin(), whole.end()));
    const RunResult run = run_ctl({"check", "--super", saved, device});
    for (const std::string &flaw : FLAWS)
        EXPECT_EQ(run.out.find(flaw), std::string::npos) << flaw << run;
}

// The row of the super block is about the device's own.
TEST_P(SuperFile, CheckCountsTheOwnBlock)
{
    const std::string row = "\nsuper               1            %d            0            %d"
                            "            0\n";
    const auto expect_row = [&](int in_use, int damaged) {
        const RunResult run = run_ctl({"check", "--super", saved, device});
        EXPECT_NE(run.out.find(text(row.c_str(), in_use, damaged)), std::string::npos) << run;
    };
    expect_row(0, 1);
    Block block;
    std::copy_n(whole.begin() + SUPER_OFFSET, BLOCK_SIZE, block.begin());
    cache.device.write(SUPER_OFFSET, block);
    expect_row(1, 0);
}

TEST_P(SuperFile, SaveCopiesTheRealBlock)
{
    for (const std::string &file : files()) {
        SCOPED_TRACE(file);
        const RunResult run = run_ctl({"save", "--super", file, device, copy});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, note(file));
        std::string expected = read_file(saved);
        expected.replace(SUPER_OFFSET, BLOCK_SIZE, BLOCK_SIZE, '\0');
        EXPECT_TRUE(read_file(copy) == expected);
        fs::remove(copy);
    }
}

TEST_P(SuperFile, TemplateOfEntries)
{
    for (const std::string &file : files()) {
        const RunResult run = run_ctl({"template", "--super", file, device, "inode", "1"});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, run_ctl({"template", saved, "inode", "1"}).out);
        EXPECT_TRUE(run.err.starts_with(note(file))) << run;
    }
    EXPECT_EQ(run_ctl({"template", "--super", saved, device, "super", "0"}).status, 2);
}

TEST_P(SuperFile, MapIsThatOfTheTables)
{
    const RunResult expected = run_ctl({"map", saved});
    for (const std::string &file : files()) {
        const RunResult run = run_ctl({"map", "--super", file, device});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, note(file));
        EXPECT_NE(run.out.find("\nlayout " + GetParam() + ", "), std::string::npos) << run;
        // The line of the inodes: what they are is the same.
        const auto line = [](const std::string &out) {
            const std::size_t at = out.find("\ninode ");
            return out.substr(at, out.find('\n', at + 1) - at);
        };
        EXPECT_EQ(line(run.out), line(expected.out));
    }
}

// Before the super block is repaired the device is saved, and compared afterwards.
TEST_P(SuperFile, DiffUsesItForTheSideThatLacksOne)
{
    ASSERT_EQ(run_ctl({"save", "--super", saved, device, copy}).status, 0);
    for (const std::string &file : files()) {
        const RunResult same = run_ctl({"diff", "--super", file, copy, device});
        EXPECT_EQ(same.status, 0) << same;
        EXPECT_EQ(same.out, "");
        const RunResult run = run_ctl({"diff", "--super", file, copy, saved});
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_TRUE(run.out.starts_with("super 0, all zero in A, sound in B\n")) << run;
        EXPECT_EQ(run.out.find("\ninode "), std::string::npos);
        EXPECT_EQ(run.err, "zu_tierctl: the super block is that of " + file + ", not of " + copy +
                               ", which needs one before zu_tier can read it\n");
    }
    EXPECT_EQ(run_ctl({"diff", copy, device}).status, 2);
}

TEST_P(SuperFile, FilesWithoutOne)
{
    const std::string complaint = " holds no super block, and is no repair file for one";
    std::string flipped = whole;
    flipped[SUPER_OFFSET + 20] ^= 1;
    for (const std::string &content :
         {std::string(), std::string("nonsense"), std::string(4096, 'x'), std::string(10000, '\0'),
          flipped, std::string("{"), std::string("{}"), std::string("[{}]"),
          std::string(R"({"version":"0x20000"})")}) {
        const std::string file = directory.write("file", content);
        for (const auto &args :
             std::vector<std::vector<std::string>>{{"check", device},
                                                   {"map", device},
                                                   {"save", device, copy},
                                                   {"template", device, "inode", "1"},
                                                   {"diff", device, saved}}) {
            std::vector<std::string> all = args;
            all.insert(all.end(), {"--super", file});
            const RunResult run = run_ctl(all);
            EXPECT_GE(run.status, 1) << run;
            EXPECT_NE((run.out + run.err).find(file + complaint), std::string::npos) << run;
        }
    }
    const RunResult missing = run_ctl({"check", "--super", directory.path("missing"), device});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE((missing.out + missing.err).find("cannot open " + directory.path("missing")),
              std::string::npos);
    EXPECT_FALSE(fs::exists(copy));
}

// What rescue prints as long as nobody says whose cache it is.
TEST_P(SuperFile, FileOfRescueWithoutIdentity)
{
    const RunResult rescued = run_ctl({"rescue", device});
    ASSERT_EQ(rescued.status, 1) << rescued;
    std::string keys;
    const auto printed = nlohmann::ordered_json::parse(rescued.out);
    for (const auto &[key, value] : printed.items())
        if (value.is_null())
            keys += (keys.empty() ? "" : ", ") + key;
    ASSERT_NE(keys.find("ssd_uuid"), std::string::npos);
    const std::string file = directory.write("rescued.json", rescued.out);
    expect_complaint(run_ctl({"map", "--super", file, device}), 1,
                     file +
                         " holds no super block, and is no repair file for one: it has null "
                         "for " +
                         keys +
                         "; rescue writes their values when they are given, by --uuid, "
                         "--ssd-uuid, --ctime or --like");
    const std::string whole_file =
        directory.write("like.json", run_ctl({"rescue", "--like", saved, device}).out);
    EXPECT_EQ(run_ctl({"map", "--super", whole_file, device}).status, 0);
}

// The file of a larger device: what does not reach this one is said, and nothing is read elsewhere.
TEST_P(SuperFile, TablesThatLieOutsideTheDevice)
{
    const CacheTable &extents = cache.table("extent");
    fs::resize_file(device, static_cast<std::uint64_t>(extents.offset(1)));
    const RunResult run = run_ctl({"check", "--super", saved, device});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_NE(run.out.find("(area_past_end)"), std::string::npos) << run;
    EXPECT_NE(run.out.find("(past_end)"), std::string::npos) << run;
    EXPECT_EQ(run_ctl({"template", "--super", saved, device, "extent", "1"}).status, 1);
    EXPECT_EQ(run_ctl({"map", "--super", saved, device}).status, 0);
    EXPECT_EQ(run_ctl({"save", "--super", saved, device, copy}).status, 1);
    EXPECT_TRUE(fs::exists(copy + ".unreadable.json"));
    EXPECT_NE(run_ctl({"check", "--super", saved, copy}).out.find("(past_end)"), std::string::npos);
}

} // namespace
