// zu_tierctl save and diff on devices and disks that fail, on both ways of reading.

#include "faulty_run.h"
#include "reading_ways.h"
#include "v1_device.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class SaveFaults : public testing::TestWithParam<ReadingWay> {
protected:
    const SuperV1 sb = super_v1(3, 5, 300);
    Device device = make_v1_device(sb, {brick_used(1)}, {inode_used(2, 1)});
    const TempDir directory;
    const TempDir traces;
    const std::string file = directory.path("saved");

    RunResult run(const std::vector<std::string> &args, const std::string &faults) const
    {
        const std::string way = way_faults(GetParam(), args.front(), brick_offset(sb, 0));
        RunOptions options;
        options.environment = {
            {"LD_PRELOAD", ZUTR_FAULTS_LIB},
            {"ZUTR_FAULTS", "trace:" + traces.path("trace") + ";" + way + faults}};
        return run_program(ZU_TIERCTL, args, options);
    }
    RunResult save(const std::string &faults) const
    {
        return run({"save", device.path(), file}, faults);
    }

    // Under this fault the run leaves no file.
    void expect_failure(const std::string &fault, const std::string &complaint) const
    {
        SCOPED_TRACE(fault);
        const RunResult failed = save(fault);
        EXPECT_EQ(failed.status, 1) << failed;
        EXPECT_EQ(failed.err, "zu_tierctl: " + complaint + "\n");
        EXPECT_TRUE(std::filesystem::is_empty(directory.path("")));
    }

    static std::string at(std::int64_t offset) { return text("@%ld+4096", offset); }
    static std::string listed(const std::string &table, std::uint64_t no, std::int64_t offset)
    {
        return text(
            R"({"table":"%s","no":%lu,"count":1,"offset":%ld,"error":"Input/output error"})",
            table.c_str(), no, offset);
    }
};

INSTANTIATE_TEST_SUITE_P(, SaveFaults, READING_WAYS, way_name);

TEST_P(SaveFaults, WayOfReading)
{
    EXPECT_EQ(save("pread#1=pass").status, 0);
    EXPECT_EQ(shows_queue(traces.read("trace")), GetParam() == ReadingWay::queued);
}

TEST_P(SaveFaults, UnreadableBlocksAreHolesAndListed)
{
    const std::int64_t inode = inode_offset(sb, 3);
    const std::int64_t extent = extent_offset(sb, 299); // in the second read of the table
    const std::string faults = "pread" + at(inode) + "=EIO;pread" + at(extent) + "=EIO;pread" +
                               at(brick_offset(sb, 0)) + "#1=EIO";
    const RunResult saved = save(faults);
    EXPECT_EQ(saved.status, 1) << saved;
    const std::string list = file + ".unreadable.json";
    EXPECT_EQ(saved.err, "zu_tierctl: " + file + " is incomplete: see " + list + "\n");
    EXPECT_EQ(read_file(list),
              "[\n" + listed("inode", 3, inode) + ",\n" + listed("extent", 299, extent) + "\n]\n");

    // The other blocks are there: brick 0 could be read on its own.
    std::string expected = read_file(device.path());
    expected.replace(static_cast<std::size_t>(inode), BLOCK_SIZE, BLOCK_SIZE, '\0');
    expected.replace(static_cast<std::size_t>(extent), BLOCK_SIZE, BLOCK_SIZE, '\0');
    EXPECT_TRUE(read_file(file) == expected);

    const std::string missing = ": cannot be read in B: not in the saved file\n";
    EXPECT_EQ(run({"diff", device.path(), file}, "pread#1=pass").out,
              "inode 3" + missing + "extent 299" + missing);

    // A check of the file calls them unreadable, not damaged, and would without the list.
    const auto findings = [this](const std::string &kind) {
        const std::string out = run({"check", file}, "pread#1=pass").out;
        std::size_t count = 0;
        for (std::size_t at = 0; (at = out.find(" (" + kind + "): ", at)) != std::string::npos;
             ++at)
            ++count;
        return count;
    };
    EXPECT_EQ(findings("unreadable"), 2U);
    EXPECT_EQ(findings("bad_checksum"), 0U);
    std::filesystem::remove(list);
    EXPECT_EQ(findings("unreadable"), 0U);
    EXPECT_EQ(findings("bad_checksum"), 2U);
}

TEST_P(SaveFaults, AllBlocksOfATableUnreadable)
{
    const RunResult saved = save(text("pread@%ld+1228800=EIO", extent_offset(sb, 0)));
    EXPECT_EQ(saved.status, 1) << saved;
    std::string expected;
    for (std::uint64_t no = 0; no < 300; ++no)
        expected += (no == 0 ? "[\n" : ",\n") + listed("extent", no, extent_offset(sb, no));
    EXPECT_EQ(read_file(file + ".unreadable.json"), expected + "\n]\n");
}

TEST_P(SaveFaults, SuperBlockThatCannotBeRead)
{
    expect_failure("pread@4096+4096=EIO",
                   "cannot read the super block of " + device.path() +
                       ": Input/output error; what helps: " + super_ways(device.path()));
}

TEST_P(SaveFaults, NoMemory) { expect_failure("posix_memalign=ENOMEM", "std::bad_alloc"); }

TEST_P(SaveFaults, NoRoomOnTheDisk)
{
    for (const std::string turn : {"#1", "#2", "#3", "#5"})
        expect_failure("pwrite" + turn + "=ENOSPC",
                       "cannot write " + file + ": No space left on device");
}

TEST_P(SaveFaults, NoRoomForTheList)
{
    // The super block, the bricks, the inodes on both sides of the hole, the extents; the list.
    const std::string hole = "pread" + at(inode_offset(sb, 3)) + "=EIO;";
    expect_failure(hole + "pwrite(1-4095)=ENOSPC",
                   "cannot write " + file + ".unreadable.json: No space left on device");
}

TEST_P(SaveFaults, ADiskThatTellsOfItTooLate)
{
    expect_failure("fsync#1=EIO", "cannot write " + file + ": Input/output error");
    const std::string hole = "pread" + at(inode_offset(sb, 3)) + "=EIO;";
    // The file, the list, its directory, and the file once more.
    expect_failure(hole + "fsync#2=EIO",
                   "cannot write " + file + ".unreadable.json: Input/output error");
    // The list has its name by then, and loses it again.
    expect_failure(hole + "fsync#4=EIO", "cannot write " + file + ": Input/output error");
    // The trials for the file and the list, the list, the file.
    expect_failure(hole + "linkat#4=EPERM", "cannot create " + file + ": Operation not permitted");
}

TEST_P(SaveFaults, ComparisonGoesAroundWhatCannotBeRead)
{
    const Device other = make_v1_device(sb, {brick_used(1)}, {inode_used(2, 1), inode_used(4, 1)});
    const RunResult compared =
        run({"diff", device.path(), other.path()}, "pread" + at(inode_offset(sb, 1)) + "=EIO");
    EXPECT_EQ(compared.status, 1) << compared;
    EXPECT_TRUE(compared.out.starts_with("inode 1: cannot be read in A: Input/output error, in B: "
                                         "Input/output error\ninode 4\n  checksum: "))
        << compared;
}

// Revert

class RevertFaults : public SaveFaults {
protected:
    void SetUp() override
    {
        ASSERT_EQ(save("pread#99=pass").status, 0);
        Block damaged = device.block(static_cast<std::uint64_t>(offset));
        damaged[60] ^= 1;
        device.write(static_cast<std::uint64_t>(offset), damaged);
    }
    RunResult revert(const std::string &faults) const
    {
        return run({"revert", file, device.path(), "inode", "2", "--commit"}, faults);
    }

    // As messages name it.
    std::string block() const { return text("the block at byte %ld of ", offset) + device.path(); }

    const std::int64_t offset = inode_offset(sb, 2);
};

// The one table that is read to compare the caches has a single chunk here.
INSTANTIATE_TEST_SUITE_P(, RevertFaults, testing::Values(ReadingWay::plain), way_name);

TEST_P(RevertFaults, AWriteThatFailsLeavesTheOldBlock)
{
    const auto before = device.bytes();
    const RunResult failed = revert("pwrite=EIO");
    EXPECT_EQ(failed.status, 1) << failed;
    EXPECT_EQ(failed.err, "zu_tierctl: inode 2: cannot write " + block() +
                              ", which may be damaged now: Input/output error\n");
    EXPECT_TRUE(device.bytes() == before);
}

// The kernel lets a block device be opened that it does not let be written.
TEST_P(RevertFaults, AReadOnlyDeviceIsNotDamaged)
{
    const RunResult failed = revert("pwrite=EPERM");
    EXPECT_EQ(failed.status, 1) << failed;
    EXPECT_EQ(failed.err,
              "zu_tierctl: inode 2: nothing was written: " + device.path() + " is read-only\n");
}

TEST_P(RevertFaults, BlockIsWrittenInOneGoAndReadBack)
{
    const RunResult done = revert("pwrite=pass;pread=pass");
    EXPECT_EQ(done.status, 0) << done;
    const std::vector<std::string> calls = lines_of(read_file(traces.path("trace")));
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(std::ranges::count_if(calls, [](const std::string &call) { return call[1] == 'w'; }),
              1);
    EXPECT_EQ(calls[calls.size() - 2], traced("pwrite", 4096, offset, "pass"));
    EXPECT_EQ(calls.back(), traced("pread", 4096, offset, "pass"));
}

TEST_P(RevertFaults, WhatCannotBeReadBackIsAnError)
{
    // Both blocks are read to be shown and again to be written; then come check and comparison.
    const RunResult failed = revert("pread" + at(offset) + "#6=EIO");
    EXPECT_EQ(failed.status, 1) << failed;
    EXPECT_EQ(failed.err, "zu_tierctl: inode 2: wrote, but cannot read back " + block() +
                              ": Input/output error\n");
}

TEST_P(RevertFaults, AWriteThatIsLostIsAnError)
{
    const RunResult failed = revert("pwrite=lost");
    EXPECT_EQ(failed.status, 1) << failed;
    EXPECT_EQ(failed.err,
              "zu_tierctl: inode 2: wrote, but reads back differently: " + block() + "\n");
}

// What is written must take the place of what was shown.
TEST_P(RevertFaults, ABlockThatChangesIsNotWritten)
{
    const auto before = device.bytes();
    for (const char *turn : {"#2", "#4"}) {
        const RunResult failed = revert("pread" + at(offset) + turn + "=EIO;pwrite=pass");
        EXPECT_EQ(failed.status, 1) << failed;
        EXPECT_EQ(failed.err,
                  "zu_tierctl: inode 2: nothing was written: it has changed since it was shown\n");
    }
    const RunResult lost = revert("pread" + at(offset) + "#5=EIO;pwrite=pass");
    EXPECT_EQ(lost.status, 1) << lost;
    EXPECT_EQ(lost.err, "zu_tierctl: inode 2: nothing was written: cannot read " + block() +
                            ": Input/output error\n");
    EXPECT_TRUE(device.bytes() == before);
}

TEST_P(RevertFaults, AWriteOfLessThanABlockIsAnError)
{
    const RunResult failed = revert("pwrite=short:512");
    EXPECT_EQ(failed.status, 1) << failed;
    EXPECT_EQ(failed.err, "zu_tierctl: inode 2: cannot write " + block() +
                              ", which may be damaged now: Input/output error\n");
}

TEST_P(RevertFaults, OfSeveralItIsSaidWhichAreWritten)
{
    const std::string name = device.path();
    for (const std::uint32_t no : {0, 1, 3, 4}) {
        const auto place = static_cast<std::uint64_t>(inode_offset(sb, no));
        Block damaged = device.block(place);
        damaged[60] ^= 1;
        device.write(place, damaged);
    }
    const auto revert_all = [&](const std::string &faults) {
        return run({"revert", file, device.path(), "inode", "0..4", "--commit"}, faults);
    };
    const RunResult first = revert_all("pwrite" + at(inode_offset(sb, 0)) + "=EIO");
    EXPECT_EQ(first.status, 1);
    EXPECT_EQ(first.err,
              text("zu_tierctl: inode 0: cannot write the block at byte %ld of %s, which "
                   "may be damaged now: Input/output error; not written: inode 1..4\n",
                   inode_offset(sb, 0), name.c_str()));
    const RunResult third = revert_all("pwrite" + at(offset) + "=EIO");
    EXPECT_EQ(third.status, 1);
    EXPECT_EQ(third.err, "zu_tierctl: inode 2: cannot write " + block() +
                             ", which may be damaged now: Input/output error; written: inode "
                             "0..1; not written: inode 3..4\n");
    const RunResult rest = revert_all("pwrite" + at(inode_offset(sb, 4)) + "=EIO");
    EXPECT_TRUE(rest.err.ends_with("; written: inode 2..3\n")) << rest;
    // The first write of standard output shows the entry, the second says that it was written.
    const RunResult unsaid = revert_all("write#2=ENOSPC");
    EXPECT_EQ(unsaid.status, 1);
    EXPECT_EQ(unsaid.err, "zu_tierctl: cannot write to standard output: No space left on device; "
                          "written: inode 4\n");
    EXPECT_EQ(run({"diff", file, device.path()}, "pread#99=pass").status, 0);
}

TEST_P(RevertFaults, AnUnreadableBlockCanBeWritten)
{
    const RunResult done = revert("pread" + at(offset) + "#2=EIO;pread" + at(offset) + "#3-4=EIO");
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_TRUE(done.out.starts_with(text("inode 2 at byte %ld\nnow:  cannot be read: "
                                          "Input/output error\nthen: {",
                                          offset)))
        << done;
    EXPECT_TRUE(done.out.ends_with("}\nwritten\n")) << done;
    EXPECT_EQ(run({"diff", file, device.path()}, "pread#99=pass").status, 0);
}

} // namespace
