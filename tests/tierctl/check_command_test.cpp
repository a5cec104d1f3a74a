// How zu_tierctl check is called, what it prints, and how it ends: clean and damaged samples,
// devices that cannot be checked, output that is lost.

#include "cache.h"
#include "check_run.h"
#include "sample_image.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tier_test;

namespace {

std::vector<std::string> summaries(const Report &report)
{
    std::vector<std::string> result;
    for (const Finding &finding : report.findings)
        result.push_back(summary(finding));
    return result;
}

struct SampleCase {
    std::string layout;
    std::vector<std::string> args;
};

TEST(CheckCommand, HelpNamesTheTables)
{
    for (const std::string command : {"check", "revert", "template"})
        EXPECT_NE(run_ctl({command, "--help"})
                      .out.find("super, brick, inode, extent; in v3 also shard and hot"),
                  std::string::npos)
            << command;
}

TEST(CheckCommand, SamplesAreClean)
{
    const SampleCase cases[] = {
        {"v1", {}},
        {"v1", {"--bricks", "1", "--inodes", "1", "--blocks", "1"}},
        {"v1", {"--bricks", "300", "--inodes", "2000", "--blocks", "1000", "--seed", "2"}},
        {"v1", {"--extent-size", "4096", "--block-size", "262144"}},
        {"v2", {}},
        {"v2", {"--bricks", "1", "--inodes", "1", "--blocks", "1"}},
        {"v2", {"--inodes", "300", "--blocks", "1000", "--block-size", "4194304"}},
        {"v2", {"--extent-size", "61", "--block-size", "262144", "--blocks", "300"}},
        {"v3", {}},
        {"v3", {"--shards", "512", "--extents", "512", "--blocks", "1"}},
        {"v3", {"--extents", "65536", "--shards", "4096", "--inodes", "700", "--blocks", "1"}},
    };
    for (const auto &[layout, args] : cases) {
        SCOPED_TRACE(layout + testing::PrintToString(args));
        const Device device = make_sample(args, layout);
        const Report report = run_check(device.path());
        EXPECT_EQ(summaries(report), std::vector<std::string>{});
        EXPECT_GT(report.tables.at("extent").in_use, 0U);
        for (const auto &[table, counts] : report.tables)
            EXPECT_EQ(counts.damaged + counts.unreadable, 0U) << table;
    }
}

const std::vector<std::string> SMALL{"--bricks", "6",  "--inodes",     "40",
                                     "--blocks", "30", "--block-size", "262144"};
const std::vector<std::string> SMALL_V3{"--bricks", "6",         "--inodes", "40",       "--shards",
                                        "1024",     "--extents", "1024",     "--blocks", "1"};

// Entry 1 of the table, damaged in that way.
void expect_damage(const std::string &layout, const SampleTable &table, const std::string &kind,
                   const std::vector<std::string> &kinds)
{
    SCOPED_TRACE(layout + " " + table.name + " " + kind);
    std::vector<std::string> args = layout == "v3" ? SMALL_V3 : SMALL;
    args.insert(args.end(), {"--damage", table.name + ":1:" + kind});
    const Device device = make_sample(args, layout);
    const bool packed = layout == "v3" && (table.name == "shard" || table.name == "extent");
    std::vector<std::string> expected;
    for (const std::string &name : kinds)
        expected.push_back(error(name, table.name, 1, table.offset(1), packed ? "block" : "entry"));
    const Report report = run_check(device.path(), {"--table", table.name});
    EXPECT_EQ(summaries(report), expected);
    EXPECT_EQ(report.tables.size(), 1U);
    const std::uint64_t words = table.name == "shard" ? 511 : packed ? 512 : 1;
    EXPECT_EQ(report.tables.at(table.name).damaged, words);

    // The command shows the entry, which the tool finds damaged as well.
    for (const Finding &finding : report.findings) {
        EXPECT_EQ(finding.command,
                  "zu_tier -l tier.log -p " + device.path() + " -c " + table.command + " -n 1");
        EXPECT_EQ(run_logged(device, table.command, {"-n", "1"}).status, 14);
    }
}

template <class Super>
void expect_damages(const std::string &layout, const Super &sb)
{
    for (const SampleTable &table : sample_tables(sb)) {
        if (table.name == "hot")
            continue;
        std::vector<std::string> zero;
        expect_damage(layout, table, "checksum", {"bad_checksum"});
        expect_damage(layout, table, "bit", {"bad_checksum"});
        if (table.magic_at >= 0) {
            expect_damage(layout, table, "magic", {"bad_magic"});
            zero.emplace_back("bad_magic");
        }
        if (table.number_at >= 0) {
            expect_damage(layout, table, "number", {"bad_number"});
            zero.emplace_back("bad_number");
        }
        zero.emplace_back("bad_checksum");
        expect_damage(layout, table, "zero", zero);
    }
}

// A bit may also be one of the magic or of the number: the seed of the sample hits neither.
TEST(CheckCommand, DamagesOfV1)
{
    expect_damages("v1", decode_super(make_sample(SMALL).block(SUPER_OFFSET)));
}

TEST(CheckCommand, DamagesOfV2)
{
    expect_damages("v2", decode_super_v2(make_sample(SMALL, "v2").block(SUPER_OFFSET)));
}

TEST(CheckCommand, DamagesOfV3)
{
    expect_damages("v3", decode_super_v3(make_sample(SMALL_V3, "v3").block(SUPER_OFFSET)));
}

// The commands of findings about entries show these entries.
TEST(CheckCommand, CommandsOfPackedEntries)
{
    WorldV3 world;
    world.extents[3].extents = {{.slot = 9, .lba = 77, .shard = 2, .bitmap = 1}};
    const Device device = world.device();
    const Report report = run_check(device.path());
    ASSERT_EQ(report.findings.size(), 1U);
    EXPECT_EQ(report.findings[0].command,
              "zu_tier -l tier.log -p " + device.path() + " -c dump_extent -n 3");
    EXPECT_EQ(report.findings[0].text, "it refers to shard 2, which is free");
    EXPECT_NE(run_logged(device, "dump_extent", {"-n", "3"}).out.find("{\"lba\":77,\"shard\":2,"),
              std::string::npos);
}

TEST(CheckCommand, Text)
{
    WorldV1 world;
    world.inodes[2].brick_no = 2;
    world.extents[1].checksum = 1;
    world.bricks[1].checksum = 1;
    const Device device = world.device();
    const RunResult run = run_program(ZU_TIERCTL, {"check", device.path()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "");
    const std::string show = "): zu_tier -l tier.log -p " + device.path() + " -c ";
    std::string expected;
    expected += text("error: brick 1 at %ld: its checksum does not match its content (bad_checksum",
                     brick_offset(world.sb, 1)) +
                show + "dump_brick -n 1\n";
    expected +=
        text("error: inode 2 at %ld: it refers to brick 2, which is free (inode_of_free_brick",
             inode_offset(world.sb, 2)) +
        show + "dump_inode -n 2\n";
    expected += text("warning: inode 1 at %ld: it refers to brick 1, which is damaged "
                     "(inode_of_unknown_brick",
                     inode_offset(world.sb, 1)) +
                show + "dump_inode -n 1\n";
    expected +=
        text("error: extent 1 at %ld: its checksum does not match its content (bad_checksum",
             extent_offset(world.sb, 1)) +
        show + "dump_extent -n 1\n";
    expected += "\n"
                "table         entries       in use         free      damaged   unreadable\n"
                "super               1            1            0            0            0\n"
                "brick               3            1            1            1            0\n"
                "inode               5            3            2            0            0\n"
                "extent              6            3            2            1            0\n"
                "\n"
                "bad_checksum                                2\n"
                "inode_of_free_brick                         1\n"
                "inode_of_unknown_brick                      1\n"
                "findings                                    4\n";
    EXPECT_EQ(run.out, expected);
}

TEST(CheckCommand, TextOfPackedAndClean)
{
    WorldV3 world;
    world.shards[2].checksum = 1;
    const Device damaged = world.device();
    const RunResult run = run_program(ZU_TIERCTL, {"check", "--table", "shard", damaged.path()});
    EXPECT_EQ(run.out,
              text("error: shard block 2 at %ld: its checksum does not match its content "
                   "(bad_checksum): zu_tier -l tier.log -p %s -c dump_shard -n 2\n\n",
                   shard_offset(world.sb, 2), damaged.path().c_str()) +
                  "table         entries       in use         free      damaged   unreadable\n"
                  "shard            1533            3         1019          511            0\n"
                  "\n"
                  "bad_checksum                                1\n"
                  "findings                                    1\n");

    const Device clean = WorldV3().device();
    const RunResult nothing = run_program(ZU_TIERCTL, {"check", "--table", "brick", clean.path()});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.out,
              "table         entries       in use         free      damaged   unreadable\n"
              "brick               3            2            1            0            0\n"
              "\n"
              "findings                                    0\n");
}

TEST(CheckCommand, Tables)
{
    WorldV3 world;
    world.bricks[0].checksum = 1;
    world.shards[0].shards[0].ino = 4;
    world.extents[0].extents[0].shard = 2;
    const Device device = world.device();
    const std::int64_t shard = word_offset(shard_offset(world.sb, 0), 1);
    const std::int64_t extent = word_offset(extent_offset(world.sb, 0), 0);
    expect_findings(device, {error("shard_of_free_inode", "shard", 1, shard)},
                    {"--table", "shard"});
    expect_findings(device, {error("extent_of_free_shard", "extent", 0, extent)},
                    {"--table", "extent"});
    expect_findings(device,
                    {error("shard_of_free_inode", "shard", 1, shard),
                     error("extent_of_free_shard", "extent", 0, extent)},
                    {"--table", "extent", "--table", "shard"});
    expect_findings(device, {}, {"--table", "hot"});
    EXPECT_EQ(run_check(device.path(), {"--table", "hot"}).tables.size(), 1U);
}

// A path that a shell and JSON would read otherwise.
TEST(CheckCommand, PathIsQuoted)
{
    WorldV1 world;
    world.bricks[1].brickid = "";
    const Device device = world.device();
    const std::string path = device.directory().path("it's a \"disk\"\t\\\x80");
    std::filesystem::create_hard_link(device.path(), path);
    const RunResult run = run_program(ZU_TIERCTL, {"check", "--json", path});
    const auto document = nlohmann::json::parse(run.out);
    const std::string command = document.at("findings").at(0).at("command");
    EXPECT_EQ(command, "zu_tier -l tier.log -p $'" + path.substr(0, path.find("it's")) +
                           R"(it\'s a "disk"\011\\\200' -c dump_brick -n 1)");
    EXPECT_EQ(lines_of(run.out).size(), 5U);

    // As a command of the shell it shows the entry.
    const auto programs = std::filesystem::path(ZU_TIER).parent_path();
    const RunResult shown =
        run_program("/bin/bash", {"-c", command},
                    {.environment = {{"PATH", programs.string() + ":" + getenv("PATH")}},
                     .working_directory = device.directory().path("")});
    EXPECT_EQ(shown.status, 0) << shown;
    EXPECT_NE(shown.out.find("\"bi_no\":1"), std::string::npos) << shown;
}

// 2, and nothing but a complaint.
void expect_no_check(const std::vector<std::string> &args, const std::string &complaint,
                     const RunOptions &options = {})
{
    SCOPED_TRACE(complaint);
    const RunResult run = run_program(ZU_TIERCTL, args, options);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
}

TEST(CheckCommand, UnknownTable)
{
    const Device device = WorldV1().device();
    expect_no_check({"check", device.path(), "--table", "shard"},
                    "there is no table shard, but super, brick, inode, extent");
}

// With --json standard output has one document, whatever happens.
TEST(CheckCommand, JsonOfADeviceThatCannotBeChecked)
{
    const auto error_of = [](const RunResult &run, const std::string &device) {
        EXPECT_EQ(run.status, 2) << run;
        const auto document = nlohmann::ordered_json::parse(run.out);
        EXPECT_EQ(document.size(), 2U);
        EXPECT_EQ(document.at("device"), device);
        const std::string error = document.at("error");
        EXPECT_EQ(run.err, "zu_tierctl: " + error + "\n");
        return error;
    };
    const Device device = WorldV1().device();
    const auto check = [](const std::string &path, std::vector<std::string> args = {}) {
        args.insert(args.begin(), {"check", "--json", path});
        return run_program(ZU_TIERCTL, args);
    };
    EXPECT_EQ(error_of(check("/none/at \"all\""), "/none/at \"all\""),
              "cannot open /none/at \"all\": No such file or directory");
    EXPECT_EQ(error_of(check(device.path(), {"--table", "shard"}), device.path()),
              "there is no table shard, but super, brick, inode, extent");
    const Device empty(16 * BLOCK_SIZE);
    EXPECT_EQ(error_of(check(empty.path()), empty.path()), no_super_block(empty.path()));
    EXPECT_EQ(error_of(check(empty.path(), {"--live", "--summary"}), empty.path()),
              no_super_block(empty.path()));
}

TEST(CheckCommand, LostOutputOfNoFindingsAndOfMany)
{
    WorldV3 world; // more findings than a buffer holds
    for (std::uint32_t slot = 8; slot < 500; ++slot)
        world.extents[2].extents.push_back({.slot = slot, .lba = slot, .shard = 2});
    RunOptions options;
    options.stdout_path = "/dev/full";
    for (const Device &device : {WorldV1().device(), world.device()})
        expect_no_check({"check", device.path()},
                        "cannot write to standard output: No space left on device", options);
}

// As by `check DEVICE | head`: more than a pipe holds, of which one line is read.
TEST(CheckCommand, ReaderThatHasEnough)
{
    WorldV1 world;
    world.sb = super_v1(3, 1000, 6);
    Device device = world.device();
    for (std::uint32_t no = 0; no < 1000; ++no)
        put_block(device, inode_offset(world.sb, no), Block{});
    for (const std::string options : {"--all", "--all --json"}) {
        const std::string script = "'" + ZU_TIERCTL + "' check " + options + " '" + device.path() +
                                   "' | head -n 1; echo \"${PIPESTATUS[*]}\"";
        const RunResult run = run_program("/bin/bash", {"-c", script});
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(lines_of(run.out).size(), 2U) << run;
        EXPECT_TRUE(run.out.ends_with("\n141 0\n")) << run;
    }
}

TEST(CheckCommand, DeviceIsNotChanged)
{
    std::vector<std::string> args = SMALL;
    args.insert(args.end(), {"--damage", "inode:3", "--damage", "extent:2:zero"});
    const Device device = make_sample(args);
    const std::vector<std::uint8_t> before = device.bytes();
    EXPECT_EQ(run_check(device.path()).run.status, 1);
    EXPECT_EQ(device.bytes(), before);
}

} // namespace
