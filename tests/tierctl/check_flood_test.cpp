// Thousands of findings with zu_tierctl check: runs of the same finding, what explains them, their
// numbers only, and each by itself.

#include "cache.h"
#include "check_run.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

RunResult check(const Device &device, std::vector<std::string> args = {})
{
    args.insert(args.begin(), {"check", device.path()});
    return run_program(ZU_TIERCTL, args);
}

// "bad_magic inode 20..39: 20"
std::string range(const std::string &kind, const std::string &table, std::uint64_t first,
                  std::uint64_t last, std::uint64_t count)
{
    return text("%s %s %lu..%lu: %lu", kind.c_str(), table.c_str(), first, last, count);
}

std::vector<std::string> ranges_of(const Report &report)
{
    std::vector<std::string> ranges;
    for (const Finding &f : report.findings)
        ranges.push_back(range(f.kind, f.table, f.no, f.last, f.count));
    return ranges;
}

// Blocks from `offset` on that hold this byte everywhere.
void fill(Device &device, std::int64_t offset, std::uint64_t blocks, std::uint8_t byte)
{
    Block block;
    block.fill(byte);
    for (std::uint64_t i = 0; i < blocks; ++i)
        device.write(static_cast<std::uint64_t>(offset) + i * BLOCK_SIZE, block);
}

constexpr std::uint32_t INODES = 40;

template <class World>
class CheckFlood : public testing::Test {
protected:
    World world;

    // The inodes from `first` on are filled with the byte.
    Device spoiled(std::uint32_t first, std::uint8_t byte)
    {
        using Super = decltype(world.sb);
        if constexpr (std::is_same_v<Super, SuperV1>)
            world.sb = super_v1(3, INODES, 6);
        else if constexpr (std::is_same_v<Super, SuperV2>)
            world.sb = super_v2(3, INODES, 6);
        else
            world.sb = super_v3(3, INODES);
        Device device = world.device();
        fill(device, inode_offset(world.sb, first), INODES - first, byte);
        return device;
    }
};
TYPED_TEST_SUITE(CheckFlood, AllWorlds);

TYPED_TEST(CheckFlood, ZeroedInodes)
{
    const Device device = this->spoiled(20, 0);
    const RunResult run = check(device);
    EXPECT_EQ(run.status, 1);
    const auto line = [&](const std::string &what, const std::string &kind) {
        return text("error: inode 20..39 (20 findings) at %ld: all zero: %s (%s): zu_tier -l "
                    "tier.log -p %s -c dump_inode -n 20",
                    inode_offset(this->world.sb, 20), what.c_str(), kind.c_str(),
                    device.path().c_str());
    };
    const std::uint32_t magic =
        get_u32(device.block(static_cast<std::uint64_t>(inode_offset(this->world.sb, 19))), 4);
    std::vector<std::string> lines = lines_of(run.out);
    ASSERT_GE(lines.size(), 5U) << run;
    lines.resize(5);
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  "cause: inode 20..39 are no inodes: inode_cnt 40, the last inode found is 19; "
                  "they are all zero",
                  line(text("its magic is 0x0, not 0x%x", magic), "bad_magic"),
                  line("its number is 0", "bad_number"),
                  line("its checksum does not match its content", "bad_checksum"), ""}));
    EXPECT_TRUE(run.out.ends_with("\nfindings                                   60\n")) << run;
}

TYPED_TEST(CheckFlood, OtherDataInPlaceOfInodes)
{
    const Device device = this->spoiled(3, 0x5A);
    const Report report = run_check_in_runs(device.path());
    EXPECT_EQ(ranges_of(report),
              (std::vector<std::string>{range("bad_magic", "inode", 3, 39, 37),
                                        range("bad_number", "inode", 3, 39, 37),
                                        range("bad_checksum", "inode", 3, 39, 37)}));
    for (const Finding &finding : report.findings)
        EXPECT_FALSE(finding.zero);
    ASSERT_EQ(report.causes.size(), 1U);
    EXPECT_EQ(report.causes[0].table, "inode");
    EXPECT_EQ(report.causes[0].no, 3U);
    EXPECT_EQ(report.causes[0].last, 39U);
    EXPECT_EQ(report.causes[0].text,
              "inode 3..39 are no inodes: inode_cnt 40, the last inode found is 2");
}

TYPED_TEST(CheckFlood, AFewAreNoCause)
{
    EXPECT_EQ(run_check(this->spoiled(25, 0).path()).causes.size(), 0U);
    EXPECT_EQ(run_check(this->spoiled(24, 0).path()).causes.size(), 1U);
    Device device = this->spoiled(20, 0);
    EXPECT_EQ(run_check(device.path(), {"--table", "inode"}).causes.size(), 1U);
    EXPECT_EQ(run_check(device.path(), {"--table", "brick"}).causes.size(), 0U);
    // The last is sound.
    const Device sound = this->world.device();
    const auto last = static_cast<std::uint64_t>(inode_offset(this->world.sb, INODES - 1));
    device.write(last, sound.block(last));
    EXPECT_EQ(run_check(device.path()).causes.size(), 0U);
}

// A block that cannot be read may hide one entry; many may hide all.
TYPED_TEST(CheckFlood, BlocksThatCannotBeRead)
{
    const Device device = this->spoiled(4, 0);
    for (const auto &[count, causes] :
         std::map<std::uint64_t, std::size_t>{{1, 1}, {16, 1}, {17, 0}}) {
        const std::string list = device.path() + ".unreadable.json";
        std::ofstream(list) << text(R"([{"table":"inode","no":20,"count":%lu,"offset":%ld}])",
                                    count, inode_offset(this->world.sb, 20));
        const Report report = run_check_in_runs(device.path(), {"--table", "inode"});
        ASSERT_EQ(report.causes.size(), causes) << count;
        if (causes != 0) {
            EXPECT_EQ(report.causes[0].text,
                      "inode 4..39 are no inodes: inode_cnt 40, the last inode found is 3");
        }
        fs::remove(list);
    }
}

TYPED_TEST(CheckFlood, RunsEndWhereEntriesAreSoundOrOtherwiseDamaged)
{
    Device device = this->spoiled(20, 0);
    const Device sound = this->world.device();
    const auto at = [&](std::uint32_t no) {
        return static_cast<std::uint64_t>(inode_offset(this->world.sb, no));
    };
    device.write(at(23), sound.block(at(23)));
    fill(device, static_cast<std::int64_t>(at(30)), 1, 1);
    std::vector<std::string> expected;
    for (const auto &[first, last] : {std::pair{20U, 22U}, {24U, 29U}, {30U, 30U}, {31U, 39U}})
        for (const std::string kind : {"bad_magic", "bad_number", "bad_checksum"})
            expected.push_back(range(kind, "inode", first, last, last - first + 1));
    const Report report = run_check_in_runs(device.path());
    EXPECT_EQ(ranges_of(report), expected);
    for (const Finding &finding : report.findings)
        EXPECT_EQ(finding.zero, finding.no != 30);
}

// The same numbers however they are told.
TYPED_TEST(CheckFlood, AllAndSummary)
{
    const Device device = this->spoiled(20, 0);
    const Report each = run_check(device.path());
    EXPECT_EQ(each.findings.size(), 60U);
    for (const Finding &finding : each.findings) {
        EXPECT_EQ(finding.no, finding.last);
        EXPECT_EQ(finding.count, 1U);
        EXPECT_TRUE(finding.zero);
    }
    EXPECT_EQ(check(device, {"--all"}).out.find("20 findings"), std::string::npos);

    const RunResult summary = check(device, {"--summary"});
    EXPECT_EQ(summary.status, 1);
    EXPECT_TRUE(summary.out.starts_with("cause: inode 20..39 are no inodes"));
    EXPECT_TRUE(
        summary.out.ends_with("\n\nbad_checksum                               20 inode 20..39\n"
                              "bad_magic                                  20 inode 20..39\n"
                              "bad_number                                 20 inode 20..39\n"
                              "findings                                   60\n"))
        << summary;
    EXPECT_EQ(summary.out.find("error: "), std::string::npos);

    const auto json = nlohmann::ordered_json::parse(check(device, {"--summary", "--json"}).out);
    EXPECT_EQ(
        json.at("findings").dump(),
        R"([{"kind":"bad_checksum","table":"inode","unit":"entry","no":20,"last":39,"count":20},)"
        R"({"kind":"bad_magic","table":"inode","unit":"entry","no":20,"last":39,"count":20},)"
        R"({"kind":"bad_number","table":"inode","unit":"entry","no":20,"last":39,"count":20}])");
    const auto runs = nlohmann::ordered_json::parse(check(device, {"--json"}).out);
    EXPECT_EQ(json.at("kinds"), runs.at("kinds"));
    EXPECT_EQ(json.at("tables"), runs.at("tables"));
    expect_complaint(check(device, {"--summary", "--all"}), 2, "--all excludes --summary");
}

// Sentences that differ only in numbers and names are one run, of which the first is shown.
TEST(CheckRuns, OtherNumbersAndNames)
{
    WorldV1 world;
    world.sb = super_v1(3, 5, 30);
    world.extents.clear();
    for (std::uint32_t no = 0; no < 20; ++no) {
        world.extents.push_back(sound_extent(extent_used(no, 3 + no % 2))); // both are free
        world.extents.back().block = no;
    }
    const Device device = world.device();
    const Report report = run_check_in_runs(device.path());
    EXPECT_EQ(ranges_of(report),
              (std::vector<std::string>{range("extent_of_free_inode", "extent", 0, 19, 20)}));
    EXPECT_EQ(report.findings[0].text, "it refers to inode 3, which is free");
    EXPECT_NE(check(device).out.find(
                  text("error: extent 0..19 (20 findings) at %ld: the first: it refers to inode 3, "
                       "which is free (extent_of_free_inode): ",
                       extent_offset(world.sb, 0))),
              std::string::npos);
}

// The extents of damaged inodes are one run, though the inode between two of them has no extent; a
// sound one ends it.
TEST(CheckRuns, ReferrersOfDamagedEntries)
{
    WorldV1 world;
    world.sb = super_v1(3, 9, 12);
    world.inodes.clear();
    for (std::uint32_t no = 0; no < 8; ++no) {
        world.inodes.push_back(sound_inode(inode_used(no, 0)));
        if (no != 5)
            world.inodes.back().checksum = 1;
    }
    world.extents.clear();
    const std::uint32_t owners[] = {2, 1, 4, 1, 5, 7, 6, 1};
    for (std::uint64_t no = 0; no < std::size(owners); ++no) {
        world.extents.push_back(sound_extent(extent_used(no, owners[no])));
        world.extents.back().block = static_cast<std::uint32_t>(no);
    }
    const Device device = world.device();
    const Report report = run_check_in_runs(device.path(), {"--table", "extent"});
    EXPECT_EQ(ranges_of(report),
              (std::vector<std::string>{range("extent_of_unknown_inode", "extent", 0, 2, 3),
                                        range("extent_of_unknown_inode", "extent", 5, 6, 2)}));
    EXPECT_EQ(report.findings[0].offset, extent_offset(world.sb, 0));
    EXPECT_EQ(report.findings[0].text, "it refers to inode 2, which is damaged");
    EXPECT_EQ(report.findings[1].offset, extent_offset(world.sb, 5));
}

// A packed entry is named with its block. Block heads are no entries and break no run.
TEST(CheckRuns, PackedEntriesAndTheirBlocks)
{
    WorldV3 world;
    world.shards[0].shards.clear();
    world.shards[1].shards.clear();
    for (std::uint32_t slot = 500; slot < 512; ++slot)
        world.shards[0].shards.push_back({.slot = slot, .ino = 4, .index = slot});
    for (std::uint32_t slot = 1; slot < 10; ++slot)
        world.shards[1].shards.push_back({.slot = slot, .ino = 4, .index = slot});
    world.extents.clear();
    world.extents[3].extents = {{.slot = 6, .lba = 1, .shard = 600, .bitmap = 1}};
    const Device device = world.device();
    const Report report = run_check_in_runs(device.path());
    EXPECT_EQ(ranges_of(report),
              (std::vector<std::string>{range("shard_of_free_inode", "shard", 500, 521, 21),
                                        range("extent_of_free_shard", "extent", 1542, 1542, 1)}));
    EXPECT_EQ(report.findings[0].block, 0U);
    EXPECT_EQ(report.findings[1].block, 3U);
    const std::string out = check(device).out;
    EXPECT_NE(out.find("error: shard 500..521 (blocks 0..1; 21 findings) at "), std::string::npos);
    EXPECT_NE(out.find("error: extent 1542 (block 3) at "), std::string::npos) << out;
    EXPECT_NE(check(device, {"--all"}).out.find("error: shard 513 (block 1) at "),
              std::string::npos);
    for (const Finding &finding : run_check(device.path()).findings)
        EXPECT_EQ(finding.block, finding.no / 512);
}

TEST(CheckRuns, EntriesOfTheirOwnSlotHaveNoBlock)
{
    WorldV1 world;
    world.bricks[1].checksum = 1;
    for (const Finding &finding : run_check(world.device().path()).findings)
        EXPECT_FALSE(finding.block);
}

// A count in the super block that is too large is named by the key with which its dump shows it.
TEST(CheckCause, CountsOfOldLayouts)
{
    WorldV2 world; // the data area is a hole
    Device device = world.device();
    world.sb.block_cnt += 20;
    put_block(device, SUPER_OFFSET, encode(world.sb));
    const Report extents = run_check(device.path(), {"--table", "extent"});
    ASSERT_EQ(extents.causes.size(), 1U);
    EXPECT_EQ(extents.causes[0].text, "extent 6..25 are no extents: block_cnt 26, the last extent "
                                      "found is 5; they are all zero");
}

TEST(CheckCause, AllOfATable)
{
    WorldV1 world;
    world.sb = super_v1(30, 5, 6);
    Device device = world.device();
    fill(device, brick_offset(world.sb, 0), 30, 0);
    const Report report = run_check(device.path(), {"--table", "brick"});
    ASSERT_EQ(report.causes.size(), 1U);
    EXPECT_EQ(report.causes[0].text,
              "brick 0..29 are no bricks: brick_cnt 30, no brick was found; they are all zero");
    fill(device, brick_offset(world.sb, 0), 30, 0xC5);
    EXPECT_EQ(
        run_check(device.path(), {"--table", "brick"}).causes.at(0).text,
        "brick 0..29 are no bricks: brick_cnt 30, no brick was found; perhaps the table is of "
        "another layout, or lies elsewhere");
}

TEST(CheckCause, PackedBlocks)
{
    WorldV3 world;
    world.sb.shard_cnt = 40 * 512;
    world.sb.extent_cnt = 50 * 512;
    set_geometry(world.sb);
    Device device = world.device();
    fill(device, shard_offset(world.sb, 10), 30, 0);
    fill(device, extent_offset(world.sb, 20), 30, 7);
    const Report report = run_check_in_runs(device.path());
    ASSERT_EQ(report.causes.size(), 2U);
    EXPECT_EQ(report.causes[0].text,
              "shard block 10..39 are no shard blocks: shard_table_cnt 20480, the last shard block "
              "found is 9; they are all zero");
    EXPECT_EQ(report.causes[1].text, "extent block 20..49 are no extent blocks: extent_table_cnt "
                                     "25600, the last extent block found is 19");
    EXPECT_NE(check(device).out.find("error: shard block 10..39 (30 findings) at "),
              std::string::npos);
}

// An expansion area of which only the start was ever written.
TEST(CheckCause, HalfFormattedExpansionArea)
{
    WorldV2 world;
    set_expansion(world.sb, 153600, true);
    Device device =
        make_v2_device(world.sb, world.bricks, world.inodes, world.extents, Expansion::SPARSE);
    for (std::uint32_t no = 5; no < 1005; ++no)
        put_block(device, inode_offset(world.sb, no), encode(inode_v2(no)));
    const std::int64_t at = inode_offset(world.sb, 1005);
    const RunResult run = check(device, {"--table", "inode"});
    const std::vector<std::string> lines = lines_of(run.out);
    ASSERT_GE(lines.size(), 5U);
    EXPECT_EQ(lines[0], "cause: inode 1005..153604 are no inodes: exp_inode_cnt 153600, the last "
                        "inode found is 1004; they are all zero");
    for (std::size_t i = 1; i < 4; ++i)
        EXPECT_TRUE(lines[i].starts_with(
            text("error: inode 1005..153604 (152600 findings) at %ld: all zero: ", at)))
            << lines[i];
    EXPECT_EQ(lines[4], "");
}

} // namespace
