// zu_tierctl check --metrics: the figures of a check, for monitoring.

#include "cache.h"
#include "check_run.h"
#include "temp_dir.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

using Samples = std::map<std::string, double>; // by name and labels, without the device

class CheckMetrics : public testing::Test {
protected:
    const TempDir directory;
    const std::string file = directory.path("zu_tier.prom");

    RunResult check(const std::string &device, const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> args{"check", "--metrics", file, device};
        args.insert(args.end(), more.begin(), more.end());
        return run_ctl(args);
    }

    // The samples of the file, each of the device; the reader of Prometheus finds no fault with it.
    Samples samples(const std::string &device) const
    {
        const RunResult run =
            run_program("/bin/sh", {"-c", "promtool check metrics <\"$1\"", "sh", file});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out + run.err, "");
        Samples found;
        std::ifstream lines(file);
        std::string last;
        for (std::string line; std::getline(lines, line); last = line) {
            if (line.starts_with('#'))
                continue;
            const std::string label = "{device=\"" + device + '"';
            const std::size_t at = line.find(label);
            const std::size_t end = line.rfind("} ");
            if (at == std::string::npos || end == std::string::npos) {
                ADD_FAILURE() << line;
                continue;
            }
            const std::string name =
                line.substr(0, at) + line.substr(at + label.size(), end - at - label.size());
            EXPECT_TRUE(found.emplace(name, std::stod(line.substr(end + 2))).second) << line;
        }
        EXPECT_EQ(last, "# EOF");
        return found;
    }
};

// Half of what the extents hold was not written back.
WorldV1 half_clean()
{
    WorldV1 world;
    for (ExtentV1 &extent : world.extents)
        extent.clean = extent.no % 2 == 0 ? 1 : 0;
    return world;
}

std::string of_brick(const char *name, const BrickV1 &brick)
{
    return text("zu_tier_%s,brick=\"%u\",path=\"%s\"", name, brick.no, brick.brickid.c_str());
}

TEST_F(CheckMetrics, FiguresOfASoundDevice)
{
    const WorldV1 world = half_clean();
    const Device device = world.device();
    using std::chrono::system_clock;
    const auto now = [] {
        return std::chrono::duration<double>(system_clock::now().time_since_epoch()).count();
    };
    const double before = now();
    const RunResult run = check(device.path());
    EXPECT_EQ(run.status, 0) << run;
    Samples found = samples(device.path());
    EXPECT_EQ(found.extract("zu_tier_check_success").mapped(), 1);
    const double ended = found.extract("zu_tier_check_timestamp_seconds").mapped();
    EXPECT_GE(ended, before - 1);
    EXPECT_LE(ended, now() + 1);
    const double took = found.extract("zu_tier_check_duration_seconds").mapped();
    EXPECT_GE(took, 0);
    EXPECT_LE(took, now() - before + 1);

    Samples expected;
    for (const auto &[table, counts] : run_check(device.path()).tables) {
        for (const auto &[state, count] :
             {std::pair("in_use", counts.in_use), std::pair("free", counts.free),
              std::pair("damaged", counts.damaged), std::pair("unreadable", counts.unreadable)})
            expected[text("zu_tier_entries,table=\"%s\",state=\"%s\"", table.c_str(), state)] =
                static_cast<double>(count);
    }
    for (const BrickV1 &brick : world.bricks) {
        double cached = 0;
        double dirty = 0;
        for (const ExtentV1 &extent : world.extents) {
            if (world.inodes.at(extent.inode_no).brick_no != brick.no)
                continue;
            cached += static_cast<double>(extent.size);
            dirty += extent.clean == 0 ? static_cast<double>(extent.size) : 0;
        }
        expected[of_brick("cached_bytes", brick)] = cached;
        expected[of_brick("dirty_bytes", brick)] = dirty;
    }
    expected["zu_tier_cached_bytes,brick=\"unknown\",path=\"\""] = 0;
    expected["zu_tier_dirty_bytes,brick=\"unknown\",path=\"\""] = 0;
    EXPECT_EQ(found, expected);
}

TEST_F(CheckMetrics, FindingsByKindAndSeverity)
{
    WorldV1 world = half_clean();
    world.inodes[1].brick_no = 2; // free
    world.extents[1].size = 1;    // with a bitmap of more: nothing to find
    world.extents[3].block = world.extents[0].block;
    const Device device = world.device();
    flip(device, extent_offset(world.sb, 2) + 20);
    EXPECT_EQ(check(device.path()).status, 1);
    Samples expected;
    for (const Finding &finding : run_check(device.path()).findings)
        expected[text("zu_tier_findings,table=\"%s\",unit=\"%s\",kind=\"%s\",severity=\"%s\"",
                      finding.table.c_str(), finding.unit.c_str(), finding.kind.c_str(),
                      finding.severity.c_str())] += 1;
    EXPECT_GE(expected.size(), 3U);
    Samples found;
    for (const auto &[name, value] : samples(device.path()))
        if (name.starts_with("zu_tier_findings"))
            found[name] = value;
    EXPECT_EQ(found, expected);
}

// What belongs to no brick that is known counts by itself.
TEST_F(CheckMetrics, BytesOfFilesThatAreNotKnown)
{
    const WorldV1 world = half_clean();
    const Device device = world.device();
    flip(device, inode_offset(world.sb, 1) + 20); // of extent 1, which is dirty
    EXPECT_EQ(check(device.path()).status, 1);
    const Samples found = samples(device.path());
    EXPECT_EQ(found.at("zu_tier_dirty_bytes,brick=\"unknown\",path=\"\""),
              static_cast<double>(world.extents[1].size));
}

// A label ends where it should, whatever name the device gives.
TEST_F(CheckMetrics, HostileNames)
{
    WorldV1 world = half_clean();
    world.bricks[0].brickid = "a\"} 1\nzu_tier_evil 1\\";
    EXPECT_EQ(check(world.device().path()).status, 1); // it says that the path is odd
    const std::string text = directory.read("zu_tier.prom");
    EXPECT_NE(text.find(R"(,brick="0",path="\"a\\\"} 1\\x0azu_tier_evil 1\\\\\""} )"),
              std::string::npos)
        << text;
    for (const std::string &line : lines_of(text))
        EXPECT_TRUE(line.starts_with("zu_tier_") || line.starts_with("# ")) << line;
    EXPECT_EQ(text.find("\nzu_tier_evil"), std::string::npos);
}

TEST_F(CheckMetrics, ADeviceThatCannotBeChecked)
{
    const Device device(1 << 20); // without a super block
    const RunResult run = check(device.path());
    expect_complaint(run, 2, no_super_block(device.path()));
    const Samples found = samples(device.path());
    EXPECT_EQ(found.size(), 3U);
    EXPECT_EQ(found.at("zu_tier_check_success"), 0);
}

TEST_F(CheckMetrics, ReplacesWhatItWroteBefore)
{
    const Device device = half_clean().device();
    EXPECT_EQ(check(device.path()).status, 0);
    directory.write("zu_tier.prom", directory.read("zu_tier.prom") + "# and an old line\n");
    EXPECT_EQ(check(device.path()).status, 0);
    EXPECT_EQ(directory.read("zu_tier.prom").find("old line"), std::string::npos);
    EXPECT_EQ(names_in(directory), std::vector<std::string>{"zu_tier.prom"});
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644U);
}

// Not even by mistake the device itself.
// As mktemp(1) makes one.
TEST_F(CheckMetrics, ReplacesAnEmptyFile)
{
    const Device device = half_clean().device();
    directory.write("zu_tier.prom", "");
    EXPECT_EQ(check(device.path()).status, 0);
    EXPECT_EQ(samples(device.path()).at("zu_tier_check_success"), 1);
}

TEST_F(CheckMetrics, ReplacesNothingElse)
{
    const Device device = half_clean().device();
    const auto before = device.bytes();
    for (const std::string &other : {device.path(), directory.write("notes", "of mine"),
                                     directory.path("."), std::string("/dev/null")}) {
        const RunResult run = run_ctl({"check", "--metrics", other, device.path()});
        expect_complaint(run, 2, other + " exists and holds no metrics of a check");
    }
    EXPECT_TRUE(device.bytes() == before);
    EXPECT_EQ(directory.read("notes"), "of mine");
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(CheckMetrics, AFileThatCannotBeWritten)
{
    const Device device = half_clean().device();
    const std::string other = directory.path("missing/x.prom");
    expect_complaint(run_ctl({"check", "--metrics", other, device.path()}), 2,
                     "cannot create " + other + ": No such file or directory");
    expect_complaint(run_ctl({"check", "--metrics", "", device.path()}), 2,
                     "--metrics takes the name of a file");
}

TEST_F(CheckMetrics, AllTablesOnly)
{
    const Device device = half_clean().device();
    EXPECT_EQ(check(device.path(), {"--table", "inode"}).status, 2);
    EXPECT_FALSE(fs::exists(file));
}

} // namespace
