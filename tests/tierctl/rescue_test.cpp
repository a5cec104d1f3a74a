// zu_tierctl rescue: the repair file of a super block that is lost, and what is said of it.

#include "cache.h"

#include "bytes.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tier_test;
using Json = nlohmann::ordered_json;

namespace {

const std::vector<std::string> IDENTITY{"uuid", "ssd_uuid", "ctime"};

// A sample of a layout, what its super block says, and a saved file of it.
class Rescue : public testing::TestWithParam<std::string> {
protected:
    const std::string layout = GetParam();
    const std::string version = layout.substr(1);
    Device device = make_sample(sizes(), layout);
    const TempDir directory;
    const std::string path = device.path();
    const std::string saved = directory.path("saved");
    const Block sound = device.block(SUPER_OFFSET);
    const Json truth = Json::parse(dump_of(path, "dump_super"));

    // A small device.
    std::vector<std::string> sizes(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> args{"--block-size", "8192", "--extents", "1024"};
        if (layout != "v3")
            args = {"--block-size", "262144", "--blocks", "64"};
        for (std::size_t i = 0; i < more.size(); i += 2) { // each in place of the usual one
            const auto at = std::ranges::find(args, more[i]);
            if (at != args.end())
                args.erase(at, at + 2);
        }
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }

    void SetUp() override { ASSERT_EQ(run_ctl({"save", path, saved}).status, 0); }

    void lose_super_block() { zero(SUPER_OFFSET, 1); }
    void zero(std::int64_t offset, std::uint64_t blocks)
    {
        device.write(static_cast<std::uint64_t>(offset),
                     std::vector<std::uint8_t>(blocks * BLOCK_SIZE));
    }

    std::string true_ctime() const
    {
        const auto text = truth["ctime"].get<std::string>();
        return text.substr(0, text.find('('));
    }
    std::vector<std::string> identity() const
    {
        return {"--uuid",     truth["uuid"].get<std::string>(),
                "--ssd-uuid", truth["ssd_uuid"].get<std::string>(),
                "--ctime",    true_ctime()};
    }

    RunResult rescue(std::vector<std::string> args = {}) const
    {
        args.insert(args.begin(), "rescue");
        args.push_back(path);
        return run_ctl(args);
    }

    LoggedRun repair(const std::string &file, const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> args{"-v", version, "-f", directory.write("super.json", file)};
        args.insert(args.end(), more.begin(), more.end());
        return run_logged(device, "repair_super", args);
    }

    // The tables but for the hot table, whose entries say nothing.
    struct Place {
        std::int64_t start;
        std::uint64_t count; // blocks
    };
    std::vector<Place> places() const
    {
        const auto number = [this](const char *key) { return truth[key].get<std::uint64_t>(); };
        if (layout == "v3")
            return {{truth["brick_table_offset"], number("brick_cnt")},
                    {truth["inode_table_offset"], number("inode_cnt")},
                    {truth["shard_table_offset"], number("shard_table_cnt") / 512},
                    {truth["extent_table_offset"], number("extent_table_cnt") / 512}};
        const std::uint64_t inodes = 0x101000 + number("brick_table_size");
        return {
            {0x101000, number("brick_cnt")},
            {static_cast<std::int64_t>(inodes), number("inode_cnt")},
            {static_cast<std::int64_t>(inodes + number("inode_table_size")), number("block_cnt")}};
    }

    // What standard error says of a value: "64, likely: the last known …".
    static std::string said_of(const RunResult &run, const std::string &key)
    {
        for (const std::string &line : lines_of(run.err))
            if (line.starts_with("zu_tierctl: " + key + " "))
                return line.substr(key.size() + 13);
        return "";
    }

    // The file has the values of the lost block, but for those that are null in it.
    void expect_right(const RunResult &run, const std::vector<std::string> &unknown) const
    {
        const Json file = Json::parse(run.out);
        for (const auto &[key, value] : file.items()) {
            if (std::ranges::count(unknown, key) != 0) {
                EXPECT_TRUE(value.is_null()) << key;
            } else {
                EXPECT_EQ(value, key == "ctime" ? Json(true_ctime()) : truth[key]) << key;
            }
        }
    }

    // No value that is called certain is another than that of the lost block; gives their number.
    std::size_t expect_certain_ones_right(const RunResult &run) const
    {
        std::size_t certain = 0;
        const Json file = Json::parse(run.out);
        for (const auto &[key, value] : file.items()) {
            if (said_of(run, key).find(", certain: ") == std::string::npos)
                continue;
            EXPECT_EQ(value, truth[key]) << key << run;
            certain++;
        }
        return certain;
    }

    // The file of the run makes the device sound, with the very block that it had.
    void expect_repaired(const RunResult &run)
    {
        EXPECT_EQ(run.status, 0) << run;
        const LoggedRun repaired = repair(run.out, {"-y"});
        EXPECT_EQ(repaired.status, 0) << repaired;
        EXPECT_TRUE(device.block(SUPER_OFFSET) == sound);
        EXPECT_EQ(run_ctl({"check", path}).status, 0);
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, Rescue, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(Rescue, PlaceholdersAreRefused)
{
    lose_super_block();
    const RunResult run = rescue();
    EXPECT_EQ(run.status, 1) << run;
    expect_right(run, IDENTITY);
    for (const std::string &key : IDENTITY) {
        std::string option = "--" + key;
        std::ranges::replace(option, '_', '-');
        EXPECT_EQ(said_of(run, key), "is in no table: the file has null, which zu_tier refuses; "
                                     "give it with " +
                                         option + ", or a saved file of this cache with --like");
    }
    EXPECT_EQ(lines_of(run.err).front(), "zu_tierctl: the block of the super block is all zero");
    for (const std::string &key : IDENTITY) {
        Json file = Json::parse(run.out);
        for (const std::string &other : IDENTITY)
            if (other != key)
                file[other] = other == "ctime" ? Json(true_ctime()) : truth[other];
        const LoggedRun refused = repair(file.dump(), {"-y"});
        EXPECT_EQ(refused.status, 22) << refused;
        EXPECT_EQ(repair(file.dump(), {"-y", "-F"}).status, 22);
    }
    EXPECT_TRUE(device.block(SUPER_OFFSET) == Block{});
}

TEST_P(Rescue, GivenIdentityMakesTheFileWhole)
{
    lose_super_block();
    const RunResult run = rescue(identity());
    for (const std::string &key : IDENTITY)
        EXPECT_TRUE(said_of(run, key).ends_with(", certain: given")) << run;
    EXPECT_NE(run.err.find("\nzu_tierctl: check under it: 0 findings\n"), std::string::npos) << run;
    EXPECT_NE(run.err.find("zu_tierctl: check under it: inode: 64 entries, "), std::string::npos);
    EXPECT_TRUE(run.err.ends_with(
        "zu_tierctl: to repair it, with this file as FILE: zu_tier -l tier.log -p " + path +
        " -c repair_super -v " + version + " -f FILE; with -y it writes\n"))
        << run;
    expect_repaired(run);
}

TEST_P(Rescue, VerificationCanBeLeftOut)
{
    lose_super_block();
    const RunResult run = rescue({"--no-verify"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err.find("check under it"), std::string::npos) << run;
    EXPECT_EQ(run.out, rescue().out);
}

TEST_P(Rescue, SoundBlockNeedsNoOther)
{
    const RunResult run = rescue({"--like", saved});
    EXPECT_EQ(run.out, rescue().out);
    EXPECT_EQ(said_of(run, "inode_cnt"), "64, certain: the block itself, which is sound");
}

TEST_P(Rescue, SoundBlockIsGivenBack)
{
    const RunResult run = rescue();
    EXPECT_EQ(lines_of(run.err).front(), "zu_tierctl: the super block is sound: nothing is lost");
    EXPECT_EQ(said_of(run, "inode_cnt"), "64, certain: the block itself, which is sound");
    expect_right(run, {});
    lose_super_block();
    expect_repaired(run);
}

TEST_P(Rescue, FlippedBitIsMended)
{
    flip(device, SUPER_OFFSET + 50, 0x04);
    const RunResult run = rescue();
    EXPECT_EQ(said_of(run, "inode_cnt"), "64, certain: the block itself, mended") << run;
    EXPECT_NE(lines_of(run.err).front().find("uuid"), std::string::npos) << run;
    expect_repaired(run);
}

// Its magic and numbers are gone: the rest is believed because the tables say the same.
TEST_P(Rescue, WhatIsLeftOfTheBlockIsBelieved)
{
    device.write(SUPER_OFFSET, std::vector<std::uint8_t>(8, 0x5A));
    const RunResult run = rescue();
    EXPECT_EQ(lines_of(run.err).front(),
              "zu_tierctl: the block of the super block is damaged, and its checksum mends no bit "
              "or two");
    for (const std::string &key : IDENTITY)
        EXPECT_TRUE(said_of(run, key).ends_with(", likely: what is left of the block")) << run;
    EXPECT_NE(said_of(run, "inode_cnt").find("; so says what is left of the block"),
              std::string::npos)
        << run;
    EXPECT_EQ(expect_certain_ones_right(run), layout == "v3" ? 18U : layout == "v2" ? 12U : 10U);
    expect_repaired(run);
}

// All that the tables tell agrees with the block, and its checksum fails: the fault is in what no
// table tells. It is well-formed all the same.
TEST_P(Rescue, DamagedIdentityIsNotCertain)
{
    const std::vector<std::tuple<std::string, std::size_t, std::vector<std::uint8_t>>> damages{
        {"ctime", 40, {0x5A, 0xA5, 0x3C}},
        {"uuid", 48, {0xDE, 0xAD, 0xBE, 0xEF}},
        {"ssd_uuid", 64, {'Q', 'x', '7'}}};
    for (const auto &[damaged, at, bytes] : damages) {
        SCOPED_TRACE(damaged);
        device.write(SUPER_OFFSET + at, bytes);
        const RunResult run = rescue();
        EXPECT_EQ(run.status, 1) << run;
        expect_right(run, IDENTITY);
        for (const std::string &key : IDENTITY) {
            const std::string said = said_of(run, key);
            EXPECT_TRUE(said.starts_with("is in no table: the file has null, ")) << said;
            const std::size_t left =
                said.find("--like; not certain: what is left of the block says ");
            EXPECT_NE(left, std::string::npos) << said;
            const std::string value = key == "ctime" ? true_ctime() : truth[key].dump();
            EXPECT_EQ(said.find(value, left) == std::string::npos, key == damaged) << said;
        }
        expect_certain_ones_right(run);
        expect_repaired(rescue(identity()));
        device.write(SUPER_OFFSET + at, bytes);
        expect_repaired(rescue({"--like", saved}));
    }
}

// No table tells where the reserved area of V3 lies.
TEST_P(Rescue, DamagedPlaceIsNotCertain)
{
    if (layout != "v3")
        return;
    device.write(SUPER_OFFSET + 24, std::vector<std::uint8_t>{0x5A, 0xA5, 0x3C});
    const RunResult run = rescue(identity());
    EXPECT_NE(
        said_of(run, "reserved_offset").find(", not certain: so says what is left of the block"),
        std::string::npos)
        << run;
    EXPECT_NE(said_of(run, "reserved_size").find(", likely: "), std::string::npos) << run;
}

// Wrong bits of magic and version are the whole fault: the checksum confirms the rest.
TEST_P(Rescue, DamagedMagicProvesTheIdentity)
{
    flip(device, SUPER_OFFSET + 4, 0x07);
    flip(device, SUPER_OFFSET + 112, 0x10);
    const RunResult run = rescue();
    for (const std::string &key : IDENTITY)
        EXPECT_TRUE(said_of(run, key).ends_with(", likely: what is left of the block")) << run;
    expect_repaired(run);
    flip(device, SUPER_OFFSET + 4, 0x07);
    flip(device, SUPER_OFFSET + 50, 0xFF);
    EXPECT_EQ(rescue().status, 1);
}

TEST_P(Rescue, SimilarDeviceComesBeforeADamagedBlock)
{
    flip(device, SUPER_OFFSET + 24, 0x02);
    flip(device, SUPER_OFFSET + 40, 0x08);
    flip(device, SUPER_OFFSET + 100, 0x04);
    const RunResult run = rescue({"--like", saved});
    EXPECT_NE(run.err.find("\nzu_tierctl: check under it: 0 findings\n"), std::string::npos) << run;
    if (layout == "v3") {
        const auto right = truth["reserved_offset"].get<std::uint64_t>();
        const std::string said = said_of(run, "reserved_offset");
        EXPECT_NE(said.find("; so says " + saved + "; runner-up " + std::to_string(right ^ 2) +
                            ": so says what is left of the block"),
                  std::string::npos)
            << said;
    }
    expect_repaired(run);
}

// Bytes of another cache in the place of the identity. The magic is gone as well.
class RescueOfIdentity : public Rescue {
protected:
    void SetUp() override
    {
        Rescue::SetUp();
        lose_magic();
    }
    void lose_magic() { device.write(SUPER_OFFSET, std::vector<std::uint8_t>(8, 0x5A)); }
    std::string told(const std::string &value, const std::string &source) const
    {
        return "zu_tierctl: uuid: " + source + " says \"" + value + "\", which is not taken\n";
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, RescueOfIdentity, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(RescueOfIdentity, NoiseIsNotBelieved)
{
    for (const std::size_t at : {40U, 48U, 64U}) {
        device.write(SUPER_OFFSET + at, std::vector<std::uint8_t>(at == 40 ? 8 : 16, 0xAB));
        const std::string key = at == 40 ? "ctime" : at == 48 ? "uuid" : "ssd_uuid";
        const RunResult run = rescue();
        EXPECT_EQ(run.status, 1) << run;
        expect_right(run, {key});
        expect_repaired(rescue({"--like", saved}));
        lose_magic();
        device.write(SUPER_OFFSET + at, std::vector<std::uint8_t>(at == 40 ? 8 : 16));
        expect_right(rescue(), {key});
        device.write(SUPER_OFFSET, sound);
        lose_magic();
    }
}

TEST_P(RescueOfIdentity, TheSavedFileComesFirst)
{
    const std::string right = truth["uuid"];
    const Uuid other{0x6F, 0x1B, 0x2F, 0x6E, 0x9C, 0x1C, 0x4F, 0x7E,
                     0x9D, 0x25, 0x3A, 0x1F, 0x0C, 0x5B, 0x7E, 0x11};
    const std::string wrong = uuid_text(other);
    device.write(SUPER_OFFSET + 48, std::vector<std::uint8_t>(other.begin(), other.end()));
    EXPECT_NE(said_of(rescue(), "uuid").find(wrong), std::string::npos);
    RunResult run = rescue({"--like", saved});
    EXPECT_NE(run.err.find(told(wrong, "what is left of the block")), std::string::npos) << run;
    expect_right(run, {});
    run = rescue({"--like", saved, "--uuid", wrong});
    EXPECT_NE(run.err.find(told(right, saved + " is of the same cache")), std::string::npos) << run;
    EXPECT_EQ(Json::parse(run.out)["uuid"], wrong);
    run = rescue({"--uuid", right});
    EXPECT_NE(run.err.find(told(wrong, "what is left of the block")), std::string::npos) << run;
    expect_repaired(run);
}

// The tables say another number of bricks: the block may be of another cache.
TEST_P(RescueOfIdentity, BlockThatContradictsTheTables)
{
    device.write(SUPER_OFFSET + (layout == "v3" ? 136 : 120), std::vector<std::uint8_t>{9});
    const RunResult run = rescue();
    EXPECT_EQ(run.status, 1) << run;
    expect_right(run, IDENTITY);
    EXPECT_NE(said_of(run, "block_cnt").find("; so says what is left of the block"),
              std::string::npos)
        << run;
}

// The extents alone tell V1 from V2.
TEST_P(Rescue, SimilarDeviceDecidesBetweenLayouts)
{
    if (layout == "v3")
        return;
    zero(places()[2].start, places()[2].count);
    lose_super_block();
    const RunResult run = rescue();
    EXPECT_NE(run.err.find("zu_tierctl: layout v1, not certain: it explains 4 bricks, 64 inodes, 0 "
                           "extents; runner-up v2: 4 bricks, 64 inodes, 0 extents\n"),
              std::string::npos)
        << run;
    const RunResult like = rescue({"--like", saved});
    EXPECT_NE(like.err.find("zu_tierctl: layout " + layout + ", likely: "), std::string::npos)
        << like;
    expect_right(like, {});
    device.write(SUPER_OFFSET, sound);
    device.write(SUPER_OFFSET + 64, std::vector<std::uint8_t>(16, 0xAB)); // not its magic
    const RunResult said = rescue();
    EXPECT_NE(said.err.find("zu_tierctl: layout " + layout + ", certain: "), std::string::npos)
        << said;
    expect_right(said, IDENTITY);
    const LoggedRun repaired = repair(like.out, {"-y"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_TRUE(device.block(SUPER_OFFSET) == sound);
}

TEST_P(Rescue, TwoFlippedBitsAreLikely)
{
    flip(device, SUPER_OFFSET + 50, 0x04);
    flip(device, SUPER_OFFSET + 90, 0x40);
    const RunResult run = rescue();
    EXPECT_EQ(said_of(run, "inode_cnt"), "64, likely: the block itself, mended") << run;
    EXPECT_TRUE(said_of(run, "uuid").ends_with(", likely: the block itself, mended")) << run;
    expect_repaired(run);
}

// The tables leave a choice, which what is left of the block makes.
TEST_P(Rescue, BlockDecidesWhatTablesDoNot)
{
    const std::vector<Place> tables = places();
    for (const Place &table : tables)
        zero(table.start + static_cast<std::int64_t>((table.count + 1) / 2 * BLOCK_SIZE),
             table.count / 2);
    device.write(SUPER_OFFSET, std::vector<std::uint8_t>(8, 0x5A));
    const RunResult run = rescue();
    EXPECT_EQ(run.status, 0);
    expect_right(run, {});
    EXPECT_NE(said_of(run, "inode_cnt")
                  .find(", likely: so says what is left of the block, and the tables do not "
                        "contradict it"),
              std::string::npos)
        << run;
    const LoggedRun repaired = repair(run.out, {"-y"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_TRUE(device.block(SUPER_OFFSET) == sound);
}

TEST_P(Rescue, EachTableIsGoneInTurn)
{
    lose_super_block();
    const std::vector<Place> tables = places();
    for (std::size_t gone = 0; gone <= 2 * tables.size(); ++gone) {
        SCOPED_TRACE(gone);
        const TempDir copies;
        const std::string copy = copies.path("copy");
        std::filesystem::copy_file(path, copy);
        std::fstream file(copy, std::ios::in | std::ios::out | std::ios::binary);
        for (std::size_t i = 0; i < tables.size(); ++i) {
            const bool only = gone >= tables.size(); // one is left
            if (gone == 2 * tables.size() || (gone % tables.size() == i) != only) {
                file.seekp(tables[i].start);
                file << std::string(tables[i].count * BLOCK_SIZE, '\0');
            }
        }
        file.close();
        const RunResult run = run_ctl({"rescue", "--no-verify", copy});
        EXPECT_EQ(run.status, 1) << run;
        if (run.out.empty()) {
            EXPECT_EQ(gone, 2 * tables.size()) << run;
            continue;
        }
        expect_certain_ones_right(run);
    }
}

// It is no super block at all, but bytes that happen to be there.
TEST_P(Rescue, NoiseInTheBlockIsNotBelieved)
{
    device.write(SUPER_OFFSET, std::vector<std::uint8_t>(BLOCK_SIZE, 0x7A));
    const RunResult run = rescue();
    EXPECT_EQ(run.status, 1);
    expect_right(run, IDENTITY);
    EXPECT_EQ(run.err.find("left of the block"), std::string::npos) << run;
}

TEST_P(Rescue, LikeASavedFileOfTheSameCache)
{
    lose_super_block();
    const RunResult run = rescue({"--like", saved});
    for (const std::string &key : IDENTITY)
        EXPECT_TRUE(said_of(run, key).ends_with(", likely: " + saved + " is of the same cache"))
            << run;
    EXPECT_NE(said_of(run, "inode_cnt").find("; so says " + saved), std::string::npos);
    expect_repaired(run);
}

TEST_P(Rescue, LikeAnotherCacheGivesNoIdentity)
{
    const Device other = make_sample(sizes({"--seed", "2"}), layout);
    lose_super_block();
    const RunResult run = rescue({"--like", other.path()});
    EXPECT_EQ(run.status, 1);
    expect_right(run, IDENTITY);
    EXPECT_NE(run.err.find("zu_tierctl: " + other.path() + " gives no identity: "),
              std::string::npos)
        << run;
    expect_repaired(rescue([&] {
        std::vector<std::string> args = identity();
        args.insert(args.end(), {"--like", other.path()});
        return args;
    }()));
}

TEST_P(Rescue, LikeAnotherKindIsRefused)
{
    lose_super_block();
    const std::string kind = layout == "v1" ? "v2" : "v1";
    Device other = make_sample({}, kind);
    other.truncate(device.size());
    expect_complaint(rescue({"--like", other.path()}), 1,
                     other.path() + " is of layout " + kind + ", the tables of " + path +
                         " are of " + layout + ": --like needs one of the same layout");
    const Device larger = make_sample({"--blocks", "70"}, layout);
    expect_complaint(rescue({"--like", larger.path()}), 1,
                     larger.path() + " has " + std::to_string(larger.size()) + " bytes, " + path +
                         " has " + std::to_string(device.size()) +
                         ": --like needs one of the same size");
    expect_complaint(rescue({"--like", path}), 1, no_super_block(path));
}

TEST_P(Rescue, HalfOfEachTableIsZero)
{
    const std::vector<Place> tables = places();
    lose_super_block();
    for (const bool second : {false, true}) {
        SCOPED_TRACE(second);
        const TempDir copies;
        const std::string copy = copies.path("copy");
        std::filesystem::copy_file(path, copy);
        std::fstream file(copy, std::ios::in | std::ios::out | std::ios::binary);
        for (const Place &table : tables) {
            const std::uint64_t half = table.count / 2;
            file.seekp(table.start +
                       static_cast<std::int64_t>(second ? (table.count - half) * BLOCK_SIZE : 0));
            file << std::string(half * BLOCK_SIZE, '\0');
        }
        file.close();
        const RunResult run = run_ctl({"rescue", copy});
        EXPECT_EQ(run.status, 1);
        expect_certain_ones_right(run);
        if (!second && layout != "v3") {
            EXPECT_TRUE(said_of(run, "brick_cnt").starts_with("4, likely: ")) << run;
            expect_right(run, IDENTITY);
        }
        EXPECT_NE(said_of(run, "inode_cnt").find(second ? ", not certain: " : "64, "),
                  std::string::npos)
            << run;
    }
}

// The table goes on after some MiB of zeros.
TEST_P(Rescue, HoleInTheExtents)
{
    const bool packed = layout == "v3";
    const Device large =
        make_sample(packed ? sizes({"--extents", "1024000"}) : sizes({"--blocks", "2000"}), layout);
    const Json whole = Json::parse(dump_of(large.path(), "dump_super"));
    const std::int64_t extents = packed ? whole["extent_table_offset"].get<std::int64_t>()
                                        : 0x101000 + whole["brick_table_size"].get<std::int64_t>() +
                                              whole["inode_table_size"].get<std::int64_t>();
    std::fstream file(large.path(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(SUPER_OFFSET);
    file << std::string(BLOCK_SIZE, '\0');
    file.seekp(extents + 300 * std::int64_t{BLOCK_SIZE});
    file << std::string(1200 * BLOCK_SIZE, '\0');
    file.close();
    const RunResult run = run_ctl({"rescue", "--no-verify", large.path()});
    EXPECT_EQ(run.status, 1);
    const Json found = Json::parse(run.out);
    for (const char *key : {"block_cnt", "extent_table_size", "block_size", "data_offset"})
        EXPECT_EQ(found[key], whole[key]) << key << run;
}

TEST_P(Rescue, UnreadableBlocks)
{
    const auto offset = layout == "v3" ? truth["inode_table_offset"].get<std::int64_t>()
                                       : 0x101000 + truth["brick_table_size"].get<std::int64_t>();
    std::string content = read_file(saved);
    content.replace(SUPER_OFFSET, BLOCK_SIZE, BLOCK_SIZE, '\0');
    content.replace(static_cast<std::size_t>(offset) + 8 * BLOCK_SIZE, 32 * BLOCK_SIZE,
                    32 * BLOCK_SIZE, '\0');
    directory.write("saved", content);
    directory.write("saved.unreadable.json",
                    text("[\n"
                         R"({"table":"super","no":0,"count":1,"offset":4096,"error":"I/O"},)"
                         "\n"
                         R"({"table":"inode","no":8,"count":32,"offset":%ld,"error":"I/O"})"
                         "\n]\n",
                         offset + 8 * std::int64_t{BLOCK_SIZE}));
    const RunResult run = run_ctl({"rescue", saved});
    EXPECT_EQ(run.status, 1) << run;
    expect_right(run, IDENTITY);
    EXPECT_EQ(lines_of(run.err).front(), "zu_tierctl: the block of the super block cannot be read: "
                                         "not in the saved file");
    EXPECT_NE(run.err.find(" 0 damaged, 32 unreadable\n"), std::string::npos) << run;
    expect_certain_ones_right(run);
}

// It ends in the middle of its last table.
TEST_P(Rescue, ImageThatWasCutShort)
{
    lose_super_block();
    const auto start = layout == "v3" ? truth["extent_table_offset"].get<std::uint64_t>()
                                      : truth["data_offset"].get<std::uint64_t>() - (3U << 20);
    device.truncate(start + 4 * BLOCK_SIZE);
    const RunResult run = rescue();
    EXPECT_EQ(run.status, 1) << run;
    const Json file = Json::parse(run.out);
    EXPECT_EQ(file["brick_cnt"], truth["brick_cnt"]);
    EXPECT_EQ(said_of(run, "block_cnt").find(", certain"), std::string::npos) << run;
    EXPECT_EQ(said_of(run, "block_size").find(", certain"), std::string::npos) << run;
}

TEST_P(Rescue, BadOptions)
{
    lose_super_block();
    const auto refuses = [this](const std::string &option, const std::string &value,
                                const std::string &why) {
        expect_complaint(rescue({option, value}), 2, option + " " + value + ": " + why);
    };
    refuses("--uuid", "5ef9c224-2659", "expected a UUID");
    refuses("--uuid", "00000000-0000-0000-0000-000000000000", "no cache has the identity 0");
    const std::string ssd = " characters, expected 38, none of them blank, as in "
                            "Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1-51F2P2";
    refuses("--ssd-uuid", "Nr0hl4", "it has 6" + ssd);
    refuses("--ssd-uuid", "Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1 51F2P2", "it has 38" + ssd);
    for (const char last : {'\xff', '\x7f'}) {
        const std::string text = "Nr0hl4-qYVa-CZGl-VzjE-j6RE-uDe1-51F2P";
        expect_complaint(rescue({"--ssd-uuid", text + last}), 2,
                         "--ssd-uuid \"" + text + (last == '\x7f' ? "\\x7f" : "\\xff") +
                             "\": it has 38" + ssd);
    }
    refuses("--ctime", "today", "expected a number of up to 64 bits");
    refuses("--ctime", "1736000000",
            "expected a time from 2010 to 2100, in nanoseconds since the epoch");
    refuses("--ctime", "0x3F00000000000000",
            "expected a time from 2010 to 2100, in nanoseconds since the epoch");
    expect_complaint(rescue({"--like", "/none"}), 1,
                     "cannot open /none: No such file or directory");
}

// As dump_super shows it.
TEST_P(Rescue, TimeOfADump)
{
    lose_super_block();
    std::vector<std::string> args = identity();
    args.back() = truth["ctime"];
    expect_repaired(rescue(args));
}

// What no table is read from.
TEST(RescueOfNoCache, IsRefused)
{
    const TempDir directory;
    const std::string path = directory.path("blank");
    for (const bool noise : {false, true}) {
        std::string content(8U << 20, '\0');
        std::uint32_t state = 1;
        for (char &byte : content)
            byte = noise ? static_cast<char>((state = state * 1664525 + 1013904223) >> 24) : '\0';
        directory.write("blank", content);
        expect_complaint(run_ctl({"rescue", path}), 1,
                         path + " has no super block of a known layout, and no entry of a table "
                                "that can be told without one");
    }
}

// Its super block is sealed, and breaks the rules: the tool refuses what it says.
TEST(RescueOfSealedNonsense, TellsWhatTheToolRefuses)
{
    Device device = make_sample({"--block-size", "262144", "--blocks", "8"});
    SuperV1 sb = super_v1(4, 64, 8);
    sb.block_cnt = 0xFFFFFFFF;
    sb.extent_table_size = ~std::uint64_t{0};
    put_block(device, SUPER_OFFSET, encode(sb));
    const RunResult run = run_ctl({"rescue", device.path()});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(
        run.err.find("zu_tierctl: zu_tier refuses this file as it stands: extent table size("),
        std::string::npos)
        << run;
    EXPECT_NE(run.err.find("zu_tierctl: check under it: 1 bad_extent_table\n"), std::string::npos)
        << run;
}

// The smallest tables, with entries of the test's own.
TEST(RescueOfSmallTables, IsNotTooSure)
{
    for (const std::string &layout : LAYOUTS) {
        SCOPED_TRACE(layout);
        Cache cache = make_cache(layout);
        const Json truth = Json::parse(dump_of(cache.device.path(), "dump_super"));
        cache.device.write(SUPER_OFFSET, std::vector<std::uint8_t>(BLOCK_SIZE));
        const RunResult run = run_ctl({"rescue", cache.device.path()});
        EXPECT_EQ(run.status, 1) << run;
        const Json file = Json::parse(run.out);
        EXPECT_EQ(file["brick_cnt"], truth["brick_cnt"]) << run;
        EXPECT_EQ(file["inode_cnt"], truth["inode_cnt"]) << run;
        for (const auto &[key, value] : file.items()) {
            if (run.err.find("zu_tierctl: " + key + " " + value.dump() + ", certain: ") !=
                std::string::npos) {
                EXPECT_EQ(value, truth[key]) << key << run;
            }
        }
    }
}

// Entries with right checksums and the largest numbers, and sizes that fit nothing.
TEST(RescueOfHostileTables, EndsAndIsNotCertain)
{
    Device device = make_sample({"--inodes", "2", "--blocks", "600"});
    device.write(SUPER_OFFSET, std::vector<std::uint8_t>(BLOCK_SIZE));
    const SuperV1 sb = super_v1(4, 2, 600);
    for (std::uint32_t no = 0; no < 600; ++no) {
        ExtentV1 extent = extent_used(no, no % 2 == 0 ? 0xFFFFFFFF : 1);
        extent.no = no % 3 == 0 ? ~std::uint64_t{0} - no : no;
        extent.size = ~std::uint64_t{0} - no;
        extent.block = 0xFFFFFFFF;
        put_block(device, extent_offset(sb, no), encode(extent, sb.extent_size));
    }
    for (std::uint32_t no = 0; no < 2; ++no) {
        InodeV1 inode = inode_used(no, 0xFFFFFFFF);
        inode.size = ~std::uint64_t{0};
        put_block(device, inode_offset(sb, no), encode(inode));
    }
    const RunResult run = run_ctl({"rescue", device.path()});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_FALSE(run.timed_out);
    EXPECT_EQ(run.err.find("block_size 262144, certain"), std::string::npos) << run;
}

// Two sound blocks of extents, far from each other: what lies between is checked, but it is not
// read again and again for duplicates.
TEST(RescueOfManyEntries, SearchesForNoDuplicates)
{
    const std::string note = "check under it: duplicates were not searched for among so many "
                             "entries\n";
    Device device = make_sample({"--block-size", "8192", "--extents", "512"}, "v3");
    const auto start = Json::parse(dump_of(device.path(), "dump_super"))["extent_table_offset"]
                           .get<std::uint64_t>();
    const Block extents = device.block(start);
    device.write(SUPER_OFFSET, Block{});
    const RunResult few = run_ctl({"rescue", device.path()});
    EXPECT_EQ(few.err.find(note), std::string::npos) << few;
    device.truncate(std::uint64_t{320} << 30);
    device.write(start + (std::uint64_t{257} << 20), extents);
    const RunResult many = run_ctl({"rescue", device.path()});
    EXPECT_NE(many.err.find("extent_table_cnt 33686016, not certain: 65793 blocks"),
              std::string::npos)
        << many;
    EXPECT_NE(many.err.find(note), std::string::npos) << many;
    EXPECT_NE(many.err.find("check under it: extent: 33686016 entries"), std::string::npos) << many;
}

} // namespace
