// zu_tierctl apply and undo on devices and disks that fail: whatever happens, both ways stay open.

#include "faulty_run.h"
#include "plans.h"
#include "v1_device.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class ApplyFaults : public testing::Test {
protected:
    const SuperV1 sb = super_v1(2, 4, 2);
    Device device = make_v1_device(sb, {brick_used(1)}, {inode_used(1, 1), inode_used(2, 1)});
    const TempDir directory;
    const TempDir traces;
    const std::string path = device.path();
    const std::string plan = directory.path("plan");
    const std::string undo = directory.path("undo");
    std::vector<PlanStep> steps;
    std::vector<std::uint8_t> good;
    std::vector<std::uint8_t> bad;

    void SetUp() override
    {
        good = device.bytes();
        for (const std::uint32_t no : {1, 2, 3}) {
            const std::int64_t offset = inode_offset(sb, no);
            Block block = device.block(static_cast<std::uint64_t>(offset));
            steps.push_back({"inode", no, offset, block, block});
            block[600] ^= 1; // after the record: only the plan knows of it
            block[60] ^= 1;
            steps.back().before = block;
            put_block(device, offset, block);
        }
        bad = device.bytes();
        directory.write("plan",
                        plan_text({"v1", device.size(), device.block(SUPER_OFFSET)}, steps));
    }

    static constexpr std::uint64_t SUPER_OFFSET = 4096;

    RunResult run(const std::string &command, const std::string &faults) const
    {
        RunOptions options;
        options.environment = {
            {"LD_PRELOAD", ZUTR_FAULTS_LIB},
            {"ZUTR_FAULTS", "trace:" + traces.write("trace", "") + ";" + faults}};
        return command == "apply"
                   ? run_program(ZU_TIERCTL, {"apply", plan, path, "--undo", undo, "--commit"},
                                 options)
                   : run_program(ZU_TIERCTL, {"undo", undo, path, "--commit"}, options);
    }
    RunResult run(const std::string &command) const { return run(command, "pread#1=pass"); }

    void expect_end(const std::string &command, const std::vector<std::uint8_t> &bytes) const
    {
        const RunResult ended = run(command);
        EXPECT_EQ(ended.status, 0) << ended;
        EXPECT_TRUE(device.bytes() == bytes);
    }

    std::string block(std::size_t step) const
    {
        return text("the block at byte %ld of ", steps[step].offset) + path;
    }
    static std::string at(const PlanStep &step) { return text("@%ld+4096", step.offset); }

    // After a run that ended whatever way, or did not fail at all. What was seen before is not
    // tried again.
    void expect_both_ways()
    {
        const auto left = device.bytes();
        const std::string begun = fs::exists(undo) ? read_file(undo) : "";
        if (!seen_.emplace(left, begun).second)
            return;
        if (begun.empty()) {
            EXPECT_TRUE(left == bad);
        } else {
            expect_end("undo", bad);
            device.write(0, left);
        }
        expect_end("apply", good);
        expect_end("undo", bad);
    }

    // Every call that the command makes, failed in turn in this way. Gives how many runs failed.
    // `always` is what fails besides in all runs of it.
    std::size_t fail_in_turn(const std::string &command, const std::string &call,
                             const std::string &effect, const std::string &always = "")
    {
        fs::remove(undo);
        device.write(0, bad);
        expect_end("apply", good);
        const std::string complete = read_file(undo);
        std::size_t failed = 0;
        std::size_t turn = 1;
        for (; turn < 1000; ++turn) {
            const std::string fault = call + "#" + std::to_string(turn) + "=" + effect;
            SCOPED_TRACE(command + " " + fault);
            fs::remove(undo);
            device.write(0, command == "apply" ? bad : good);
            if (command == "undo")
                directory.write("undo", complete);
            const RunResult ended = run(command, always + fault);
            const auto trace = lines_of(read_file(traces.path("trace")));
            if (std::ranges::none_of(trace, [&](const std::string &line) {
                    return line.starts_with(call) && line.ends_with("=" + effect);
                }))
                break;
            EXPECT_TRUE(ended.status == 0 || ended.status == 1) << ended;
            EXPECT_EQ(ended.status == 0, ended.err.empty()) << ended;
            failed += ended.status == 0 ? 0 : 1;
            if (ended.status == 0) {
                EXPECT_TRUE(device.bytes() == (command == "apply" ? good : bad));
            }
            expect_both_ways();
        }
        EXPECT_GT(turn, 1U);
        EXPECT_LT(turn, 1000U);
        return failed;
    }

private:
    std::set<std::pair<std::vector<std::uint8_t>, std::string>> seen_;
};

TEST_F(ApplyFaults, EveryReadInTurn)
{
    for (const char *command : {"apply", "undo"})
        EXPECT_GT(fail_in_turn(command, "pread", "EIO"), 0U);
}

TEST_F(ApplyFaults, EveryWriteInTurn)
{
    for (const char *command : {"apply", "undo"})
        for (const char *effect : {"EIO", "short:512", "lost"})
            EXPECT_GT(fail_in_turn(command, "pwrite", effect), 0U);
    EXPECT_GT(fail_in_turn("apply", "pwrite", "ENOSPC"), 0U);
}

TEST_F(ApplyFaults, EveryFlushInTurn)
{
    for (const char *command : {"apply", "undo"})
        EXPECT_GT(fail_in_turn(command, "fsync", "EIO"), 0U);
}

TEST_F(ApplyFaults, EveryOpeningInTurn)
{
    for (const char *command : {"apply", "undo"})
        for (const char *call : {"open", "stat", "fstat"})
            EXPECT_GT(fail_in_turn(command, call, "EIO"), 0U);
    EXPECT_GT(fail_in_turn("apply", "linkat", "EIO"), 0U);
}

// Where files without a name cannot be had, and where no file can be renamed without replacing
// another.
TEST_F(ApplyFaults, EveryNamingInTurn)
{
    const std::string named = "tmpfile=EOPNOTSUPP;";
    EXPECT_EQ(fail_in_turn("apply", "renameat2", "EIO", named), 0U) << "a link does it";
    EXPECT_GT(fail_in_turn("apply", "link", "EIO", named + "renameat2=EINVAL;"), 0U);
    EXPECT_EQ(fail_in_turn("apply", "tmpfile", "EIO"), 0U) << "it gets a name";
}

// The plan is read in pieces; a part of it is no plan.
TEST_F(ApplyFaults, EveryReadOfThePlanInTurn)
{
    EXPECT_GT(fail_in_turn("apply", "fread", "EIO"), 0U);
    EXPECT_GT(fail_in_turn("apply", "fopen", "EIO"), 0U);
    fs::remove(undo);
    device.write(0, bad);
    const RunResult refused = run("apply", "fread=EIO");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "zu_tierctl: cannot read " + plan + ": Input/output error\n");
}

TEST_F(ApplyFaults, ItIsSaidWhatIsWritten)
{
    const std::string ways = "; the same command goes on from here, and zu_tierctl undo " + undo +
                             " " + path + " goes back\n";
    const std::string damaged = ", which may be damaged now: Input/output error";
    const RunResult second = run("apply", "pwrite" + at(steps[1]) + "=EIO");
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "zu_tierctl: inode 2: cannot write " + block(1) + damaged +
                              "; written: inode 1; not written: inode 3" + ways);
    const RunResult last = run("apply", "pwrite" + at(steps[2]) + "=EIO");
    EXPECT_EQ(last.status, 1);
    EXPECT_EQ(last.err, "zu_tierctl: inode 3: cannot write " + block(2) + damaged +
                            "; written: inode 2" + ways);
    EXPECT_EQ(last.out.find("inode 1 "), std::string::npos) << "it is written";
    // The first write of standard output shows the entries, the second says that they are written.
    const RunResult unsaid = run("apply", "write#2=ENOSPC");
    EXPECT_EQ(unsaid.status, 1);
    EXPECT_EQ(unsaid.err, "zu_tierctl: cannot write to standard output: No space left on device; "
                          "written: inode 3" +
                              ways);
    EXPECT_TRUE(device.bytes() == good);
    const RunResult back = run("undo", "pwrite" + at(steps[0]) + "=EIO");
    EXPECT_EQ(back.status, 1);
    EXPECT_EQ(back.err, "zu_tierctl: inode 1: cannot write " + block(0) + damaged +
                            "; not written: inode 2..3; the same command goes on from here\n");
    EXPECT_TRUE(device.bytes() == good);
}

// The undo file is on the disk, with its name, before the first write to the device: also when an
// earlier run gave it the name and did no more.
TEST_F(ApplyFaults, TheUndoFileComesFirst)
{
    const auto is_device = [this](const std::string &call) {
        return std::ranges::any_of(steps, [&call](const PlanStep &step) {
            return call == traced("pwrite", BLOCK_SIZE, step.offset, "pass");
        });
    };
    for (const bool is_there : {false, true}) {
        device.write(0, bad);
        ASSERT_EQ(run("apply", "pwrite=pass;fsync=pass;linkat=pass").status, 0);
        const std::vector<std::string> calls = lines_of(read_file(traces.path("trace")));
        const auto first = std::ranges::find_if(calls, is_device);
        ASSERT_GE(first - calls.begin(), is_there ? 1 : 4);
        EXPECT_EQ(first[-1].substr(0, 5), "fsync"); // of the directory
        if (!is_there) {
            // The first link is that of the trial whether files without a name can get one.
            const auto is_link = [](const std::string &call) { return call.starts_with("linkat"); };
            const auto trial = std::find_if(calls.begin(), first, is_link);
            ASSERT_NE(trial, first);
            const auto named = std::find_if(trial + 1, first, is_link);
            ASSERT_NE(named, first);
            EXPECT_EQ(named[-1].substr(0, 5), "fsync"); // of the file
        }
        std::size_t writes = 0;
        for (auto call = first; call != calls.end(); call += 2, ++writes) {
            EXPECT_TRUE(is_device(*call));
            ASSERT_NE(call + 1, calls.end());
            EXPECT_EQ(call[1].substr(0, 5), "fsync");
        }
        EXPECT_EQ(writes, steps.size());
    }
}

TEST_F(ApplyFaults, ADirectoryThatCannotBeSynced)
{
    for (const char *fault : {"fsync#4=EIO", "fsync#1=EIO"}) {
        const RunResult refused = run("apply", fault);
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, "zu_tierctl: nothing was written: cannot sync the directory of " +
                                   undo + ": Input/output error\n");
        EXPECT_TRUE(device.bytes() == bad);
        EXPECT_TRUE(fs::exists(undo));
    }
    const RunResult none = run("apply", "fsync#1=EINVAL"); // there is no such thing
    EXPECT_EQ(none.status, 0) << none;
    EXPECT_TRUE(device.bytes() == good);
}

TEST_F(ApplyFaults, NoRoomForTheUndoFile)
{
    const RunResult full = run("apply", "pwrite#2=ENOSPC");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "zu_tierctl: cannot write " + undo + ": No space left on device\n");
    EXPECT_TRUE(device.bytes() == bad);
    EXPECT_FALSE(fs::exists(undo));
}

// What the disk of the undo file says that it has written, and has not.
TEST_F(ApplyFaults, AnUndoFileThatDoesNotReadBack)
{
    for (const auto &[fault, why] : std::vector<std::pair<std::string, std::string>>{
             {"pwrite(64)=lost", "is no undo file"},
             {"pwrite#1=lost", "is damaged: its checksum does not match its content"},
             {"pwrite#5=lost", "is damaged: the checksum of a block does not match its content"}}) {
        const RunResult lost = run("apply", fault);
        EXPECT_EQ(lost.status, 1);
        EXPECT_EQ(lost.err, "zu_tierctl: nothing was written to the device: what " + undo +
                                " takes does not read back: " + undo + " " + why + "\n");
        EXPECT_TRUE(device.bytes() == bad);
        EXPECT_FALSE(fs::exists(undo));
    }
}

// Any part of it, also while it is read: then neither way is open, and nothing is written.
TEST_F(ApplyFaults, AnUndoFileThatCannotBeReadWhole)
{
    expect_end("apply", good);
    const auto plan_size = static_cast<long>(fs::file_size(plan));
    const long changes = 64 + 4096 + plan_size;
    std::vector<std::string> parts{"pread(64)@0+1", "pread@64+1", text("pread(%ld)", plan_size)};
    for (const long at : {0L, 64L, 64L + 4096, 2 * (64L + 2 * 4096) + 64})
        parts.push_back(text("pread@%ld+1", changes + at));
    for (const auto &left : {good, bad}) {
        device.write(0, left);
        put_block(device, steps[0].offset, steps[0].before);
        const auto before = device.bytes();
        for (const std::string command : {"undo", "apply"}) {
            for (const std::string &part : parts) {
                for (const char *effect : {"=EIO", "=short:0"}) {
                    SCOPED_TRACE(command + " " + part + effect);
                    const RunResult refused = run(command, part + effect);
                    EXPECT_EQ(refused.status, 1);
                    EXPECT_EQ(refused.out, "");
                    EXPECT_EQ(refused.err,
                              "zu_tierctl: cannot read " + undo + ": Input/output error\n");
                    EXPECT_TRUE(device.bytes() == before);
                }
            }
        }
    }
    expect_end("apply", good);
    expect_end("undo", bad);
}

// A block that was being written when the power failed may be unreadable, until it is written.
TEST_F(ApplyFaults, WhatCannotBeReadAnyMoreIsWritten)
{
    expect_end("apply", good);
    for (const std::string command : {"undo", "apply"}) {
        const RunResult done = run(command, "pread" + at(steps[1]) + "#1-4=EIO");
        EXPECT_EQ(done.status, 0) << done;
        EXPECT_NE(done.out.find("\n  cannot be read: Input/output error -> {"), std::string::npos)
            << done;
        EXPECT_TRUE(device.bytes() == (command == "apply" ? good : bad));
    }
    // Before the first write it is another block than the plan was made for.
    expect_end("undo", bad);
    fs::remove(undo);
    const RunResult refused = run("apply", "pread" + at(steps[1]) + "=EIO");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "zu_tierctl: " + plan + ", line 3, inode 2: cannot read its block of " +
                               path + ": Input/output error\n");
    EXPECT_FALSE(fs::exists(undo));
    EXPECT_TRUE(device.bytes() == bad);
}

} // namespace
