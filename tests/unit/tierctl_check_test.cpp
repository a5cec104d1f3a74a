// Checks in so little memory that tables are read many times.

#include "zu_tierctl/check/check.h"
#include "zu_tierctl/check/table.h"

#include "v3_device.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

using namespace tier_test;
using tierctl::Detail;

namespace {

struct Outcome {
    bool clean;
    std::string out;
};

Outcome check_in(const Device &device, std::size_t memory, Detail detail = Detail::runs)
{
    testing::internal::CaptureStdout();
    const bool clean = tierctl::check(
        {.device = device.path(), .json = true, .detail = detail, .claims_memory = memory});
    return {clean, testing::internal::GetCapturedStdout()};
}

std::size_t count_of(const std::string &text, const std::string &what)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        count++;
    return count;
}

// 2000 extents in use, of which the last of each block claims what its first one does.
Device extents_device(bool twice)
{
    ExtentBlockV3 blocks[4];
    for (std::uint32_t i = 0; i < 2000; ++i) {
        const std::uint32_t slot = i % 500;
        const std::uint32_t lba = twice && slot == 499 ? i - slot : i;
        blocks[i / 500].extents.push_back(
            {.slot = slot, .lba = (lba * 7919) % 524288, .shard = 1, .bitmap = 1});
    }
    InodeV3 inode = inode_v3_used(0, 0);
    inode.size = 1;
    return make_v3_device(super_v3(1, 1), {brick_v3_used(0)}, {inode},
                          {{0, {.shards = {{.slot = 1, .ino = 0}}}}},
                          {{0, blocks[0]}, {1, blocks[1]}, {2, blocks[2]}, {3, blocks[3]}});
}

TEST(CheckMemory, FindsTheSameInAny)
{
    const Device clean = extents_device(false);
    const Device twice = extents_device(true);
    for (const std::size_t memory : {std::size_t{1}, std::size_t{1000}, std::size_t{400} << 20}) {
        SCOPED_TRACE(memory);
        EXPECT_TRUE(check_in(clean, memory).clean);
        const auto [is_clean, out] = check_in(twice, memory);
        EXPECT_FALSE(is_clean);
        EXPECT_EQ(count_of(out, "\"kind\":\"duplicate_extent\""), 4U) << out;
        for (const std::uint64_t block : {0U, 1U, 2U, 3U})
            EXPECT_EQ(count_of(out, text("\"no\":%lu,", block * 512 + 499)), 1U);
    }
}

// Where there is no memory for all claims, but for those that are repeated.
TEST(CheckMemory, TellsInTheOrderOfTheNumbers)
{
    const Device device = extents_device(true);
    EXPECT_EQ(check_in(device, 8000).out, check_in(device, std::size_t{400} << 20).out);
}

// The findings of a check, in the order of their texts: that of claims depends on the memory.
std::vector<std::string> findings_in(const Device &device, std::size_t memory)
{
    std::vector<std::string> findings;
    const auto document = nlohmann::json::parse(check_in(device, memory, Detail::each).out);
    for (const auto &finding : document.at("findings"))
        findings.push_back(finding.dump());
    std::ranges::sort(findings);
    return findings;
}

// Texts, identities and numbers, of entries of which others are damaged or cannot be read.
TEST(CheckMemory, FindsTheSameOfEveryTypeOfClaim)
{
    constexpr std::uint32_t COUNT = 60;
    std::vector<BrickV1> bricks;
    std::vector<InodeV1> inodes;
    std::vector<ExtentV1> extents;
    for (std::uint32_t i = 0; i < COUNT; i++) {
        bricks.push_back(brick_used(i));
        bricks.back().brickid = text("/brick/%u", i % (COUNT - 7));
        inodes.push_back(inode_used(i, 0));
        inodes.back().uuid = numbered_uuid(static_cast<std::uint8_t>(i % 50));
        extents.push_back(extent_used(i, i % 11));
    }
    const SuperV1 sb = super_v1(COUNT, COUNT, COUNT);
    const Device whole = make_v1_device(sb, bricks, inodes, extents);
    Device spoilt = make_v1_device(sb, bricks, inodes, extents);
    for (const std::uint64_t no : {5U, 17U, 59U})
        for (const std::int64_t offset : {brick_offset(sb, no), inode_offset(sb, no)}) {
            Block block = spoilt.block(static_cast<std::uint64_t>(offset));
            block[100] ^= 1;
            put_block(spoilt, offset, block);
        }
    spoilt.truncate(static_cast<std::uint64_t>(extent_offset(sb, COUNT - 20)));
    for (const Device *device : std::initializer_list<const Device *>{&whole, &spoilt}) {
        const auto found = findings_in(*device, std::size_t{400} << 20);
        EXPECT_GE(found.size(), 7U);
        for (const std::size_t memory : {std::size_t{1}, std::size_t{3000}})
            EXPECT_EQ(findings_in(*device, memory), found);
    }
}

TEST(CheckMemory, ThePassesAreCounted)
{
    EXPECT_EQ(tierctl::pass_title("extent", 1, 0), "checking extent");
    EXPECT_EQ(tierctl::pass_title("extent", 2, 0), "checking extent, pass 2");
    EXPECT_EQ(tierctl::pass_title("extent", 1, 3), "checking extent, pass 1 of 3");
    EXPECT_EQ(tierctl::pass_title("extent", 3, 3), "checking extent, pass 3 of 3");
    EXPECT_EQ(tierctl::pass_title("extent", 4, 3), "checking extent, pass 4");
}

// However often the extents are read.
TEST(CheckMemory, TellsOnceOfALostShard)
{
    Device device = extents_device(true);
    const SuperV3 sb = super_v3(1, 1);
    put_block(device, shard_offset(sb, 0), encode(ShardBlockV3{.checksum = 1}));
    for (const std::size_t memory : {std::size_t{1}, std::size_t{400} << 20}) {
        SCOPED_TRACE(memory);
        const std::string out = check_in(device, memory).out;
        EXPECT_EQ(count_of(out, "\"kind\":\"extent_of_unknown_shard\""), 1U) << out;
        EXPECT_EQ(count_of(out, "it and 1999 others refer to shard 1, which is damaged"), 1U)
            << out;
        EXPECT_EQ(count_of(out, "\"kind\":\"duplicate_extent\""), 4U) << out;
    }
}

// What is done between the passes of a check of a device in use, in turn; and the kinds and numbers
// of what it finds.
std::vector<std::string> live_findings(const Device &device,
                                       std::vector<std::function<void()>> between)
{
    auto next = between.begin();
    testing::internal::CaptureStdout();
    tierctl::check({.device = device.path(),
                    .json = true,
                    .detail = tierctl::Detail::each,
                    .live = true,
                    .pause = [&] { (*next++)(); }});
    EXPECT_EQ(next, between.end());
    const auto document = nlohmann::json::parse(testing::internal::GetCapturedStdout());
    std::vector<std::string> found;
    std::set<std::string> kinds;
    for (const auto &finding : document.at("findings")) {
        const auto kind = finding.at("kind").get<std::string>();
        kinds.insert(kind);
        found.push_back(text("%s %lu", kind.c_str(), finding.at("no").get<std::uint64_t>()));
    }
    EXPECT_EQ(document.at("kinds").size(), kinds.size());
    return found;
}

TEST(CheckLive, FindsWhatEveryPassFinds)
{
    const SuperV3 sb = super_v3(1, 8);
    const auto flip = [&](Device &device, std::uint32_t no) {
        const auto at = static_cast<std::uint64_t>(inode_offset(sb, no));
        Block block = device.block(at);
        block[60] ^= 0xFF;
        device.write(at, block);
    };
    const auto no_change = [] {};
    Device device = make_v3_device(sb, {brick_v3_used(0)});
    flip(device, 1);
    flip(device, 2);
    EXPECT_EQ(live_findings(device, {no_change, no_change}),
              (std::vector<std::string>{"bad_checksum 1", "bad_checksum 2"}));
    const auto mend = [&] { flip(device, 2); };
    const auto spoil = [&] { flip(device, 5); };
    EXPECT_EQ(live_findings(device, {mend, no_change}),
              (std::vector<std::string>{"bad_checksum 1"}));
    EXPECT_EQ(live_findings(device, {spoil, no_change}),
              (std::vector<std::string>{"bad_checksum 1"}));
    EXPECT_EQ(live_findings(device, {no_change, spoil}),
              (std::vector<std::string>{"bad_checksum 1"}));
    flip(device, 1);
    EXPECT_EQ(live_findings(device, {}), std::vector<std::string>{});
}

// What an entry has may differ from pass to pass, and the last one tells; an entry packed into a
// block has what its block has.
TEST(CheckLive, TellsWhatTheLastPassFinds)
{
    const auto no_change = [] {};
    const SuperV3 sb = super_v3(1, 8);
    const auto at = static_cast<std::uint64_t>(inode_offset(sb, 2));
    InodeV3 lost = inode_v3_used(2, 0);
    lost.brick_no = 5;
    lost.size = 1;
    const Block stray = encode(lost);
    Block damaged = stray;
    damaged[60] ^= 0xFF;
    Device inodes = make_v3_device(sb, {brick_v3_used(0)});
    inodes.write(at, damaged);
    EXPECT_EQ(live_findings(inodes, {no_change, [&] { inodes.write(at, stray); }}),
              std::vector<std::string>{"inode_of_missing_brick 2"});

    Device device = extents_device(true);
    const auto extents = static_cast<std::uint64_t>(extent_offset(super_v3(1, 1), 2));
    const Block twice = device.block(extents);
    Block spoilt = twice;
    spoilt[60] ^= 0xFF;
    const auto put = [&](const Block &block) { return [&] { device.write(extents, block); }; };
    EXPECT_EQ(live_findings(device, {put(spoilt), put(twice)}),
              (std::vector<std::string>{"duplicate_extent 499", "duplicate_extent 1011",
                                        "duplicate_extent 1523", "duplicate_extent 2035"}));
    EXPECT_EQ(live_findings(device, {no_change, put(spoilt)}),
              (std::vector<std::string>{"bad_checksum 2", "duplicate_extent 499",
                                        "duplicate_extent 1011", "duplicate_extent 2035"}));
}

// Whatever the passes before could read.
TEST(CheckLive, TellsWhatTheLastPassCannotRead)
{
    const SuperV3 sb = super_v3(1, 8);
    const auto at = static_cast<std::uint64_t>(inode_offset(sb, 5));
    Device device = make_v3_device(sb, {brick_v3_used(0)});
    Block damaged = device.block(at);
    damaged[60] ^= 0xFF;
    device.write(at, damaged);
    const auto no_change = [] {};
    const auto cut = [&] { std::filesystem::resize_file(device.path(), at); };
    const auto found = live_findings(device, {no_change, cut});
    ASSERT_FALSE(found.empty());
    for (const std::string &finding : found)
        EXPECT_TRUE(finding.starts_with("past_end ")) << finding;
    EXPECT_EQ(std::ranges::count(found, "past_end 5"), 1) << found.size();
}

// What cannot be checked without --live cannot be checked with it.
TEST(CheckLive, FailsWhenTheLastPassCannotBegin)
{
    const SuperV3 sb = super_v3(1, 8);
    const auto at = static_cast<std::uint64_t>(inode_offset(sb, 5));
    Device device = make_v3_device(sb, {brick_v3_used(0)});
    Block damaged = device.block(at);
    damaged[60] ^= 0xFF;
    device.write(at, damaged);
    const auto failure = [&](bool live) {
        std::string error;
        try {
            tierctl::check({.device = device.path(), .live = live, .pause = [&] {
                                std::filesystem::resize_file(device.path(), 5000);
                            }});
        } catch (const std::exception &thrown) {
            error = thrown.what();
        }
        return error;
    };
    const std::string live = failure(true);
    EXPECT_TRUE(live.starts_with("cannot read the super block of " + device.path())) << live;
    EXPECT_EQ(live, failure(false));
}

// A writer may change what is claimed between the looks at a table.
TEST(CheckLive, TablesMayChange)
{
    Device device = extents_device(true);
    const SuperV3 sb = super_v3(1, 1);
    const auto at = static_cast<std::uint64_t>(extent_offset(sb, 2));
    const Block twice = device.block(at);
    const Block once = extents_device(false).block(at);
    const auto put = [&](const Block &block) { return [&] { device.write(at, block); }; };
    EXPECT_EQ(live_findings(device, {put(once), put(twice)}),
              (std::vector<std::string>{"duplicate_extent 499", "duplicate_extent 1011",
                                        "duplicate_extent 2035"}));
}

} // namespace
