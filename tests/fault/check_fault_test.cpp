// Checks of devices that cannot be read everywhere, or without memory, on both ways of reading.

#include "faulty_run.h"
#include "reading_ways.h"
#include "v3_device.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using namespace tier_test;

namespace {

class CheckFaults : public testing::TestWithParam<ReadingWay> {
protected:
    const SuperV3 sb = super_v3(2, 3);
    const Device device = make_v3_device(
        sb, {brick_v3_used(0)}, {inode(0), inode(1)},
        {{1, {.shards = {{.slot = 1, .ino = 0}}}}, {2, {.shards = {{.slot = 1, .ino = 1}}}}},
        {{0,
          {.extents = {{.slot = 5, .lba = 1, .shard = 513, .bitmap = 1},
                       {.slot = 6, .lba = 1, .shard = 1025, .bitmap = 1}}}},
         {1, {.extents = {{.slot = 5, .lba = 1, .shard = 513, .bitmap = 1}}}}});

    static InodeV3 inode(std::uint32_t no)
    {
        InodeV3 inode = inode_v3_used(no, 0);
        inode.size = 1;
        return inode;
    }

    RunResult check(const std::string &faults, std::vector<std::string> args = {}) const
    {
        const std::string trace = device.directory().write("trace", "");
        const std::string way = way_faults(GetParam(), "check", brick_offset(sb, 0));
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                               {"ZUTR_FAULTS", "trace:" + trace + ";" + way + faults}};
        args.insert(args.begin(), {"check", device.path()});
        return run_program(ZU_TIERCTL, args, options);
    }

    std::string finding(const char *severity, const std::string &what, std::int64_t offset,
                        const std::string &text_of_it, const std::string &command) const
    {
        return text("%s: %s at %ld: %s: zu_tier -l tier.log -p %s -c %s\n", severity, what.c_str(),
                    offset, text_of_it.c_str(), device.path().c_str(), command.c_str());
    }

    // Nothing else is found, but for the extent that really is one of two.
    void expect_findings(const RunResult &run, const std::string &expected) const
    {
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.out.substr(0, run.out.find("\n\n") + 1), expected);
    }

    std::string duplicate() const
    {
        return finding("error", "extent 517 (block 1)", extent_offset(sb, 1) + 40,
                       "address 1 of shard 513 is also that of extent 5 (duplicate_extent)",
                       "dump_extent -n 1");
    }
};

INSTANTIATE_TEST_SUITE_P(, CheckFaults, READING_WAYS, way_name);

TEST_P(CheckFaults, NoFault)
{
    expect_findings(check("pread#1=pass"), duplicate());
    EXPECT_EQ(shows_queue(device.directory().read("trace")), GetParam() == ReadingWay::queued);
}

TEST_P(CheckFaults, BlockOfShards)
{
    const std::int64_t shards = shard_offset(sb, 1);
    expect_findings(check(text("pread@%ld+4096=EIO", shards)),
                    finding("error", "shard block 1", shards,
                            "it cannot be read: Input/output error (unreadable)",
                            "dump_shard -n 1") +
                        duplicate() +
                        finding("warning", "extent 5 (block 0)", extent_offset(sb, 0) + 40,
                                "it and 1 other refer to shard 513, which cannot be read "
                                "(extent_of_unknown_shard)",
                                "dump_extent -n 0"));
}

TEST_P(CheckFaults, InodeAmongOthers)
{
    expect_findings(
        check(text("pread@%ld+4096=EIO", inode_offset(sb, 1))),
        finding("error", "inode 1", inode_offset(sb, 1),
                "it cannot be read: Input/output error (unreadable)", "dump_inode -n 1") +
            finding("warning", "shard 1025 (block 2)", shard_offset(sb, 2) + 8,
                    "it refers to inode 1, which cannot be read (shard_of_unknown_inode)",
                    "dump_shard -n 2") +
            duplicate());
}

// The second reading, which reports the claimants, cannot read the block of one.
TEST_P(CheckFaults, BlockThatCannotBeReadAgain)
{
    const RunResult run = check(text("pread@%ld+4096#2-=EIO", extent_offset(sb, 0)));
    EXPECT_EQ(run.status, 2) << run;
    EXPECT_EQ(run.err, "zu_tierctl: " + device.path() +
                           ": table extent has changed since it was first read\n");
}

// What was begun becomes a whole document, which says that the check could not be completed.
TEST_P(CheckFaults, DocumentOfAnIncompleteCheck)
{
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"--json"}, {"--json", "--summary"}}) {
        const RunResult run = check(text("pread@%ld+4096#2-=EIO;pread@%ld+4096=EIO",
                                         extent_offset(sb, 0), inode_offset(sb, 0)),
                                    args);
        EXPECT_EQ(run.status, 2) << run;
        const auto document = nlohmann::ordered_json::parse(run.out);
        EXPECT_EQ(document.at("error"),
                  device.path() + ": table extent has changed since it was first read");
        EXPECT_GE(document.at("findings").size(), 2U);
        EXPECT_EQ(document.at("kinds").at("unreadable"), 1);
        EXPECT_EQ(document.at("tables").at("inode").at("unreadable"), 1);
        EXPECT_FALSE(document.at("tables").contains("extent"));
    }
}

// A device in use may change at any time; but what its last check cannot read is told.
TEST_P(CheckFaults, BlockThatCannotBeReadAgainOfADeviceInUse)
{
    const RunResult run = check(text("pread@%ld+4096#2-=EIO", extent_offset(sb, 0)), {"--live"});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(run.out.starts_with(finding("error", "extent block 0", extent_offset(sb, 0),
                                            "it cannot be read: Input/output error (unreadable)",
                                            "dump_extent -n 0")))
        << run;
    EXPECT_TRUE(run.out.ends_with("\nunreadable                                  1\n"
                                  "findings                                    1\n"))
        << run;
}

TEST_P(CheckFaults, SuperBlock)
{
    const RunResult run = check("pread@4096+4096=EIO");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: cannot read the super block of " + device.path() +
                           ": Input/output error; what helps: " + super_ways(device.path()) + "\n");
}

TEST_P(CheckFaults, NoMemory)
{
    const RunResult run = check("posix_memalign=ENOMEM");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "zu_tierctl: std::bad_alloc\n");
}

TEST_P(CheckFaults, JsonWithoutMemory)
{
    const RunResult run = check("posix_memalign=ENOMEM", {"--json"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(nlohmann::json::parse(run.out).at("error"), "std::bad_alloc") << run;
}

TEST_P(CheckFaults, LostOutput)
{
    const RunResult run = check("write=ENOSPC");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "zu_tierctl: cannot write to standard output: No space left on device\n");
}

} // namespace
