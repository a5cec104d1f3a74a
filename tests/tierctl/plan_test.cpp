// zu_tierctl plan: a step, or a reason why there is none, for each error of a check.

#include "plans.h"
#include "revert_run.h"
#include "v1_device.h"
#include "v2_device.h"
#include "v3_device.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

using namespace tier_test;
using nlohmann::ordered_json;

namespace {

using Steps = std::vector<ordered_json>;

struct Planned {
    RunResult run;
    ordered_json header;
    Steps steps;
};

Planned plan_of(const std::string &device, const std::vector<std::string> &options = {})
{
    std::vector<std::string> args{"plan", device};
    args.insert(args.end(), options.begin(), options.end());
    Planned planned{run_ctl(args), {}, {}};
    EXPECT_EQ(planned.run.status, 0) << planned.run;
    for (const std::string &line : lines_of(planned.run.out))
        planned.steps.push_back(ordered_json::parse(line));
    EXPECT_FALSE(planned.steps.empty());
    planned.header = planned.steps.front();
    planned.steps.erase(planned.steps.begin());
    return planned;
}

std::string name_of(const ordered_json &step)
{
    return step["table"].get<std::string>() + ' ' + std::to_string(step["no"].get<int>());
}

bool says(const ordered_json &step, const std::string &words)
{
    return step["reason"].get<std::string>().find(words) != std::string::npos;
}

class PlanOf : public Revert {
protected:
    explicit PlanOf(const std::string &layout) : Revert(layout)
    {
        make_sound();
        std::filesystem::remove(saved);
        save();
    }
    PlanOf() : PlanOf(GetParam()) {}

    // The entries of the cache have values that break rules.
    void make_sound()
    {
        constexpr std::uint64_t LARGE = std::uint64_t{1} << 40;
        cache.device.truncate(64 * MIB); // with all of the data area
        if (cache.layout == "v1") {
            InodeV1 inode = inode_used(2, 1);
            inode.size = LARGE;
            put("inode", 2, encode(inode));
            for (const std::uint64_t no : {1, 3}) {
                ExtentV1 extent = extent_used(no, 2);
                extent.size = MIB;
                extent.block = static_cast<std::uint32_t>(no);
                put("extent", no, encode(extent, decode_super(block_of("super", 0)).extent_size));
            }
        } else if (cache.layout == "v2") {
            InodeV2 inode = inode_v2_used(2, 1);
            inode.size = LARGE;
            put("inode", 2, encode(inode));
            for (const std::uint64_t no : {1, 3}) {
                ExtentV2 extent = extent_v2_used(no, 2);
                extent.size = MIB;
                extent.block = static_cast<std::uint32_t>(no);
                extent.maps.clear();
                put("extent", no, encode(extent, decode_super_v2(block_of("super", 0))));
            }
        } else {
            InodeV3 inode = inode_v3_used(2, 1);
            inode.size = LARGE;
            put("inode", 2, encode(inode));
            ShardBlockV3 shards;
            shards.shards = {{.slot = 1, .ino = 2, .index = 7}, {.slot = 511, .ino = 2}};
            put("shard", 1, encode(shards));
            ExtentBlockV3 extents;
            extents.extents = {{.slot = 0, .lba = 1, .shard = 513, .bitmap = 1},
                               {.slot = 100, .lba = 2, .shard = 513, .bitmap = 1}};
            put("extent", 2, encode(extents));
        }
    }

    Planned plan(const std::vector<std::string> &options = {}) const
    {
        return plan_of(cache.device.path(), options);
    }

    // The only step.
    ordered_json step(const std::vector<std::string> &options = {}) const
    {
        const Planned planned = plan(options);
        EXPECT_EQ(planned.steps.size(), 1U) << planned.run;
        return planned.steps.at(0);
    }

    void put(const std::string &table, std::uint64_t no, const Block &block)
    {
        put_block(cache.device, cache.offset(table, no), block);
    }

    // That the step makes this block: by itself, or by the tool from its keys.
    void expect_makes(const ordered_json &step, const Block &block)
    {
        if (step.contains("block")) {
            EXPECT_EQ(step["block"], base64(block));
            EXPECT_TRUE(step["fields"].is_object());
            return;
        }
        const std::string table = step["table"];
        const std::string file = directory.write("keys.json", step["keys"].dump());
        const LoggedRun run = run_logged(cache.device, "repair_" + table, {"-f", file, "-y"});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(block_of(table, step["no"]), block);
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, PlanOf, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

class PlanOfV1 : public PlanOf {
protected:
    PlanOfV1() : PlanOf("v1") {}
};

class PlanOfV3 : public PlanOf {
protected:
    PlanOfV3() : PlanOf("v3") {}
};

TEST_P(PlanOf, NothingToDo)
{
    const Planned planned = plan();
    EXPECT_TRUE(planned.steps.empty()) << planned.run;
    EXPECT_EQ(planned.run.err, "zu_tierctl: 0 steps\n");
    EXPECT_EQ(planned.header["plan"], 1);
    EXPECT_EQ(planned.header["device"], cache.device.path());
    EXPECT_EQ(planned.header["layout"], cache.layout);
    EXPECT_EQ(planned.header["size"], cache.device.size());
    EXPECT_EQ(planned.header["super_block"], base64(block_of("super", 0)));
}

TEST_P(PlanOf, AFlippedBitOfAnyEntryIsMended)
{
    for (const CacheTable &table : cache.tables) {
        if (table.name == "super" || table.name == "hot")
            continue;
        for (std::uint64_t no = 0; no < table.count; ++no) {
            SCOPED_TRACE(table.name + ' ' + std::to_string(no));
            const Block good = block_of(table.name, no);
            flip(cache.device, table.offset(no) + 40, 0x10);
            const Block damaged = block_of(table.name, no);
            const ordered_json mend = step();
            EXPECT_EQ(name_of(mend), table.name + ' ' + std::to_string(no));
            EXPECT_EQ(mend["offset"], table.offset(no));
            EXPECT_EQ(mend["action"], "mend");
            EXPECT_EQ(mend["class"], "certain");
            EXPECT_EQ(mend["lost"], "");
            EXPECT_EQ(mend["crc"], crc32(damaged));
            EXPECT_TRUE(says(mend, "; one flipped bit explains it: ")) << mend;
            EXPECT_FALSE(mend.contains("unreadable"));
            EXPECT_EQ(block_of(table.name, no), damaged);
            expect_makes(mend, good);
            put(table.name, no, good);
        }
    }
}

TEST_P(PlanOf, AZeroedEntryIsCopied)
{
    const Block good = block_of("extent", 1);
    put("extent", 1, {});
    const ordered_json left = step();
    EXPECT_EQ(left["action"], "leave");
    EXPECT_EQ(left["reason"], "it is all zero; a saved file may have it: --from");
    EXPECT_EQ(left.size(), 5U);
    const ordered_json copy = step({"--from", saved});
    EXPECT_EQ(copy["action"], "copy");
    EXPECT_EQ(copy["class"], "likely");
    EXPECT_EQ(copy["reason"], "it is all zero; " + saved + " has it as it was then");
    EXPECT_EQ(copy["lost"], "what has changed in it since it was saved");
    expect_makes(copy, good);
}

// Half of it is lost, but its checksum is still there.
TEST_P(PlanOf, TheChecksumOfASavedEntryProvesIt)
{
    const Block good = block_of("brick", 1);
    Block damaged = good;
    for (std::size_t at = 32; at < 100; ++at)
        damaged[at] = 0xEE;
    put("brick", 1, damaged);
    const ordered_json copy = step({"--from", saved});
    EXPECT_EQ(copy["action"], "copy");
    EXPECT_EQ(copy["class"], "certain");
    EXPECT_TRUE(says(copy, saved + " has the one whose checksum is still stored here")) << copy;
    EXPECT_EQ(copy["lost"], "");
    expect_makes(copy, good);
}

TEST_P(PlanOf, WhatIsSavedConfirmsOrContradictsAMend)
{
    const Block good = block_of("inode", 2);
    flip(cache.device, cache.offset("inode", 2) + 20, 0x10);
    EXPECT_TRUE(says(step({"--from", saved}), "; " + saved + " has the same"));
    put("inode", 2, good);
    edit("inode", 2, 20, 0x01); // newer than what was saved
    const Block newer = block_of("inode", 2);
    flip(cache.device, cache.offset("inode", 2) + 20, 0x10);
    const ordered_json mend = step({"--from", saved});
    EXPECT_EQ(mend["action"], "mend");
    EXPECT_EQ(mend["class"], "certain");
    EXPECT_TRUE(says(mend, "; " + saved + " has another one: ")) << mend;
    expect_makes(mend, newer);
}

TEST_P(PlanOf, ABlockThatCannotBeRead)
{
    const Block good = block_of("inode", 2);
    put("inode", 2, {});
    cache.device.directory().write(
        "device.unreadable.json",
        text(R"([{"table":"inode","no":2,"count":1,"offset":%ld,"error":"x"}])",
             cache.offset("inode", 2)));
    const ordered_json copy = step({"--from", saved});
    EXPECT_EQ(copy["action"], "copy");
    EXPECT_EQ(copy["class"], "likely");
    EXPECT_EQ(copy["unreadable"], true);
    EXPECT_FALSE(copy.contains("crc"));
    EXPECT_NE(step()["action"], "copy");
    expect_makes(copy, good);
}

TEST_P(PlanOf, WhatASavedFileLacks)
{
    put("extent", 1, {});
    const auto at = cache.offset("extent", 1);
    std::fstream file(saved, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(at);
    file << std::string(BLOCK_SIZE, '\0') << std::flush;
    EXPECT_TRUE(says(step({"--from", saved}), saved + " has it damaged, too: "));
    directory.write("saved.unreadable.json",
                    text(R"([{"table":"extent","no":1,"count":1,"offset":%ld,"error":"x"}])", at));
    const ordered_json left = step({"--from", saved});
    EXPECT_EQ(left["action"], "leave");
    EXPECT_EQ(left["reason"], "it is all zero; " + saved + " lacks it: not in the saved file");
}

TEST_P(PlanOf, OnlyWhatIsCertain)
{
    put("extent", 1, {});
    flip(cache.device, cache.offset("inode", 2) + 20, 0x10);
    put("brick", 2, {});
    edit("inode", 3, 70, 0x01); // its number
    const Planned all = plan({"--from", saved});
    EXPECT_EQ(all.steps.size(), 4U);
    EXPECT_EQ(all.run.err, "zu_tierctl: 4 steps: mend 1 certain; copy 3 likely\n");
    const Planned certain = plan({"--from", saved, "--only", "certain"});
    ASSERT_EQ(certain.steps.size(), 1U);
    EXPECT_EQ(name_of(certain.steps[0]), "inode 2");
    EXPECT_EQ(certain.run.err, "zu_tierctl: 1 step: mend 1 certain\n"
                               "zu_tierctl: left out, because not certain: 3 steps\n");
    const Planned alone = plan({"--only", "certain"});
    EXPECT_EQ(alone.steps.size(), 4U);
    EXPECT_EQ(alone.run.err, "zu_tierctl: 1 step: mend 1 certain\n"
                             "zu_tierctl: left as they are: 3; each line \"leave\" says why\n");
    EXPECT_EQ(run_ctl({"plan", cache.device.path(), "--only", "likely"}).status, 2);
}

class AnotherSavedFile : public PlanOf {
protected:
    void expect_no_plan(const std::string &complaint) const
    {
        expect_complaint(run_ctl({"plan", cache.device.path(), "--from", saved}), 1, complaint);
    }

    // Changes the bits of a byte of a field of the super block.
    void edit_super(const std::string &key, std::uint8_t mask)
    {
        edit("super", 0,
             static_cast<std::int64_t>(model(cache.layout[1] - '0', "super").field(key).byte),
             mask);
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, AnotherSavedFile, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(AnotherSavedFile, OfAnotherCache)
{
    edit_super("uuid", 0x18);
    const RunResult run = run_ctl({"plan", cache.device.path(), "--from", saved});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find(saved + " was saved from the cache "), std::string::npos) << run;
}

TEST_P(AnotherSavedFile, UnderAnotherSuperBlock)
{
    edit_super("ctime", 0x01);
    expect_no_plan("the super blocks of " + saved + " and " + cache.device.path() +
                   " differ: checksum, ctime");
}

TEST_P(AnotherSavedFile, OfAnotherLayout)
{
    const Cache other = make_cache(cache.layout == "v1" ? "v2" : "v1");
    expect_complaint(run_ctl({"plan", other.device.path(), "--from", saved}), 1,
                     saved + " is of layout " + cache.layout + ", " + other.device.path() +
                         " of layout " + other.layout);
}

TEST_P(PlanOf, WithoutASuperBlockOtherCommandsHelp)
{
    put("super", 0, {});
    expect_complaint(run_ctl({"plan", cache.device.path()}), 1,
                     no_super_block(cache.device.path()));
}

// A sound entry with values that break a rule is left, whatever is saved.
TEST_F(PlanOfV1, ASoundEntryIsLeft)
{
    edit("extent", 1, 8, 0x01); // its block is that of another
    const Planned planned = plan({"--from", saved});
    for (const ordered_json &step : planned.steps) {
        EXPECT_EQ(step["action"], "leave") << step;
        EXPECT_TRUE(says(step, "its checksum is right: only a person can say what it should be"));
    }
}

constexpr char WITHOUT[] = "--free-lost makes it free";

TEST_F(PlanOfV1, ExtentsOfAnInodeThatIsFree)
{
    put("inode", 2, block_of("inode", 3));
    const SuperV1 sb = decode_super(block_of("super", 0));
    InodeV1 gone;
    gone.no = 2;
    put("inode", 2, encode(gone));
    const Planned left = plan({"--from", saved});
    ASSERT_EQ(left.steps.size(), 2U) << left.run;
    for (const ordered_json &step : left.steps) {
        EXPECT_EQ(step["action"], "leave");
        EXPECT_EQ(step["reason"], std::string("it refers to inode 2, which is free; ") + WITHOUT);
    }
    const Planned planned = plan({"--free-lost"});
    ASSERT_EQ(planned.steps.size(), 2U) << planned.run;
    EXPECT_EQ(planned.run.err, "zu_tierctl: 2 steps: free 2 to decide on\n");
    for (const ordered_json &step : planned.steps) {
        const std::uint64_t no = step["no"];
        EXPECT_EQ(step["action"], "free");
        EXPECT_EQ(step["class"], "none");
        EXPECT_EQ(step["lost"], text("what is cached in extent %lu, written back or not", no));
        ExtentV1 free;
        free.no = no;
        expect_makes(step, encode(free, sb.extent_size));
    }
    EXPECT_TRUE(plan().steps.empty());
}

// The extents end with the shards.
TEST_F(PlanOfV3, ShardsOfAnInodeThatIsFree)
{
    InodeV3 gone;
    gone.no = 2;
    put("inode", 2, encode(gone));
    const Planned left = plan();
    ASSERT_EQ(left.steps.size(), 1U) << left.run;
    EXPECT_EQ(name_of(left.steps[0]), "shard 1");
    EXPECT_TRUE(says(left.steps[0], WITHOUT));
    const Planned planned = plan({"--free-lost"});
    std::set<std::string> names;
    for (const ordered_json &step : planned.steps) {
        EXPECT_EQ(step["action"], "free");
        names.insert(name_of(step));
    }
    EXPECT_TRUE(names.contains("shard 1")) << planned.run;
    EXPECT_GT(names.size(), 1U) << planned.run;
    const auto made = [&](const ordered_json &step) {
        expect_makes(step,
                     step["table"] == "shard" ? encode(ShardBlockV3{}) : encode(ExtentBlockV3{}));
    };
    for (const ordered_json &step : planned.steps)
        made(step);
    EXPECT_TRUE(plan().steps.empty());
}

// Extents that come back refer to what would become free: it stays, and so does what hangs on it.
TEST_F(PlanOfV3, WhatIsFreedHangsTogether)
{
    InodeV3 gone;
    gone.no = 2;
    put("inode", 2, encode(gone));
    ExtentBlockV3 others;
    others.extents = {{.slot = 7, .lba = 9, .shard = 513, .bitmap = 1}};
    put("extent", 1, encode(others));
    const Block good = block_of("extent", 2);
    flip(cache.device, cache.offset("extent", 2) + 40, 0x10);
    std::map<std::string, ordered_json> steps;
    for (const ordered_json &step : plan({"--free-lost"}).steps)
        steps[name_of(step)] = step;
    ASSERT_EQ(steps.size(), 3U);
    EXPECT_EQ(steps["shard 1"]["action"], "leave");
    EXPECT_TRUE(says(steps["shard 1"], "; but with its block extent 1024 (block 2) has an error "
                                       "that is not there now: it refers to shard 513, which is "
                                       "free"))
        << steps["shard 1"];
    EXPECT_EQ(steps["extent 1"]["action"], "leave");
    EXPECT_TRUE(says(steps["extent 1"], "; but not all of what hangs together can become free: "
                                        "carry out the other steps, and plan again"));
    EXPECT_EQ(steps["extent 2"]["action"], "mend");
    expect_makes(steps["extent 2"], good);
    put("extent", 2, good);
    for (const ordered_json &step : plan({"--free-lost"}).steps)
        EXPECT_EQ(step["action"], "free") << step;
    // What was saved is older than that.
    put("extent", 2, {});
    for (const ordered_json &step : plan({"--free-lost", "--from", saved}).steps)
        EXPECT_EQ(step["action"], name_of(step) == "extent 2" ? "leave" : "free") << step;
}

// The inode of a device without damaged extents, to which none belongs.
TEST_F(PlanOfV1, AnInodeIsRestored)
{
    put("inode", 4, {});
    const ordered_json restore = step();
    EXPECT_EQ(restore["action"], "restore");
    EXPECT_EQ(restore["class"], "none");
    EXPECT_EQ(restore["reason"],
              "it is all zero; none of 4 extents belongs to it, and none is doubtful");
    EXPECT_EQ(restore["lost"], "what inode 4 held");
    InodeV1 free;
    free.no = 4;
    expect_makes(restore, encode(free));
}

// Perhaps the super block counts too many.
TEST(PlanOfMany, InodesThatMayNotExistAreNotRestored)
{
    Device device = make_sample({"--inodes", "64", "--blocks", "64"});
    const std::string saved = device.directory().path("saved");
    EXPECT_EQ(run_ctl({"save", device.path(), saved}).status, 0);
    const SuperV1 sb = decode_super(device.block(SUPER_OFFSET));
    for (std::uint64_t no = 40; no < 64; ++no)
        put_block(device, inode_offset(sb, no), {});
    const std::string cause = "zu_tierctl: cause: inode 40..63 are no inodes: inode_cnt 64, the "
                              "last inode found is 39; they are all zero\n";
    const Planned left = plan_of(device.path());
    ASSERT_EQ(left.steps.size(), 24U);
    for (const ordered_json &step : left.steps)
        EXPECT_TRUE(says(step, "perhaps there is no such entry: see the cause that check names"))
            << step;
    EXPECT_EQ(left.run.err, cause + "zu_tierctl: 0 steps\n"
                                    "zu_tierctl: left as they are: 24; each line \"leave\" says "
                                    "why\n");
    const Planned copied = plan_of(device.path(), {"--from", saved});
    EXPECT_EQ(copied.run.err, cause + "zu_tierctl: 24 steps: copy 24 likely\n");
}

TEST(PlanOfMany, TablesOfAnotherLayout)
{
    const Device device = make_sample({"--for-conversion"});
    const RunResult run = run_ctl({"plan", device.path()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(
        run.err.starts_with("zu_tierctl: there is no plan: the tables are those of layout v2: "))
        << run;
}

TEST_F(PlanOfV1, AnInodeThatHasExtentsIsNotRestored)
{
    put("inode", 2, {});
    EXPECT_TRUE(says(step(), "; the layout's restore leaves it: 2 of 4 extents belong to it, the "
                             "first is 1"));
}

TEST_F(PlanOfV1, DoubtfulExtentsMayBelongToAnInode)
{
    put("inode", 4, {});
    put("extent", 0, {});
    const Planned zero = plan();
    ASSERT_EQ(zero.steps.size(), 2U);
    EXPECT_TRUE(says(zero.steps[0],
                     "the layout's restore is not sure that nothing belongs to it: 1 of 4 extents "
                     "are doubtful, the first, 0, is all zero; once they are repaired, plan again"))
        << zero.run;
    flip(cache.device, cache.offset("extent", 0), 0x3F);
    EXPECT_TRUE(says(plan().steps[0], "the first, 0, has another checksum than that computes"));
    put("extent", 0, {});
    cache.device.directory().write(
        "device.unreadable.json",
        text(R"([{"table":"extent","no":0,"count":1,"offset":%ld,"error":"x"}])",
             cache.offset("extent", 0)));
    EXPECT_TRUE(says(plan().steps[0], "the first, 0, cannot be read"));
}

TEST_F(PlanOfV1, ARestoreThatWouldLeaveGarbageInUse)
{
    Block block = block_of("inode", 4);
    for (std::size_t at = 0; at < InodeV1::LENGTH; ++at)
        block[at] = static_cast<std::uint8_t>(0x80 + at);
    put("inode", 4, block);
    const ordered_json left = step();
    EXPECT_EQ(left["action"], "leave");
    EXPECT_TRUE(says(left, "but a restore would leave it in use, with values that nothing proves"));
}

// The restore of this layout is for inodes of an expansion area that is not in use.
TEST(PlanOfV2, Restore)
{
    SuperV2 sb = super_v2(2, 4, 0);
    set_expansion(sb, 25'600, false);
    Device device = make_v2_device(sb, {}, {}, {}, Expansion::FORMATTED);
    put_block(device, inode_offset(sb, 1), {});
    put_block(device, expansion_offset(sb, 7), {});
    const Planned planned = plan_of(device.path());
    std::map<std::string, ordered_json> steps;
    for (const ordered_json &step : planned.steps)
        steps[name_of(step)] = step;
    EXPECT_EQ(steps.at("inode 1")["action"], "leave");
    EXPECT_TRUE(says(steps.at("inode 1"), "; the layout's restore refuses it"));
    EXPECT_EQ(steps.at("inode 11")["action"], "restore") << steps.at("inode 11");
}

// One plan has all of them.
TEST_P(PlanOf, AMiBOfZeroedExtents)
{
    Device device =
        make_sample(cache.layout == "v3" ? std::vector<std::string>{"--extents", "262144"}
                                         : std::vector<std::string>{"--blocks", "512"},
                    cache.layout);
    const std::string whole = device.directory().path("saved");
    EXPECT_EQ(run_ctl({"save", device.path(), whole}).status, 0);
    const Block super = device.block(SUPER_OFFSET);
    const TableModel &extents = model(cache.layout[1] - '0', "extent");
    const auto start = static_cast<std::uint64_t>(slot_offset(extents, super, 0));
    std::vector<Block> good;
    for (std::uint64_t no = 0; no < 256; ++no)
        good.push_back(device.block(start + no * BLOCK_SIZE));
    device.write(start, std::vector<std::uint8_t>(256 * BLOCK_SIZE));
    const Planned planned = plan_of(device.path(), {"--from", whole});
    ASSERT_EQ(planned.steps.size(), 256U);
    EXPECT_EQ(planned.run.err, "zu_tierctl: 256 steps: copy 256 likely\n");
    for (std::uint64_t no = 0; no < 256; ++no) {
        const ordered_json &step = planned.steps[no];
        EXPECT_EQ(step["table"], "extent");
        EXPECT_EQ(step["no"], no);
        if (step.contains("block")) {
            EXPECT_EQ(step["block"], base64(good[no]));
        } else {
            EXPECT_TRUE(step["keys"].is_object());
        }
    }
}

TEST(PlanOfMany, ATableThatIsMisaligned)
{
    SuperV1 sb = super_v1(1, 1, 1);
    Device device = make_v1_device(sb);
    sb.brick_table_size += 512;
    put_block(device, SUPER_OFFSET, encode(sb));
    const Planned planned = plan_of(device.path());
    EXPECT_FALSE(planned.steps.empty());
    bool told = false;
    for (const ordered_json &step : planned.steps) {
        EXPECT_EQ(step["action"], "leave") << step;
        told = told || (name_of(step) == "inode 0" && says(step, "not at multiples of 4096"));
    }
    EXPECT_TRUE(told) << planned.run;
}

// It may be noise that one bit explains by chance.
TEST_F(PlanOfV1, AMendedEntryWithoutAnOwner)
{
    InodeV1 gone;
    gone.no = 2;
    put("inode", 2, encode(gone));
    const Block good = block_of("extent", 1);
    flip(cache.device, cache.offset("extent", 1) + 40, 0x10);
    const Planned planned = plan({"--free-lost"});
    ASSERT_EQ(planned.steps.size(), 2U);
    EXPECT_EQ(planned.steps[0]["class"], "likely");
    EXPECT_TRUE(says(planned.steps[0], ", but it refers to inode 2, which is not in use"));
    expect_makes(planned.steps[0], good);
}

// A copy of an inode whose brick is gone is older than that.
TEST_P(PlanOf, ASavedEntryWhoseOwnerIsGone)
{
    put("inode", 2, {});
    put("brick", 1, {});
    const Planned both = plan({"--from", saved});
    EXPECT_EQ(both.steps.size(), 2U);
    for (const ordered_json &step : both.steps)
        EXPECT_EQ(step["action"], "copy") << step;
    Block gone = block_of("brick", 2);
    const TableModel &bricks = model(cache.layout[1] - '0', "brick");
    put_number(gone, bricks.field(bricks.number), 1);
    seal(bricks, block_of("super", 0), gone);
    put("brick", 1, gone);
    const Planned planned = plan({"--from", saved});
    ASSERT_FALSE(planned.steps.empty());
    EXPECT_EQ(planned.steps[0]["action"], "leave");
    EXPECT_TRUE(says(planned.steps[0],
                     saved + " has one, but it refers to brick 1, which is not in use: it is "
                             "older, and revert copies it all the same"))
        << planned.run;
}

// The file that it belonged to has gone, and another has taken its number.
TEST_P(PlanOf, ASavedEntryWhoseOwnerIsAnotherByNow)
{
    const std::uint64_t no = cache.layout == "v3" ? 2 : 1;
    const std::string owner = cache.layout == "v3" ? "shard 513" : "inode 2";
    const Block good = block_of("extent", no);
    put("extent", no, {});
    EXPECT_EQ(step({"--from", saved})["action"], "copy");
    const auto expect_left = [&] {
        const ordered_json left = step({"--from", saved});
        EXPECT_EQ(left["action"], "leave");
        EXPECT_TRUE(says(left, saved + " has one, but it refers to " + owner +
                                   ", which was another one then: it is older, and revert copies "
                                   "it all the same"))
            << left;
    };
    const TableModel &inodes = model(cache.layout[1] - '0', "inode");
    const auto identity = static_cast<std::int64_t>(inodes.field("uuid").byte);
    edit("inode", 2, identity, 0x18);
    expect_left();
    edit("inode", 2, identity, 0x18);
    EXPECT_EQ(step({"--from", saved})["action"], "copy");
    if (cache.layout == "v3") {
        ShardBlockV3 shards;
        shards.shards = {{.slot = 1, .ino = 2, .index = 8}, {.slot = 511, .ino = 2}};
        put("shard", 1, encode(shards));
        expect_left();
        put("inode", 3, block_of("inode", 2));
        edit("inode", 3, static_cast<std::int64_t>(inodes.field(inodes.number).byte), 1);
        edit("inode", 3, identity, 0x18);
        shards.shards = {{.slot = 1, .ino = 3, .index = 7}, {.slot = 511, .ino = 2}};
        put("shard", 1, encode(shards));
        expect_left();
    }
    if (cache.layout == "v3")
        return;
    // What the checksum proves was there, whoever it belonged to.
    edit("inode", 2, identity, 0x18);
    Block damaged = good;
    damaged[8] ^= 0xFF;
    damaged[9] ^= 0xFF;
    put("extent", no, damaged);
    const ordered_json proven = step({"--from", saved});
    EXPECT_EQ(proven["class"], "certain") << proven;
}

// What has been written since then claims the same: apply would refuse the copy, and refuses it
// from another plan.
TEST_P(PlanOf, ACopyThatWouldBringAnError)
{
    const std::uint64_t no = cache.layout == "v3" ? 2 : 1;
    const Block good = block_of("extent", no);
    std::string error;
    if (cache.layout == "v3") {
        ExtentBlockV3 extents;
        extents.extents = {{.slot = 7, .lba = 1, .shard = 513, .bitmap = 1}};
        put("extent", 1, encode(extents));
        error =
            "its extent 1024 has an error that is not there now: address 1 of shard 513 is also "
            "that of extent 519 (duplicate_extent)";
    } else {
        const TableModel &extents = model(cache.layout[1] - '0', "extent");
        edit("extent", 3, static_cast<std::int64_t>(extents.field("te_block").byte), 2);
        error = "with its block extent 3 has an error that is not there now: block 1 of inode 2 is "
                "also that of extent 1 (duplicate_extent)";
    }
    put("extent", no, {});
    const ordered_json left = step({"--from", saved});
    EXPECT_EQ(left["action"], "leave");
    EXPECT_EQ(left["reason"], "it is all zero; " + saved + " has it as it was then; but " + error);
    EXPECT_EQ(left.size(), 5U);
    const std::string plan_file =
        directory.write("plan", plan_text({cache.layout, cache.device.size(), block_of("super", 0)},
                                          {{"extent", no, cache.offset("extent", no), {}, good}}));
    expect_complaint(run_ctl({"apply", plan_file, cache.device.path(), "--undo",
                              directory.path("undo"), "--commit"}),
                     1, plan_file + text(", line 2, extent %lu: ", no) + error);
    EXPECT_EQ(block_of("extent", no), Block{});
}

TEST_P(PlanOf, AnInodeThatWouldBeThereTwice)
{
    const TableModel &inodes = model(cache.layout[1] - '0', "inode");
    put("inode", 3, block_of("inode", 2));
    edit("inode", 3, static_cast<std::int64_t>(inodes.field(inodes.number).byte), 1);
    put("inode", 2, {});
    const ordered_json left = step({"--from", saved});
    EXPECT_EQ(left["action"], "leave");
    EXPECT_TRUE(says(left, "with its block inode 3 has an error that is not there now: identity "))
        << left;
}

// It is what was there, but its brick has gone; so it is with a free inode, when others refer to
// it.
TEST_P(PlanOf, ACopyAgainstWhatHasHappenedSince)
{
    const Block good = block_of("inode", 2);
    Block damaged = good;
    for (std::size_t at = 20; at < 40; ++at)
        damaged[at] = 0xEE;
    put("inode", 2, damaged);
    EXPECT_EQ(step({"--from", saved})["class"], "certain");
    const Block brick = block_of("brick", 1);
    Block gone = block_of("brick", 2);
    const TableModel &bricks = model(cache.layout[1] - '0', "brick");
    put_number(gone, bricks.field(bricks.number), 1);
    seal(bricks, block_of("super", 0), gone);
    put("brick", 1, gone);
    const ordered_json left = step({"--from", saved});
    EXPECT_EQ(left["action"], "leave");
    EXPECT_TRUE(says(left, saved + " has the one whose checksum is still stored here; but its "
                                   "block has an error that is not there now: it refers to brick "
                                   "1, which is free (inode_of_free_brick)"))
        << left;
    put("brick", 1, brick);
    Block free = block_of("inode", 3);
    const TableModel &inodes = model(cache.layout[1] - '0', "inode");
    put_number(free, inodes.field(inodes.number), 2);
    seal(inodes, block_of("super", 0), free);
    put("inode", 2, free);
    std::filesystem::remove(saved);
    save();
    put("inode", 2, {});
    const ordered_json unused = step({"--from", saved});
    EXPECT_EQ(unused["action"], "leave");
    EXPECT_TRUE(says(unused, "; but with its block "));
    EXPECT_TRUE(says(unused, "it refers to inode 2, which is free"));
}

TEST_P(PlanOf, ASavedEntryWhoseOwnerDoesNotExist)
{
    const std::uint64_t no = cache.layout == "v3" ? 2 : 1;
    const Block good = block_of("extent", no);
    const auto expect_left = [&](const Block &block, const std::string &error) {
        put("extent", no, block);
        std::filesystem::remove(saved);
        save();
        put("extent", no, {});
        const ordered_json left = step({"--from", saved});
        EXPECT_EQ(left["action"], "leave");
        EXPECT_TRUE(says(left, error)) << left;
        put("extent", no, good);
    };
    if (cache.layout == "v3") {
        const auto shards = static_cast<std::uint32_t>(super_v3(3, 5).shard_cnt);
        ExtentBlockV3 extents;
        extents.extents = {{.slot = 7, .shard = shards, .bitmap = 1}};
        expect_left(encode(extents), text("shard %u, which does not exist", shards));
        extents.extents = {{.slot = 7, .shard = 512, .bitmap = 1}};
        expect_left(encode(extents), "shard 512, which is the head of a block");
    } else {
        const TableModel &extents = model(cache.layout[1] - '0', "extent");
        Block block = good;
        put_number(block, extents.field(extents.owner), 70);
        seal(extents, block_of("super", 0), block);
        expect_left(block, "inode 70, which does not exist");
    }
}

// The entry of another slot, under its own right checksum.
TEST_P(PlanOf, WhatLiesInTheWrongSlotIsLost)
{
    put("inode", 3, block_of("inode", 2));
    const ordered_json copy = step({"--from", saved});
    EXPECT_EQ(copy["action"], "copy");
    EXPECT_EQ(copy["lost"], "what lies there, whose checksum is right: wrong is its number; what "
                            "has changed in it since it was saved");
}

// Nothing is freed on the word of a super block that may be wrong.
TEST_P(PlanOf, OwnersThatTheSuperBlockDoesNotCount)
{
    const TableModel &supers = model(cache.layout[1] - '0', "super");
    Block super = block_of("super", 0);
    const Block counted = super;
    put_number(super, supers.field("inode_cnt"), 2);
    if (cache.layout == "v3")
        put_number(super, supers.field("inode_table_size"), 2 * BLOCK_SIZE);
    seal(supers, super, super);
    put("super", 0, super);
    const Planned planned = plan({"--free-lost"});
    EXPECT_FALSE(planned.steps.empty());
    for (const ordered_json &step : planned.steps) {
        EXPECT_EQ(step["action"], "leave") << step;
        EXPECT_TRUE(says(step,
                         "it refers to inode 2, which does not exist; inode 2 is there, sound "
                         "and in use: perhaps the super block counts too few"))
            << step;
    }
    // It is none when it is free, or damaged.
    const Block inode = block_of("inode", 2);
    for (const Block &none : {block_of("inode", 3), Block{}}) {
        put("inode", 2, none);
        const Planned freed = plan({"--free-lost"});
        ASSERT_FALSE(freed.steps.empty());
        for (const ordered_json &step : freed.steps)
            EXPECT_EQ(step["action"], "free") << step;
    }
    put("inode", 2, inode);
    put("super", 0, counted);
    EXPECT_TRUE(plan({"--free-lost"}).steps.empty());
}

TEST_F(PlanOfV1, ASuperBlockThatContradictsItself)
{
    InodeV1 gone;
    gone.no = 2;
    put("inode", 2, encode(gone));
    cache.device.truncate(static_cast<std::uint64_t>(cache.offset("extent", 4)));
    const Planned planned = plan({"--free-lost"});
    ASSERT_EQ(planned.steps.size(), 3U) << planned.run;
    EXPECT_EQ(name_of(planned.steps[0]), "super 0");
    for (const std::size_t i : {1, 2}) {
        EXPECT_EQ(planned.steps[i]["action"], "leave");
        EXPECT_EQ(planned.steps[i]["reason"],
                  "it refers to inode 2, which is free; nothing is freed while the super block "
                  "contradicts itself");
    }
}

// A sealed super block may place tables anywhere; memory does not grow with its numbers.
TEST_F(PlanOfV1, ATablePastTheEndOfTheDevice)
{
    cache.device.truncate(static_cast<std::uint64_t>(cache.offset("extent", 1)));
    const Planned planned = plan({"--from", saved});
    std::vector<std::string> names;
    for (const ordered_json &step : planned.steps) {
        EXPECT_EQ(step["action"], "leave");
        names.push_back(name_of(step));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"super 0", "extent 1"})) << planned.run;
    EXPECT_TRUE(says(planned.steps.back(), "; so it is with 3 slots from this one on"));
}

} // namespace
