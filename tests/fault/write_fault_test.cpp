// Repairs on devices that accept the block late, in pieces or never.

#include "expect.h"
#include "faulty_run.h"
#include "v1_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Frees inode 2, which is in use.
class WriteFaults : public testing::Test {
protected:
    const SuperV1 super = super_v1(1, 4, 1);
    const Device device = make_v1_device(super, {}, {inode_used(2, 0)});
    const std::string conf = device.directory().write("conf", "{\"i_no\":2,\"i_use\":0}");
    const InodeV1 freed{.no = 2};
    const std::int64_t offset = inode_offset(super, 2);

    // The run prints the new inode and ends like this; of its block `written` bytes reach the
    // device. `calls` are the traced writes: bytes, offset in the block, effect.
    struct Write {
        std::uint64_t size;
        std::int64_t at;
        std::string effect;
    };
    void expect_repair(const std::string &faults, const std::vector<std::string> &flags, int status,
                       std::size_t written, const Log &lines,
                       const std::vector<Write> &writes) const
    {
        SCOPED_TRACE(faults);
        std::vector<std::uint8_t> bytes = device.bytes();
        const Block block = encode(freed);
        put_bytes(bytes, static_cast<std::size_t>(offset), ConstByteSpan(block).first(written));

        std::vector<std::string> args{"-f", conf};
        args.insert(args.end(), flags.begin(), flags.end());
        Log log{settings_line(device, "repair_inode", {.repair_conf = conf}),
                debug_line("parse_inode_from_json_v1", "i_no: 2"),
                debug_line("parse_inode_from_json_v1", "i_use: 0")};
        log.insert(log.end(), lines.begin(), lines.end());
        std::vector<std::string> taken;
        for (const Write &write : writes)
            taken.push_back(traced("pwrite", write.size, offset + write.at, write.effect));

        const FaultyRun run = run_faulty(device, "repair_inode", faults, args);
        expect_run(run, {.status = status, .out = json(freed, offset), .log = log});
        EXPECT_EQ(run.taken, taken);
        EXPECT_EQ(device.bytes(), bytes);
    }

    void expect_written(const std::string &faults, const std::vector<Write> &writes) const
    {
        expect_repair(faults, {"-y"}, 0, BLOCK_SIZE, {}, writes);
    }

    void expect_failed(const std::string &faults, std::size_t written,
                       const std::vector<Write> &writes) const
    {
        const LogLine failure =
            error_line("zutr_repair_common",
                       text("write meta on offset %ld failed:-1, cmd:11, dev:%s, conf:%s", offset,
                            device.path().c_str(), conf.c_str()));
        expect_repair(faults, {"-y"}, 5, written, {failure}, writes);
    }
};

TEST_F(WriteFaults, BlockIsWrittenWithOneCall)
{
    expect_written("pwrite=pass", {{4096, 0, "pass"}});
}

TEST_F(WriteFaults, NothingIsWrittenWithoutTheCommitFlag)
{
    expect_repair(
        "pwrite=pass", {}, 0, 0,
        {debug_line("zutr_repair_common",
                    text("'commit' flag not set, won't write dev. cmd:11, conf:%s", conf.c_str()))},
        {});
}

TEST_F(WriteFaults, InterruptedWritesAreRepeated)
{
    for (const std::string error : {"EINTR", "EAGAIN"})
        expect_written(text("pwrite#1-2=%s;pwrite=pass", error.c_str()),
                       {{4096, 0, error}, {4096, 0, error}, {4096, 0, "pass"}});
}

TEST_F(WriteFaults, ShortWritesAreContinued)
{
    expect_written("pwrite#1=short:512;pwrite#1=short:1024;pwrite=pass",
                   {{4096, 0, "short:512"}, {3584, 512, "short:1024"}, {2560, 1536, "pass"}});
}

TEST_F(WriteFaults, WriteOfNothingIsRepeated)
{
    expect_written(
        "pwrite#1-3=short:0;pwrite=pass",
        {{4096, 0, "short:0"}, {4096, 0, "short:0"}, {4096, 0, "short:0"}, {4096, 0, "pass"}});
}

TEST_F(WriteFaults, FailedWriteLeavesTheDeviceAlone)
{
    for (const std::string error : {"EIO", "ENOSPC"})
        expect_failed("pwrite=" + error, 0, {{4096, 0, error}});
}

TEST_F(WriteFaults, FailureInTheMiddleOfTheBlock)
{
    expect_failed("pwrite#1=short:512;pwrite=EIO", 512,
                  {{4096, 0, "short:512"}, {3584, 512, "EIO"}});
}

} // namespace
