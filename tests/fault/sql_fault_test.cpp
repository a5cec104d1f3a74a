// Questions to devices that cannot be read everywhere, and databases that cannot be written.

#include "faulty_run.h"
#include "v1_device.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using namespace tier_test;
using Json = nlohmann::ordered_json;

namespace {

class SqlFaults : public testing::Test {
protected:
    const SuperV1 sb = super_v1(2, 9, 7);
    const Device device = make_v1_device(sb, {brick_used(0)}, {inode_used(0, 0), inode_used(1, 0)},
                                         {extent_used(0, 0), extent_used(5, 1)});
    const std::string file = device.directory().path("file.db");
    const std::string trace = device.directory().write("trace", "");

    RunResult sql(const std::string &faults, const std::vector<std::string> &args) const
    {
        device.directory().write("trace", "");
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                               {"ZUTR_FAULTS", "trace:" + trace + ";" + faults}};
        std::vector<std::string> all{"sql"};
        all.insert(all.end(), args.begin(), args.end());
        return run_program(ZU_TIERCTL, all, options);
    }

    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const auto &entry : std::filesystem::directory_iterator(device.directory().path("")))
            found.push_back(entry.path().filename());
        std::ranges::sort(found);
        return found;
    }
};

TEST_F(SqlFaults, UnreadableBlocks)
{
    const RunResult run =
        sql(text("pread@%ld+4096=EIO", extent_offset(sb, 5)),
            {"--json", device.path(), "select no, te_size, state from extent where no > 3"});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(Json::parse(run.out),
              (Json{{{"no", 4}, {"te_size", 0}, {"state", "ok"}},
                    {{"no", 5}, {"te_size", nullptr}, {"state", "unreadable"}},
                    {{"no", 6}, {"te_size", 0}, {"state", "ok"}}}));
}

// A condition on the number reads the super block and one block more.
TEST_F(SqlFaults, OneNumberIsOneBlock)
{
    const RunResult run =
        sql("pread=pass", {"--csv", device.path(), "select te_inode_no from extent where no = 5"});
    EXPECT_EQ(run.out, "te_inode_no\n1\n") << run;
    std::vector<std::string> calls = lines_of(read_file(trace));
    std::erase_if(calls, [](const std::string &call) {
        return call.find("pread(4096)@4096=") != std::string::npos;
    });
    EXPECT_EQ(calls,
              std::vector<std::string>{traced("pread", BLOCK_SIZE, extent_offset(sb, 5), "pass")});
}

// A condition on the device reads this one alone.
TEST_F(SqlFaults, OneDeviceIsRead)
{
    const Device other = make_v1_device(sb, {brick_used(0)}, {inode_used(0, 0)}, {});
    const std::string table =
        traced("pread", sb.block_cnt * BLOCK_SIZE, extent_offset(sb, 0), "pass");
    const auto reads = [&](const std::string &condition) {
        const RunResult run = sql("pread=pass", {"--csv", device.path(), other.path(),
                                                 "select count(*) from extent" + condition});
        EXPECT_EQ(run.status, 0) << run;
        const std::vector<std::string> calls = lines_of(read_file(trace));
        return std::ranges::count(calls, table);
    };
    EXPECT_EQ(reads(""), 2);
    EXPECT_EQ(reads(" where device = '" + other.path() + "'"), 1);
    EXPECT_EQ(reads(" where device = 'x'"), 0);
}

// Every read fails in turn: the run says so, or which blocks it could not read.
TEST_F(SqlFaults, EachReadInTurn)
{
    const std::vector<std::string> args{
        "--json", device.path(),
        "select no, state from inode union all select no, state from extent"};
    const RunResult sound = sql("pread#1=pass", args);
    int failed = 0;
    for (int k = 1; k < 12; ++k) {
        SCOPED_TRACE(k);
        const RunResult run = sql(text("pread#%d=EIO", k), args);
        if (run.status != 0) {
            EXPECT_EQ(run.status, 1) << run;
            EXPECT_NE(run.err.find("cannot read the super block"), std::string::npos);
            failed++;
        } else {
            EXPECT_EQ(run.out, sound.out); // read again block by block
        }
    }
    EXPECT_GE(failed, 1);
}

TEST_F(SqlFaults, NoMemory)
{
    const RunResult run =
        sql("posix_memalign=ENOMEM", {device.path(), "select count(*) from inode"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: std::bad_alloc\n");
}

TEST_F(SqlFaults, LostOutput)
{
    const RunResult run = sql("write=ENOSPC", {device.path(), "select 1"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "zu_tierctl: cannot write to standard output: No space left on device\n");
}

// Whichever write fails, nothing is left of the file.
TEST_F(SqlFaults, FullDisk)
{
    const std::vector<std::string> before = names();
    int failed = 0;
    for (int k = 1; k < 40; k += 3) {
        const RunResult run = sql(text("pwrite#%d-=ENOSPC", k), {"--into", file, device.path()});
        if (run.status == 0) {
            std::filesystem::remove(file);
            break;
        }
        failed++;
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_EQ(run.err, "zu_tierctl: cannot write " + file + ": database or disk is full\n");
        EXPECT_EQ(names(), before);
    }
    EXPECT_GE(failed, 3);
    const RunResult run = sql("fsync=EIO", {"--into", file, device.path()});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, "zu_tierctl: cannot write " + file + ": Input/output error\n");
    EXPECT_EQ(names(), before);
}

} // namespace
