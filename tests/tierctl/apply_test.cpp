// zu_tierctl apply and undo: all of a plan or nothing, and back.

#include "apply_run.h"
#include "loop_device.h"
#include "v3_device.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class Apply : public ApplyRuns {};
INSTANTIATE_TEST_SUITE_P(Layout, Apply, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

class ApplyV1 : public ApplyRuns {
protected:
    ApplyV1() : ApplyRuns("v1") {}

    // A line of the plan.
    std::string line(std::size_t no) const { return plan + ", line " + std::to_string(no); }
};

// What diff shows of two images, as lines of fields by entry: "  size: 1 -> 2\n".
std::map<std::string, std::string> fields_of(const std::string &a, const std::string &b)
{
    std::map<std::string, std::string> fields;
    std::string *entry = nullptr;
    for (const std::string &line : lines_of(run_ctl({"diff", "--all", a, b}).out)) {
        if (line.starts_with("  ")) {
            *entry += line + '\n';
        } else {
            entry = &fields[line.substr(0, line.find(','))];
        }
    }
    return fields;
}

TEST_P(Apply, ShowsEachStepAndTheCheckAfterwards)
{
    cache.device.write(0, good);
    fs::copy_file(path, directory.path("sound"));
    const std::string check = run_ctl({"check", path}).out;
    cache.device.write(0, bad);
    auto fields = fields_of(path, directory.path("sound"));
    ASSERT_EQ(fields.size(), 3U);
    steps[1].action = "mend";
    steps[1].certainty = "likely";
    steps[1].lost = "its size";
    write_plan();
    std::string expected;
    for (const PlanStep &step : steps) {
        const std::string name = step.table + ' ' + std::to_string(step.no);
        expected += text("%s at byte %ld\n  ", name.c_str(), step.offset) + step.action + ", " +
                    step.certainty + ": it is sound there\n" +
                    (step.lost.empty() ? "" : "  lost: its size\n") + fields[name];
    }
    const RunResult shown = run_apply();
    EXPECT_EQ(shown.status, 0) << shown;
    EXPECT_EQ(shown.out, expected + "\ncheck afterwards:\n" + check);
    EXPECT_EQ(shown.err, UNCOMMITTED);
    expect_device(bad);
    EXPECT_EQ(names_in(directory), (std::vector<std::string>{"plan", "sound"}));
    const RunResult done = run_apply({"--commit"});
    expect_done(done, good);
    EXPECT_EQ(done.out, expected + "written\n");
}

TEST_P(Apply, TheWayBackAndOn)
{
    expect_done(run_apply({"--commit"}), good);
    EXPECT_EQ(directory.read("undo"), undo_file(planned(), plan_text(planned(), steps), steps));
    const auto fields = run_apply({});
    EXPECT_EQ(fields.out, "");
    EXPECT_EQ(fields.err, "zu_tierctl: nothing to do: every block is as the plan makes it\n");
    const RunResult shown = run_undo();
    EXPECT_EQ(shown.status, 0) << shown;
    EXPECT_TRUE(shown.out.starts_with(text("brick 1 at byte %ld\n", cache.offset("brick", 1))))
        << shown;
    EXPECT_EQ(shown.err, UNCOMMITTED);
    expect_device(good);
    expect_done(run_undo({"--commit"}), bad);
    EXPECT_EQ(run_undo({"--commit"}).err,
              "zu_tierctl: nothing to do: every block that could be read before is as it was\n");
    expect_done(run_apply({"--commit"}), good);
}

// That no block changes does not mean that every block is sound.
TEST_P(Apply, APlanWithoutSteps)
{
    directory.write("plan", plan_text(planned(), {}));
    const auto expect_text = [&](const std::string &expected) {
        for (const auto &options : {std::vector<std::string>{}, {"--commit"}}) {
            const RunResult run = run_apply(options);
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_EQ(run.out, "");
            EXPECT_EQ(run.err, "zu_tierctl: the plan has no steps" + expected + '\n');
        }
        EXPECT_FALSE(fs::exists(undo));
        expect_device(bad);
    };
    expect_text("");
    const std::string header = directory.read("plan");
    const auto left = [&](std::size_t step) {
        return text(R"({"table":"%s","no":%lu,"offset":%ld,"action":"leave","reason":"why"})"
                    "\n",
                    steps[step].table.c_str(), steps[step].no, steps[step].offset);
    };
    directory.write("plan", header + left(0));
    expect_text("; 1 entry is left");
    directory.write("plan", header + left(0) + left(1) + left(2));
    expect_text("; 3 entries are left");
}

TEST_P(Apply, OnlyWhatIsNamedIsUndone)
{
    expect_done(run_apply({"--commit"}), good);
    auto expected = good;
    const auto place_2 = static_cast<std::ptrdiff_t>(place("inode", 2));
    std::copy_n(bad.begin() + place_2, BLOCK_SIZE, expected.begin() + place_2);
    expect_undo_refused("inode 3 is not in " + undo, 2, {"inode", "2,3"});
    std::string tables;
    for (const CacheTable &table : cache.tables)
        tables += ", " + table.name;
    expect_undo_refused("there is no table node, but " + tables.substr(2), 2, {"node", "2"});
    expect_undo_refused("NO is required", 2, {"inode"});
    expect_undo_refused("there is no table , but " + tables.substr(2), 2, {"", "2"});
    if (cache.layout == "v3") { // an entry by its own number
        const RunResult named = run_undo({"extent:7"});
        EXPECT_EQ(named.status, 0) << named;
        EXPECT_TRUE(named.err.starts_with("zu_tierctl: extent 7 is in block 0\n")) << named;
    }
    expect_done(run_undo({"inode", "2", "--commit"}), expected);
    expect_done(run_undo({"--commit"}), bad);
}

// A block is in part old and in part new, wherever the power failed.
TEST_P(Apply, FromTheMiddleOfAWrite)
{
    expect_done(run_apply({"--commit"}), good);
    std::mt19937 random(16);
    for (const bool back : {false, true}) {
        for (int turn = 0; turn < 8; ++turn) {
            for (const PlanStep &step : steps) {
                Block torn = step.before;
                for (std::size_t sector = 0; sector < BLOCK_SIZE; sector += 512)
                    if (random() % 2 == 0)
                        std::copy_n(&step.after[sector], 512, &torn[sector]);
                cache.device.write(static_cast<std::uint64_t>(step.offset), torn);
            }
            const auto torn = cache.device.bytes();
            if (torn != (back ? bad : good))
                expect_done(back ? run_undo({"--commit"}) : run_apply({"--commit"}),
                            back ? bad : good);
        }
    }
}

TEST_P(Apply, WhatSomethingElseHasChanged)
{
    const PlanStep &step = steps[2];
    const std::string name = step.table + ' ' + std::to_string(step.no);
    for (const std::size_t at : {0, 300, 4095}) {
        Block other = step.before;
        other[at] ^= 0x10;
        put_block(cache.device, step.offset, other);
        expect_refused(plan + ", line 4, " + name + ": its block of " + path +
                       " has changed since the plan was made");
    }
    cache.device.write(0, bad);
    expect_done(run_apply({"--commit"}), good);
    for (const Block &block : {step.before, step.after}) {
        Block other = block;
        other[700] ^= 0x10;
        put_block(cache.device, step.offset, other);
        const std::string complaint =
            text("%s at byte %ld of ", name.c_str(), step.offset) + path +
            " is neither as it was before nor as it was to be: something else has changed it";
        const auto found = cache.device.bytes();
        for (const bool back : {false, true}) {
            const RunResult run = back ? run_undo({"--commit"}) : run_apply({"--commit"});
            EXPECT_EQ(run.status, 1) << run;
            EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
            EXPECT_EQ(run.out, "");
            expect_device(found);
        }
    }
}

// Steps that are done already, by whatever means, are left alone.
TEST_P(Apply, WhatIsAsItShallBe)
{
    put_block(cache.device, steps[1].offset, steps[1].after);
    const auto before = cache.device.bytes();
    expect_done(run_apply({"--commit"}), good);
    EXPECT_EQ(directory.read("undo"),
              undo_file(planned(), directory.read("plan"), {steps[0], steps[2]}));
    expect_done(run_undo({"--commit"}), before);
    fs::remove(undo);
    cache.device.write(0, good);
    for (const auto &options : {std::vector<std::string>{}, {"--commit"}}) {
        const RunResult run = run_apply(options);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "zu_tierctl: nothing to do: every block is as the plan makes it\n");
    }
    expect_device(good);
    EXPECT_FALSE(fs::exists(undo));
}

TEST_P(Apply, OtherDevices)
{
    const TableModel &super = model(cache.layout[1] - '0', "super");
    std::vector<std::string> fields{"uuid", "inode_cnt", "version"};
    fields.emplace_back(cache.layout == "v1"   ? "extent_size"
                        : cache.layout == "v2" ? "total_extent_size"
                                               : "extent_table_offset");
    for (const std::string &field : fields) {
        SCOPED_TRACE(field);
        Block super_block = block_of("super", 0);
        super_block[super.field(field).byte] ^= 1;
        seal(super, super_block, super_block);
        const PlannedDevice another{cache.layout, cache.device.size(), super_block};
        directory.write("undo", undo_file(another, "", steps));
        expect_undo_refused(is_other(undo));
        fs::remove(undo);
    }
    PlannedDevice larger = planned();
    larger.size += BLOCK_SIZE;
    const auto has = [&](const std::string &file) {
        return path + text(" has %lu bytes, the device of ", cache.device.size()) + file +
               text(" has %lu", larger.size);
    };
    directory.write("undo", undo_file(larger, "", steps));
    expect_undo_refused(has(undo));
    fs::remove(undo);
    directory.write("plan", plan_text(larger, steps));
    expect_refused(has(plan));
}

// What else has changed in the super block, as a time, makes the plan an old one, but does not bar
// the way back, or on, from what was begun.
TEST_P(Apply, AnotherTimeInTheSuperBlock)
{
    const std::string whole = directory.read("plan");
    const auto change = [this](std::vector<std::uint8_t> &bytes) {
        Block block = block_of("super", 0);
        const TableModel &super = model(cache.layout[1] - '0', "super");
        block[super.field("ctime").byte] ^= 0x10;
        seal(super, block, block);
        std::ranges::copy(block, bytes.begin() + SUPER_OFFSET);
        cache.device.write(SUPER_OFFSET, block);
    };
    expect_done(run_apply({"--commit"}), good);
    change(bad);
    const std::string begun = directory.read("undo");
    fs::remove(undo);
    expect_refused(is_other(plan));
    directory.write("undo", begun);
    expect_done(run_undo({"--commit"}), bad);
    const std::string longer = path; // the device has grown
    fs::resize_file(longer, bad.size() + 8 * BLOCK_SIZE);
    EXPECT_EQ(run_undo({"--commit"}).status, 0);
}

// Keys, given to the tool's own parser

// What zu_tier makes of the same repair files.
TEST_P(Apply, BlocksOfKeys)
{
    auto expected = bad;
    for (PlanStep &step : steps) {
        cache.device.write(0, good);
        const RunResult keys = run_ctl({"template", path, step.table, std::to_string(step.no)});
        ASSERT_EQ(keys.status, 0) << keys;
        step.keys = nlohmann::ordered_json::parse(keys.out).dump();
        const RunResult repaired =
            run_logged(cache.device, "repair_" + step.table,
                       {"-y", "-f", cache.device.directory().write("keys", keys.out)});
        ASSERT_EQ(repaired.status, 0) << repaired;
        const Block block = block_of(step.table, step.no);
        std::ranges::copy(block, expected.begin() + step.offset);
    }
    cache.device.write(0, bad);
    write_plan();
    expect_done(run_apply({"--commit"}), expected);
    expect_done(run_undo({"--commit"}), bad);
}

TEST_P(Apply, KeysOfAnotherEntry)
{
    cache.device.write(0, good);
    const std::string other = "2";
    const RunResult keys = run_ctl({"template", path, "extent", other});
    steps[2].keys = nlohmann::ordered_json::parse(keys.out).dump();
    write_plan();
    cache.device.write(0, bad);
    expect_refused(plan + ", line 4, extent " + std::to_string(steps[2].no) +
                   text(": its keys are those of the block at byte %ld, not at %ld",
                        cache.offset("extent", std::stoul(other)), steps[2].offset));
}

TEST_F(ApplyV1, KeysThatTheToolRefuses)
{
    steps[1].keys = R"({"i_no":2,"i_use":1})";
    write_plan();
    const RunResult refused = run_apply({"--commit"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(
        refused.err.starts_with("zu_tierctl: " + line(3) + ", inode 2: zu_tier refuses its keys: "))
        << refused;
    expect_device(bad);
    EXPECT_FALSE(fs::exists(undo));
}

// The tool makes up another identity of a free brick each time: the undo file has the one that an
// interrupted run has begun to write.
TEST_F(ApplyV1, AnIdentityThatIsMadeUp)
{
    cache.device.write(0, good);
    const RunResult keys = run_ctl({"template", path, "brick", "0"});
    ASSERT_EQ(keys.status, 0) << keys;
    damage("brick", 0, 4);
    const auto damaged = cache.device.bytes();
    steps = {steps.back()};
    steps[0].keys = nlohmann::ordered_json::parse(keys.out).dump();
    write_plan();
    ASSERT_EQ(run_apply({"--commit"}).status, 0);
    const auto done = cache.device.bytes();
    EXPECT_NE(block_of("brick", 0), steps[0].after);
    EXPECT_EQ(run_apply({"--commit"}).err,
              "zu_tierctl: nothing to do: every block is as the plan makes it\n");
    expect_done(run_undo({"--commit"}), damaged);
    expect_done(run_apply({"--commit"}), done);
}

// Plans that were edited into nonsense

TEST_P(Apply, BlocksThatAreNoSoundEntries)
{
    const TableModel &inode = model(cache.layout[1] - '0', "inode");
    const Block super_block = block_of("super", 0);
    const Block sound = steps[1].after;
    const auto refused = [&](const Block &block, const std::string &why) {
        steps[1].after = block;
        write_plan();
        expect_refused(plan + ", line 3, inode 2: its block" + why);
    };
    refused({}, " is damaged itself: magic, number, checksum");
    Block block = sound;
    block[60] ^= 1;
    refused(block, " is damaged itself: checksum");
    block = sound;
    put_u32(block, 4, 0x1234);
    seal(inode, super_block, block);
    refused(block, " is damaged itself: magic");
    block = sound;
    put_number(block, inode.field(inode.number), 3);
    seal(inode, super_block, block);
    refused(block, " is damaged itself: number");
    block = sound;
    put_number(block, inode.field(inode.owner), 3);
    seal(inode, super_block, block);
    refused(block,
            " has an error that is not there now: it refers to brick 3, which does not exist "
            "(inode_of_missing_brick)");
    // What is free refers to nothing, but something refers to it.
    put_number(block, inode.field(inode.use), 0);
    seal(inode, super_block, block);
    steps[1].after = block;
    write_plan();
    const RunResult owner = run_apply({"--commit"});
    EXPECT_EQ(owner.status, 1);
    EXPECT_TRUE(owner.err.starts_with("zu_tierctl: " + plan + ", line 3, inode 2: with its block "))
        << owner;
    EXPECT_NE(
        owner.err.find(" has an error that is not there now: it refers to inode 2, which is free"),
        std::string::npos)
        << owner;
    put_number(block, inode.field(inode.number), 4);
    seal(inode, super_block, block);
    zero("inode", 4);
    steps.back().after = block;
    steps = {steps.back()};
    write_plan();
    EXPECT_EQ(run_apply().status, 0);
}

// Packed entries, each by itself. An error that an entry has already may stay.
TEST(ApplyV3, BlocksWithErrors)
{
    Cache cache = make_cache("v3");
    const auto shards = static_cast<std::uint32_t>(super_v3(3, 5).shard_cnt);
    const TempDir directory;
    const std::string plan = directory.path("plan");
    const std::string undo = directory.path("undo");
    const auto place = static_cast<std::uint64_t>(cache.offset("extent", 2));
    const auto run_with = [&](const ExtentBlockV3 &now, const ExtentBlockV3 &then) {
        cache.device.write(place, encode(now));
        const PlannedDevice device{"v3", cache.device.size(), cache.device.block(SUPER_OFFSET)};
        const PlanStep step{"extent", 2, cache.offset("extent", 2), encode(now), encode(then)};
        directory.write("plan", plan_text(device, {step}));
        return run_ctl({"apply", plan, cache.device.path(), "--undo", undo});
    };
    const ExtentBlockV3 sound{{{.slot = 7, .lba = 5, .shard = 513, .bitmap = 1}}};
    const auto refused = [&](const ExtentBlockV3 &then, const std::string &error) {
        expect_complaint(run_with(sound, then), 1,
                         plan + ", line 2, extent 2: its extent " + error);
        EXPECT_EQ(run_with(then, {{then.extents.front(), sound.extents.front()}}).status, 0);
        // The same error of another entry, or of a block with a wrong checksum, excuses nothing.
        ExtentBlockV3 others = then;
        others.extents.front().slot = 400;
        EXPECT_EQ(run_with(others, then).status, 1);
        EXPECT_EQ(run_with(sound, sound).status, 0);
        Block damaged = encode(then);
        for (std::size_t at = 4000; at < 4010; ++at)
            damaged[at] ^= 0x55;
        cache.device.write(place, damaged);
        const PlannedDevice device{"v3", cache.device.size(), cache.device.block(SUPER_OFFSET)};
        directory.write("plan", plan_text(device, {{"extent", 2, cache.offset("extent", 2), damaged,
                                                    encode(then)}}));
        EXPECT_EQ(run_ctl({"apply", plan, cache.device.path(), "--undo", undo}).status, 1);
    };
    refused({{{.slot = 1, .shard = shards, .bitmap = 1}}},
            text("%u has an error that is not there now: it refers to shard %u, which does not "
                 "exist (extent_of_missing_shard)",
                 2 * 512 + 1, shards));
    refused({{{.slot = 511, .dirty = 1, .in_use = 0}}},
            text("%u has an error that is not there now: it is free, but dirty: not yet written "
                 "back (free_but_dirty)",
                 2 * 512 + 511));
    refused({{{.slot = 2, .shard = 513, .dirty = 1}}},
            text("%u has an error that is not there now: it is dirty, but its bitmap is empty: "
                 "there is nothing to write back "
                 "(dirty_but_empty)",
                 2 * 512 + 2));
    // What is only odd is written.
    EXPECT_EQ(run_with(sound, {{{.slot = 2, .shard = 513, .dm_err = 1}}}).status, 0);
}

// Of a super block with sizes that no entry can have.
TEST(ApplyV2, EntriesThatDoNotFitTheirSlots)
{
    Cache cache = make_cache("v2");
    const TableModel &super = model(2, "super");
    Block super_block = cache.device.block(SUPER_OFFSET);
    put_number(super_block, super.field("total_extent_size"), 8192);
    seal(super, super_block, super_block);
    cache.device.write(SUPER_OFFSET, super_block);
    const TempDir directory;
    const std::int64_t offset = cache.offset("extent", 0);
    const Block block = cache.device.block(static_cast<std::uint64_t>(offset));
    const std::string plan =
        directory.write("plan", plan_text({"v2", cache.device.size(), super_block},
                                          {{"extent", 0, offset, block, block}}));
    expect_complaint(
        run_ctl({"apply", plan, cache.device.path(), "--undo", directory.path("undo")}), 1,
        plan + ", line 2: entries of extent do not fit their slots");
}

TEST_F(ApplyV1, LinesThatAreNoSteps)
{
    const std::string whole = directory.read("plan");
    const auto refused = [&](const std::string &from, const std::string &to,
                             const std::string &complaint) {
        std::string edited = whole;
        const std::size_t at = edited.find(from, edited.find("\"inode\""));
        ASSERT_NE(at, std::string::npos) << from;
        directory.write("plan", edited.replace(at, from.size(), to));
        expect_refused(line(3) + ": " + complaint);
    };
    refused("\"no\":2", "\"no\":3",
            text("offset is %ld, but inode 3 lies at %ld", cache.offset("inode", 2),
                 cache.offset("inode", 3)));
    refused("\"no\":2", "\"no\":5", "there is no inode 5: the table has 5 slots");
    refused("\"inode\"", "\"node\"", "table \"node\" is unknown in layout v1");
    refused("\"copy\"", "\"steal\"", "action \"steal\" is unknown");
    refused("\"lost\":\"\",", "", "lost is missing");
}

// The second would write over what the first has written, and undo could take back neither.
TEST(ApplyV3, StepsOfOneBlock)
{
    Cache cache = make_cache("v3");
    const TableModel &super = model(3, "super");
    const TempDir directory;
    const auto expect_refused = [&](const std::string &field, const std::string &value_of,
                                    std::uint64_t value, const std::vector<std::string> &tables,
                                    const std::string &complaint) {
        SCOPED_TRACE(value_of);
        Block super_block = cache.device.block(SUPER_OFFSET);
        put_number(super_block, super.field(field), value);
        seal(super, super_block, super_block);
        std::vector<PlanStep> steps;
        for (const std::string &table : tables)
            steps.push_back({table, 0, static_cast<std::int64_t>(value), {}, {}});
        const std::string plan =
            directory.write("plan", plan_text({"v3", cache.device.size(), super_block}, steps));
        Device device(cache.device.size());
        device.write(0, cache.device.bytes());
        device.write(SUPER_OFFSET, super_block);
        const auto before = device.bytes();
        expect_complaint(
            run_ctl({"apply", plan, device.path(), "--commit", "--undo", directory.path("undo")}),
            1, plan + complaint);
        EXPECT_TRUE(device.bytes() == before);
        EXPECT_FALSE(fs::exists(directory.path("undo")));
    };
    const auto shards = static_cast<std::uint64_t>(cache.offset("shard", 0));
    expect_refused("extent_table_offset", "two tables", shards, {"shard", "extent"},
                   text(", line 3: another step writes the block at %lu already", shards));
    expect_refused("brick_table_offset", "the super block", SUPER_OFFSET, {"brick"},
                   ", line 2: the super block lies there");
}

// A line twice: the first would be written over.
TEST_F(ApplyV1, AStepTwice)
{
    steps.push_back(steps[1]);
    write_plan();
    expect_refused(line(5) + ": inode 2 has a step already");
}

TEST_F(ApplyV1, StepsThatAreLeftOut)
{
    steps[0].action = "leave";
    steps[2].action = "leave";
    write_plan();
    auto expected = bad;
    const auto inode = static_cast<std::ptrdiff_t>(place("inode", 2));
    std::copy_n(good.begin() + inode, BLOCK_SIZE, expected.begin() + inode);
    expect_done(run_apply({"--commit"}), expected);
    EXPECT_EQ(directory.read("undo"), undo_file(planned(), directory.read("plan"), {steps[1]}));
}

// The undo file

TEST_F(ApplyV1, UndoFilesOfSomethingElse)
{
    expect_done(run_apply({"--commit"}), good);
    cache.device.write(0, bad);
    const std::string whole = directory.read("plan");
    directory.write("plan", whole + "\n");
    expect_refused(undo + " is the undo file of another plan than " + plan +
                   ": --undo needs a new name");
    std::string as_long = whole;
    as_long.replace(whole.find("sound"), 5, "known");
    directory.write("plan", as_long);
    expect_refused(undo + " is the undo file of another plan than " + plan +
                   ": --undo needs a new name");
    directory.write("plan", whole);
    PlanStep more = steps[1];
    more.no = 3;
    more.offset = cache.offset("inode", 3);
    const std::string undo_of_this = directory.read("undo");
    directory.write("undo", undo_file(planned(), whole, {steps[0], more}));
    expect_refused(undo + " has inode 3, of which " + plan + " has no step");
    directory.write("undo", undo_of_this);
    std::string undo_of_another = directory.read("undo");
    fs::remove(undo);
    for (const std::string &other : {path, plan}) {
        const auto before = cache.device.bytes();
        for (const auto &options : {std::vector<std::string>{}, {"--commit"}})
            expect_complaint(run({"apply", plan, path, "--undo", other}, options), 1,
                             other + " is no undo file");
        expect_device(before);
    }
    EXPECT_EQ(directory.read("plan"), whole);
    const PlannedDevice other{"v1", cache.device.size() + 1, block_of("super", 0)};
    directory.write("undo", undo_file(other, whole, {steps[0]}));
    expect_refused(path + text(" has %lu bytes, the device of ", cache.device.size()) + undo +
                   text(" has %lu", other.size));
}

// Whatever an undo file with right checksums says, only slots of the tables are read or written.
TEST_F(ApplyV1, UndoFilesOfSlotsThatAreNone)
{
    const auto refused = [&](const std::string &table, std::uint64_t no, std::int64_t offset,
                             const std::string &why) {
        PlanStep step = steps[1];
        step.table = table;
        step.no = no;
        step.offset = offset;
        directory.write("undo", undo_file(planned(), directory.read("plan"), {steps[0], step}));
        const std::string complaint =
            undo + " has " + table + text(" %lu at byte %ld: ", no, offset) + why;
        expect_undo_refused(complaint);
        expect_refused(complaint);
    };
    const std::int64_t place = steps[1].offset;
    refused("inode", 2, place + 4096,
            text("offset is %ld, but inode 2 lies at %ld", place + 4096, place));
    refused("inode", 5, cache.offset("inode", 5), "there is no inode 5: the table has 5 slots");
    refused("inode", ~std::uint64_t{0}, place,
            "there is no inode 18446744073709551615: the table has 5 slots");
    refused("node", 2, place, "there is no table node, but super, brick, inode, extent");
    refused("brick", 2, -4096,
            text("offset is -4096, but brick 2 lies at %ld", cache.offset("brick", 2)));
    refused("super", 0, SUPER_OFFSET, "the super block lies there");
}

TEST_F(ApplyV1, UndoFilesThatAreDamaged)
{
    expect_done(run_apply({"--commit"}), good);
    const std::string whole = directory.read("undo");
    const auto refused = [&](const std::string &content, const std::string &why) {
        directory.write("undo", content);
        expect_undo_refused(undo + ' ' + why);
        expect_refused(undo + ' ' + why);
    };
    refused("", "is no undo file");
    refused(whole.substr(0, 63), "is no undo file");
    const std::string cut = "is damaged: it has another size than its head says";
    refused(whole.substr(0, 64), cut);
    refused(whole.substr(0, whole.size() - 1), cut);
    refused(whole.substr(0, whole.size() - 8256), cut);
    refused(whole + '\0', cut);
    std::string flipped = whole;
    flipped[100] = static_cast<char>(flipped[100] ^ 8);
    refused(flipped, "is damaged: its checksum does not match its content");
    // The old block of a change, which the way on does not need, and the new one.
    const std::size_t changes = 64 + 4096 + directory.read("plan").size();
    for (const std::size_t at : {changes + 64, changes + 64 + 4096}) {
        flipped = whole;
        flipped[at] = static_cast<char>(flipped[at] ^ 8);
        refused(flipped, "is damaged: the checksum of a block does not match its content");
    }
    flipped = whole;
    flipped.back() = static_cast<char>(flipped.back() ^ 8);
    refused(flipped, "is damaged: the checksum of a block does not match its content");
}

TEST_F(ApplyV1, UndoFilesThatCannotBeMadeOrRead)
{
    const auto refused = [&](const std::string &file, const std::string &complaint) {
        for (const auto &options : {std::vector<std::string>{}, {"--commit"}})
            expect_complaint(run({"apply", plan, path, "--undo", file}, options), 1, complaint);
        expect_device(bad);
    };
    refused(directory.path("plan/undo"),
            "cannot create " + directory.path("plan/undo") + ": Not a directory");
    refused(directory.path(""), directory.path("") + " is no undo file");
    refused("/dev/null", "/dev/null is no undo file");
    fs::create_symlink("nowhere", directory.path("link"));
    refused(directory.path("link"), directory.path("link") + " exists");
    const RunResult none =
        run({"apply", plan, path, "--undo", directory.path("none/undo")}, {"--commit"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "zu_tierctl: cannot create " + directory.path("none/undo") +
                            ": No such file or directory\n");
    expect_complaint(run_ctl({"undo", directory.path("none"), path}), 1,
                     "cannot open " + directory.path("none") + ": No such file or directory");
    expect_complaint(run_ctl({"apply", plan, path}), 2, "--undo is required");
    for (const auto &options : {std::vector<std::string>{}, {"--commit"}})
        expect_complaint(run({"apply", plan, path, "--undo", ""}, options), 2,
                         "--undo needs the name of a file");
    expect_device(bad);
}

// No room for the undo file: nothing is written to the device, and nothing is left.
TEST_F(ApplyV1, ADiskThatIsFull)
{
    const std::string full = directory.path("full");
    fs::create_directory(full);
    if (run_program("/bin/mount", {"-t", "tmpfs", "-o", "size=8k", "none", full}).status != 0)
        GTEST_SKIP() << "no right to mount";
    const RunResult run = run_ctl({"apply", plan, path, "--undo", full + "/undo", "--commit"});
    EXPECT_TRUE(fs::is_empty(full));
    EXPECT_EQ(run_program("/bin/umount", {full}).status, 0);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "zu_tierctl: cannot write " + full + "/undo: No space left on device\n");
    expect_device(bad);
}

// The device

TEST_F(ApplyV1, ADeviceThatShrinks)
{
    expect_done(run_apply({"--commit"}), good);
    const std::uint64_t size = cache.device.size();
    fs::resize_file(path, size - 4096);
    const auto has = [&](const std::string &file) {
        return path + text(" has %lu bytes, the device of ", size - 4096) + file +
               text(" has %lu", size);
    };
    expect_undo_refused(has(undo));
    expect_refused(has(plan));
    fs::resize_file(path, 4096);
    expect_undo_refused("cannot read the super block of " + path + ": " + NO_DEVICE);
}

TEST_F(ApplyV1, ADeviceInUse)
{
    const std::unique_ptr<LoopDevice> loop = LoopDevice::attach(path);
    if (loop == nullptr)
        GTEST_SKIP() << "no right to set up a loop device";
    const int holder = open(loop->path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    const std::string in_use =
        loop->path() + text(" is in use by process %d (tierctl_tests)", getpid());
    const std::vector<std::string> apply_it{"apply", plan, loop->path(), "--undo", undo};
    EXPECT_EQ(run(apply_it, {}).err,
              "zu_tierctl: " + in_use + ": what is read may change meanwhile\n" + UNCOMMITTED);
    expect_complaint(run(apply_it, {"--commit"}), 1, in_use + ": stop that first");
    EXPECT_FALSE(fs::exists(undo));
    expect_device(bad);
    close(holder);
    expect_done(run(apply_it, {"--commit"}), good);
    expect_done(run({"undo", undo, loop->path()}, {"--commit"}), bad);
}

// Of a saved file, the blocks that it lacks.
TEST_F(ApplyV1, WhatCannotBeRead)
{
    zero("inode", 3);
    steps = {steps[1], steps[3]};
    steps[1].before = {};
    steps[1].unreadable = true;
    write_plan();
    bad = cache.device.bytes();
    const std::string list = cache.device.directory().write(
        "device.unreadable.json",
        text(R"([{"table":"inode","no":3,"count":1,"offset":%ld,"error":"Input/output error"}])",
             steps[1].offset));
    const RunResult shown = run_apply();
    EXPECT_EQ(shown.status, 0) << shown;
    EXPECT_NE(shown.out.find("  cannot be read: not in the saved file -> {"), std::string::npos)
        << shown;
    auto expected = bad;
    for (const PlanStep &step : steps)
        std::copy(step.after.begin(), step.after.end(), expected.begin() + step.offset);
    expect_done(run_apply({"--commit"}), expected);

    // There is nothing to go back to, as long as it cannot be read and now.
    const std::string stays = "inode 3 could not be read before: nothing to go back to\n";
    const RunResult back = run_undo();
    EXPECT_TRUE(back.out.ends_with(stays)) << back;
    std::copy(steps[0].before.begin(), steps[0].before.end(), expected.begin() + steps[0].offset);
    const RunResult undone = run_undo({"--commit"});
    EXPECT_EQ(undone.status, 0) << undone;
    EXPECT_TRUE(undone.out.ends_with(stays + "written\n")) << undone;
    expect_device(expected);

    // A block that can be read after all is another one than the plan was made for, and one that
    // cannot be read any more, too.
    fs::remove(undo);
    Block other = steps[1].after;
    other[60] ^= 1;
    put_block(cache.device, steps[1].offset, other);
    expect_refused(line(3) + ", inode 3: its block of " + path +
                   " has changed since the plan was made");
    steps[1].unreadable = false;
    write_plan();
    put_block(cache.device, steps[1].offset, {});
    expect_refused(line(3) + ", inode 3: cannot read its block of " + path +
                   ": not in the saved file");
    fs::remove(list);
}

// Before anything is written, and before an undo file is made.
TEST_F(ApplyV1, ADeviceThatIsReadOnly)
{
    const std::unique_ptr<LoopDevice> loop = LoopDevice::attach(path);
    if (loop == nullptr)
        GTEST_SKIP() << "no right to set up a loop device";
    ASSERT_TRUE(loop->set_read_only(true));
    expect_complaint(run({"apply", plan, loop->path(), "--undo", undo}, {"--commit"}), 1,
                     "nothing was written: " + loop->path() + " is read-only");
    EXPECT_FALSE(fs::exists(undo));
    EXPECT_EQ(run({"apply", plan, loop->path(), "--undo", undo}, {}).status, 0);
    expect_device(bad);
}

// Whoever does not see what is replaced does not replace it.
TEST_F(ApplyV1, OutputThatIsLost)
{
    const auto run_into = [&](const std::string &target) {
        return run_program("/bin/sh", {"-c", "exec " + target + "; exec \"$0\" \"$@\"", ZU_TIERCTL,
                                       "apply", plan, path, "--undo", undo, "--commit"});
    };
    const RunResult full = run_into(">/dev/full");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err,
              "zu_tierctl: nothing was written: cannot write to standard output: No space "
              "left on device\n");
    const std::string fifo = directory.path("fifo"); // that nobody reads any more
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const RunResult closed = run_into("3<>" + fifo + " >" + fifo + " 3<&-");
    EXPECT_EQ(closed.status, 141);
    EXPECT_EQ(closed.err,
              "zu_tierctl: nothing was written: cannot write to standard output: Broken pipe\n");
    expect_device(bad);
    EXPECT_FALSE(fs::exists(undo));
}

// A plan that comes from a pipe, as from a filter, is read once.
TEST_F(ApplyV1, APlanFromAPipe)
{
    const RunResult piped = run_program(
        "/bin/bash", {"-c", "cat \"$1\" | \"$0\" apply /dev/stdin \"$2\" --undo \"$3\" --commit",
                      ZU_TIERCTL, plan, path, undo});
    expect_done(piped, good);
    expect_done(run_undo({"--commit"}), bad);
}

// A MiB of extents that is zero, and was saved.
TEST(ApplyBulk, AMibOfZeroedExtents)
{
    constexpr std::uint64_t COUNT = 256;
    const TempDir directory;
    const std::string sample = directory.path("sample");
    ASSERT_EQ(run_ctl({"sample", "--layout", "v1", "--blocks", "256", sample}).status, 0);
    const std::string path = directory.path("device");
    ASSERT_EQ(run_ctl({"save", sample, path}).status, 0); // without the data
    std::fstream device(path, std::ios::in | std::ios::out | std::ios::binary);
    const auto block_at = [&device](std::int64_t place) {
        Block block;
        device.seekg(place).read(reinterpret_cast<char *>(block.data()), BLOCK_SIZE);
        return block;
    };
    const TableModel &extent = model(1, "extent");
    const Block super_block = block_at(SUPER_OFFSET);
    std::vector<PlanStep> steps;
    for (std::uint64_t no = 0; no < COUNT; ++no) {
        const std::int64_t place = slot_offset(extent, super_block, no);
        steps.push_back({"extent", no, place, {}, block_at(place)});
        device.seekp(place).write(std::string(BLOCK_SIZE, '\0').data(), BLOCK_SIZE);
    }
    device.flush();
    const auto expect_blocks = [&](Block PlanStep::*side) {
        for (const PlanStep &step : steps)
            EXPECT_TRUE(block_at(step.offset) == step.*side) << step.no;
    };
    expect_blocks(&PlanStep::before);
    const std::string undo = directory.path("undo");
    const std::string plan = directory.write(
        "plan", plan_text({"v1", std::filesystem::file_size(path), super_block}, steps));
    const auto start = std::chrono::steady_clock::now();
    const RunResult applied = run_ctl({"apply", plan, path, "--undo", undo, "--commit"});
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_LT(time.count(), 20); // less than 2 where nothing else runs
    RecordProperty("milliseconds", static_cast<int>(time.count() * 1000));
    expect_blocks(&PlanStep::after);
    EXPECT_EQ(run_ctl({"diff", sample, path}).status, 0);
    EXPECT_EQ(run_ctl({"undo", undo, path, "--commit"}).status, 0);
    expect_blocks(&PlanStep::before);
}

} // namespace
