// Reads of the companion that are queued in the kernel, and refused, fail, come up short or late.

#include "faulty_run.h"
#include "reading_ways.h"
#include "v1_device.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <unistd.h>

using namespace tier_test;

namespace {

// Some MiB, in one go.
std::string large_file(const std::string &path)
{
    std::string bytes(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary)
        .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

const Device &large_device(const SuperV1 &sb)
{
    static const Device device = make_v1_device(sb, {brick_used(1)}, {inode_used(2, 1)});
    return device;
}

// A device whose table of inodes takes eleven reads.
class QueuedReads : public testing::Test {
protected:
    static constexpr std::uint32_t COUNT = 10 * 256 + 3;

    const SuperV1 sb = super_v1(3, COUNT, 2);
    const Device &device = large_device(sb);
    const TempDir directory;
    const TempDir traces;
    const std::string file = directory.path("saved");

    RunResult run(const std::vector<std::string> &args, const std::string &faults) const
    {
        const std::string first = slow_first_chunk(args.front(), brick_offset(sb, 0));
        RunOptions options;
        options.environment = {
            {"LD_PRELOAD", ZUTR_FAULTS_LIB},
            {"ZUTR_FAULTS", "trace:" + traces.write("trace", "") + ";" + first + faults}};
        return run_program(ZU_TIERCTL, args, options);
    }
    std::vector<std::string> taken() const { return lines_of(traces.read("trace")); }

    // A save under these faults takes the device as it is.
    void expect_saved(const std::string &faults) const
    {
        SCOPED_TRACE(faults);
        std::filesystem::remove(file);
        const RunResult saved = run({"save", device.path(), file}, faults);
        EXPECT_EQ(saved.status, 0) << saved;
        EXPECT_EQ(saved.err, "");
        EXPECT_TRUE(large_file(file) == whole);
        EXPECT_GE(taken().size(), 2U) << "nothing has failed";
    }

    const std::string whole = large_file(device.path());
};

TEST_F(QueuedReads, KernelThatHasNoQueue)
{
    for (const char *error : {"ENOSYS", "EPERM", "EAGAIN", "ENOMEM"}) {
        expect_saved(text("io_setup=%s;aio=EIO", error));
        EXPECT_EQ(taken().back(), text("io_setup(32)=%s", error)); // and it is not asked again
    }
}

TEST_F(QueuedReads, RefusedReads)
{
    for (const char *fault : {"=ENOSYS", "=EINVAL", "#1=EPERM", "#4=EAGAIN", "#5-=ENOMEM"})
        expect_saved(std::string("io_submit") + fault);
}

TEST_F(QueuedReads, FailedAndShortReads)
{
    for (const char *fault : {"=EIO", "=EINVAL", "#1=EINTR", "#4=EAGAIN", "#4-=EOPNOTSUPP",
                              "=short:0", "#1=short:512", "#12-=short:8192"})
        expect_saved(std::string("aio") + fault);
}

// What the commands show does not depend on how they read, nor on a queued read that fails.
TEST_F(QueuedReads, EveryReadInTurn)
{
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"check", "--all", "--json", device.path()},
          {"diff", device.path(), device.path()}}) {
        SCOPED_TRACE(args.front());
        const RunResult plain = run(args, "io_setup=EPERM;");
        EXPECT_EQ(plain.err, "");
        std::size_t turn = 1;
        for (bool is_taken = true; is_taken; ++turn) {
            const char *effect = turn % 2 == 0 ? "EIO" : "short:512";
            const RunResult queued = run(args, text("aio#%lu=%s", turn, effect));
            EXPECT_EQ(queued.status, plain.status) << queued;
            EXPECT_TRUE(queued.out == plain.out) << turn;
            EXPECT_EQ(queued.err, "");
            is_taken = traces.read("trace").find("aio(") != std::string::npos;
        }
        EXPECT_GT(turn, 12U);
    }
}

TEST_F(QueuedReads, LateReads)
{
    expect_saved("aio#1=late:50");
    expect_saved("aio#3=late:50;aio#3=late:30;aio=late:10");
    expect_saved("aio#2=late:50;aio#2=EIO;aio#2=late:30;aio#2=short:512");
}

TEST_F(QueuedReads, ResultsThatCannotBeHad)
{
    expect_saved("io_getevents=EPERM");
    expect_saved("io_getevents#3=EPERM");
    expect_saved("io_getevents#1-3=EINTR;io_getevents#2=EINTR");
}

// The third buffer is that of the inodes, and those after it are for reading ahead.
TEST_F(QueuedReads, NoMemoryToReadAhead)
{
    for (const char *turn : {"#4", "#6-7", "#4-13"})
        expect_saved(text("posix_memalign(1048576)%s=ENOMEM", turn));
}

// Every byte of the tables, once, and nothing else.
TEST_F(QueuedReads, TablesAreReadOnce)
{
    expect_saved("pread=pass;io_submit=pass");
    std::map<std::uint64_t, std::uint64_t> read; // sizes by offset
    std::size_t queued = 0;
    for (const std::string &call : taken()) {
        unsigned long size = 0;
        unsigned long offset = 0;
        if (std::sscanf(call.c_str(), "pread(%lu)@%lu=", &size, &offset) == 2) {
            EXPECT_TRUE(read.emplace(offset, size).second || offset == 4096) << call;
        }
        queued += call == "io_submit(1)=pass" ? 1 : 0;
    }
    std::map<std::uint64_t, std::uint64_t> expected{{4096, 4096}};
    const auto expect = [&expected](std::int64_t offset, std::uint64_t count) {
        expected.emplace(offset, count * BLOCK_SIZE);
    };
    expect(brick_offset(sb, 0), 3);
    for (std::uint32_t no = 0; no < COUNT; no += 256)
        expect(inode_offset(sb, no), std::min<std::uint64_t>(256, COUNT - no));
    expect(extent_offset(sb, 0), 2);
    EXPECT_EQ(read, expected);
    EXPECT_EQ(queued, expected.size() - 1);
}

TEST_F(QueuedReads, AFailedChunkIsReadAgainAndThenBlockByBlock)
{
    const std::int64_t chunk = inode_offset(sb, 512);
    const std::int64_t bad = inode_offset(sb, 520);
    const RunResult saved = run({"save", device.path(), file},
                                text("pread@%ld+4096=EIO;pread@%ld+1048576=pass", bad, chunk));
    EXPECT_EQ(saved.status, 1);
    EXPECT_EQ(saved.err,
              "zu_tierctl: " + file + " is incomplete: see " + file + ".unreadable.json\n");
    std::vector<std::string> expected{traced("pread", MIB, chunk, "EIO"),
                                      traced("pread", MIB, chunk, "EIO")};
    for (std::uint32_t no = 512; no < 768; ++no) {
        const std::int64_t offset = inode_offset(sb, no);
        expected.push_back(traced("pread", 4096, offset, offset == bad ? "EIO" : "pass"));
    }
    std::vector<std::string> calls = taken();
    std::erase_if(calls, [](const std::string &call) { return call.find("late") != call.npos; });
    EXPECT_EQ(calls, expected);
    std::string rest = whole;
    rest.replace(static_cast<std::size_t>(bad), BLOCK_SIZE, BLOCK_SIZE, '\0');
    EXPECT_TRUE(large_file(file) == rest);
}

TEST_F(QueuedReads, TakeEightBuffers)
{
    const auto buffers = [this] {
        return std::ranges::count(taken(), "posix_memalign(1048576)=pass");
    };
    expect_saved("posix_memalign(1048576)=pass");
    EXPECT_EQ(buffers(), 4 - 1 + 8); // one for each other table
    const RunResult compared =
        run({"diff", device.path(), device.path()}, "posix_memalign(1048576)=pass");
    EXPECT_EQ(compared.status, 0) << compared;
    EXPECT_EQ(buffers(), 2 * (4 - 1 + 4));
}

// A chunk of the table that is a hole, and one that is a hole in part.
TEST_F(QueuedReads, HolesAreNotRead)
{
    const Device sparse = make_v1_device(sb, {brick_used(1)}, {inode_used(2, 1)});
    const std::int64_t hole = inode_offset(sb, 512);
    const std::int64_t length = MIB + 8 * std::int64_t{BLOCK_SIZE};
    const int fd = open(sparse.path().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, hole, length), 0);
    close(fd);
    for (const char *way : {"", "io_setup=EPERM;"}) {
        std::filesystem::remove(file);
        const RunResult saved = run({"save", sparse.path(), file}, std::string(way) + "pread=pass");
        EXPECT_EQ(saved.status, 0) << saved;
        EXPECT_TRUE(large_file(file) == large_file(sparse.path()));
        const std::vector<std::string> calls = taken();
        EXPECT_EQ(std::ranges::count(calls, traced("pread", MIB, hole, "pass")), 0);
        for (const std::int64_t other : {hole - std::int64_t{MIB}, hole + std::int64_t{MIB}})
            EXPECT_EQ(std::ranges::count(calls, traced("pread", MIB, other, "pass")), 1);
    }
}

// The library ends a run that leaves reads behind.
TEST_F(QueuedReads, NoneIsLeftBehindByAnError)
{
    const RunResult saved = run({"save", device.path(), file}, "pwrite#5=ENOSPC;aio=late:20");
    EXPECT_EQ(saved.status, 1) << saved;
    EXPECT_EQ(saved.err, "zu_tierctl: cannot write " + file + ": No space left on device\n");
    EXPECT_GE(taken().size(), 8U);
    const RunResult checked = run({"check", "--all", device.path()}, "write=ENOSPC;aio=late:20");
    EXPECT_EQ(checked.status, 2) << checked;
}

} // namespace
