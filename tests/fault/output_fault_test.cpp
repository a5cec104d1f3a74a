// Output that is lost: the run must not look successful.

#include "dump_text.h"
#include "expect.h"
#include "faulty_run.h"
#include "v1_device.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace tier_test;

namespace {

constexpr const char *FULL = "/dev/full";

LogLine write_failed(const std::string &reason)
{
    return error_line("main", text("write output failed:%s", reason.c_str()));
}

std::string written_at(std::uint64_t offset)
{
    return text(", the block at %lu was written", offset);
}

// "dump_super" prints a few hundred bytes, "dump_inode" more than any stream buffers.
class OutputFaults : public testing::Test {
protected:
    const SuperV1 super = super_v1(1, 300, 1);
    Device device = make_v1_device(super);
    const std::vector<std::string> commands{"dump_super", "dump_inode"};

    std::string expected_out(const std::string &command) const
    {
        if (command == "dump_super")
            return json(super);
        std::vector<std::string> items;
        for (std::uint32_t no = 0; no < super.inode_cnt; ++no)
            items.push_back(json(InodeV1{.no = no}, inode_offset(super, no)));
        return joined(items);
    }
};

TEST_F(OutputFaults, LargeOutputIsLargerThanTheBuffers)
{
    EXPECT_GT(expected_out("dump_inode").size(), 65536U);
}

TEST_F(OutputFaults, FullStandardOutput)
{
    for (const std::string &command : commands)
        expect_run(
            run_logged(device, command, {}, {.stdout_path = FULL}),
            {.status = 5,
             .log = {settings_line(device, command), write_failed("No space left on device")}});
}

TEST_F(OutputFaults, FullOutputFile)
{
    for (const std::string &command : commands)
        expect_run(run_logged(device, command, {"-o", FULL}),
                   {.status = 5,
                    .log = {settings_line(device, command, {.out_path = FULL}),
                            write_failed("No space left on device")}});
}

TEST_F(OutputFaults, OutputFileThatCannotBeClosed)
{
    const std::string path = device.directory().path("out");
    for (const std::string &command : commands) {
        const FaultyRun run = run_faulty(device, command, "fclose=EIO", {"-o", path});
        expect_run(run, {.status = 5,
                         .log = {settings_line(device, command, {.out_path = path}),
                                 write_failed("Input/output error")}});
        EXPECT_EQ(run.taken.size(), 1U);
        EXPECT_EQ(read_file(path), expected_out(command));
    }
}

TEST_F(OutputFaults, HandlersOwnFailureComesFirst)
{
    const std::string path = device.directory().path("out");
    expect_run(run_faulty(device, "dump_inode", "fclose=EIO", {"-n", "300", "-o", path}),
               {.status = 22,
                .log = {settings_line(device, "dump_inode", {.meta_no = 300, .out_path = path}),
                        error_line("zutr_dump_common", "invalid no 300, max cnt:300")}});
}

// The write to the device comes before the end of the output.
TEST_F(OutputFaults, CommittedRepairIsWrittenAndStillReported)
{
    const std::string conf = device.directory().write("conf", "{\"i_no\":2,\"i_use\":0}");
    const auto offset = static_cast<std::uint64_t>(inode_offset(super, 2));
    for (const bool commit : {false, true}) {
        device.write(offset, encode(inode_used(2, 0)));
        std::vector<std::string> args{"-f", conf};
        if (commit)
            args.emplace_back("-y");
        const LoggedRun run = run_logged(device, "repair_inode", args, {.stdout_path = FULL});
        EXPECT_EQ(run.status, 5) << run;
        EXPECT_EQ(run.errors, Log{write_failed("No space left on device" +
                                               (commit ? written_at(offset) : ""))});
        EXPECT_EQ(device.block(offset),
                  commit ? encode(InodeV1{.no = 2}) : encode(inode_used(2, 0)));
    }
}

// A block of an image that is too large to be read as a whole.
std::string block_of(const std::string &image, std::uint64_t offset)
{
    std::string block(BLOCK_SIZE, '\0');
    std::ifstream in(image, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset)).read(block.data(), BLOCK_SIZE);
    EXPECT_TRUE(in.good()) << offset;
    return block;
}

// Every repair that prints what it has built: only then can its output be lost.
TEST(CommittedRepairs, WhoseOutputIsLostSayWhatTheyHaveWritten)
{
    const TempDir files;
    const std::string image = files.path("image");
    const std::string conf = files.path("conf");
    const std::string log = files.path("log");
    const auto output = [](const std::string &program, const std::vector<std::string> &args) {
        const RunResult run = run_program(program, args);
        EXPECT_EQ(run.status, 0) << run;
        return run.out;
    };
    for (const std::string layout : {"v1", "v2", "v3"}) {
        output(ZU_TIERCTL, {"sample", "--force", "--layout", layout, image});
        for (const std::string table : {"super", "brick", "inode", "extent"}) {
            if (layout == "v3" && table == "extent")
                continue; // not printed
            SCOPED_TRACE(layout + ' ' + table);
            files.write("conf", output(ZU_TIERCTL, {"template", image, table, "0"}));
            std::uint64_t offset = SUPER_OFFSET;
            if (table != "super") {
                const std::string dump =
                    output(ZU_TIER, {"-l", log, "-p", image, "-c", "dump_" + table, "-n", "0"});
                const std::string key = "\"meta_offset\":";
                offset = std::stoull(dump.substr(dump.find(key) + key.size()));
            }
            const auto block = [&] { return block_of(image, offset); };
            const std::vector<std::string> args{"-l", log,  "-p", image, "-c", "repair_" + table,
                                                "-f", conf, "-y"};
            output(ZU_TIER, args);
            const std::string repaired = block();
            std::fstream(image, std::ios::in | std::ios::out | std::ios::binary)
                    .seekp(static_cast<std::streamoff>(offset + BLOCK_SIZE - 1))
                << '!';
            ASSERT_NE(block(), repaired);
            const RunResult run = run_tool(args, {.stdout_path = FULL});
            EXPECT_EQ(run.status, 5) << run;
            EXPECT_EQ(parse_log(run.err),
                      Log{write_failed("No space left on device" + written_at(offset))});
            EXPECT_EQ(block(), repaired);
        }
    }
}

// It writes nothing, whatever -y says.
TEST(CommittedRepairs, AConversionHasWrittenNothing)
{
    const TempDir files;
    const std::string image = files.path("image");
    const RunResult made =
        run_program(ZU_TIERCTL, {"sample", "--layout", "v1", "--for-conversion", image});
    ASSERT_EQ(made.status, 0) << made;
    const RunResult old = run_program(ZU_TIERCTL, {"template", image, "super", "0"});
    ASSERT_EQ(old.status, 0) << old;
    const std::string before = block_of(image, SUPER_OFFSET);
    const std::vector<std::string> args{"-l", files.path("log"),
                                        "-p", image,
                                        "-c", "convert_super",
                                        "-v", "2",
                                        "-f", files.write("conf", old.out),
                                        "-y"};
    EXPECT_EQ(run_tool(args).status, 0);
    const RunResult run = run_tool(args, {.stdout_path = FULL});
    EXPECT_EQ(run.status, 5) << run;
    ASSERT_FALSE(parse_log(run.err).empty()) << run;
    EXPECT_EQ(parse_log(run.err).back(), write_failed("No space left on device"));
    EXPECT_EQ(block_of(image, SUPER_OFFSET), before);
}

// A repair prints its entry on standard output, whatever -o says.
TEST_F(OutputFaults, StandardOutputCountsBesideAnOutputFile)
{
    const std::string conf = device.directory().write("conf", "{\"i_no\":2,\"i_use\":0}");
    const std::string path = device.directory().path("out");
    const LoggedRun run =
        run_logged(device, "repair_inode", {"-f", conf, "-o", path}, {.stdout_path = FULL});
    EXPECT_EQ(run.status, 5) << run;
    EXPECT_EQ(run.errors, Log{write_failed("No space left on device")});
    EXPECT_EQ(read_file(path), "");
}

// The output file is compared with the device as far as both can be examined.
TEST_F(OutputFaults, DeviceThatTellsNothingOfItself)
{
    const std::string path = device.directory().write("out", "before");
    const FaultyRun run = run_faulty(device, "dump_super", "fstat#1=EIO", {"-o", path});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.taken.size(), 1U);
    EXPECT_EQ(read_file(path), json(super));
}

class PipeFaults : public OutputFaults {
protected:
    // The path of the writing end of a pipe that nobody reads from.
    std::string closed_pipe()
    {
        EXPECT_EQ(pipe(ends), 0);
        close(ends[0]);
        return text("/proc/self/fd/%d", ends[1]);
    }

    ~PipeFaults() override
    {
        if (ends[1] >= 0)
            close(ends[1]);
    }

    int ends[2] = {-1, -1};
};

// How the process reacts to SIGPIPE, which a run inherits.
class PipeSignal {
public:
    explicit PipeSignal(sighandler_t action) : before_(std::signal(SIGPIPE, action)) {}
    ~PipeSignal() { std::signal(SIGPIPE, before_); }
    PipeSignal(const PipeSignal &) = delete;
    PipeSignal &operator=(const PipeSignal &) = delete;

private:
    sighandler_t before_;
};

TEST_F(PipeFaults, ClosedPipeIsAnErrorHoweverTheSignalIsInherited)
{
    const std::string path = closed_pipe();
    for (const sighandler_t action : {SIG_IGN, SIG_DFL}) {
        const PipeSignal signal(action);
        for (const std::string &command : commands)
            expect_run(run_logged(device, command, {}, {.stdout_path = path}),
                       {.status = 5,
                        .log = {settings_line(device, command), write_failed("Broken pipe")}});
    }
}

TEST_F(PipeFaults, CommittedRepairSaysWhatItHasWritten)
{
    const std::string conf = device.directory().write("conf", "{\"i_no\":2,\"i_use\":0}");
    const auto offset = static_cast<std::uint64_t>(inode_offset(super, 2));
    const LoggedRun run =
        run_logged(device, "repair_inode", {"-f", conf, "-y"}, {.stdout_path = closed_pipe()});
    EXPECT_EQ(run.status, 5) << run;
    EXPECT_EQ(run.errors, Log{write_failed("Broken pipe" + written_at(offset))});
    EXPECT_EQ(device.block(offset), encode(InodeV1{.no = 2}));
}

// The first 20 entries are damaged and fill the log, the others the output.
TEST_F(PipeFaults, FullLogDoesNotExplainAFailedOutput)
{
    std::vector<InodeV1> inodes;
    for (std::uint32_t no = 0; no < 20; ++no) {
        inodes.push_back({.no = no});
        inodes.back().checksum = 0;
    }
    const Device damaged = make_v1_device(super, {}, inodes);
    const std::vector<std::string> args{"-l", FULL, "-p", damaged.path(), "-c", "dump_inode"};
    RunResult run = run_tool(args, {.stdout_path = closed_pipe()});
    EXPECT_EQ(run.status, 5) << run;
    ASSERT_EQ(parse_log(run.err).size(), 21U);
    EXPECT_EQ(parse_log(run.err).back(), write_failed("Broken pipe"));
    // By itself it is no failure.
    run = run_tool(args);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(parse_log(run.err).size(), 20U);
}

// Runs after a line of shell, which sets limits or closes descriptors.
class ShellFaults : public OutputFaults {
protected:
    LoggedRun run_after(const std::string &line, const std::string &command,
                        const std::vector<std::string> &args) const
    {
        const std::string log = device.directory().write("log", "");
        std::vector<std::string> all{
            "-c",   line + "; exec \"$0\" \"$@\"", ZU_TIER, "-l", log, "-p", device.path(), "-c",
            command};
        all.insert(all.end(), args.begin(), args.end());
        LoggedRun run{run_program("/bin/sh", all), {}, {}};
        run.log = parse_log(read_file(log));
        run.errors = parse_log(run.err);
        return run;
    }
};

TEST_F(ShellFaults, OutputThatOutgrowsTheFileSizeLimit)
{
    const std::string path = device.directory().path("out");
    const LogLine failure = write_failed("File too large");
    LoggedRun run = run_after("ulimit -S -f 64", "dump_inode", {"-o", path});
    EXPECT_EQ(run.status, 5) << run;
    EXPECT_EQ(run.log, (Log{settings_line(device, "dump_inode", {.out_path = path}), failure}));
    EXPECT_EQ(read_file(path), expected_out("dump_inode").substr(0, 64 * 512));
    run = run_after("ulimit -S -f 64", "dump_inode", {});
    EXPECT_EQ(run.status, 5);
    EXPECT_EQ(run.log, (Log{settings_line(device, "dump_inode"), failure}));
}

TEST_F(ShellFaults, StandardInputIsNotNeeded)
{
    const LoggedRun run = run_after("exec <&-", "dump_super", {"-y"});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, json(super));
    EXPECT_EQ(run.log, Log{settings_line(device, "dump_super")});
}

// The device must not be given the number of a closed standard stream.
TEST_F(ShellFaults, ClosedStandardStreamsLeaveTheDeviceAlone)
{
    const std::vector<std::uint8_t> bytes = device.bytes();
    for (const std::string closed : {"exec >&-", "exec <&- >&-", "exec <&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        const LoggedRun run = run_after(closed, "dump_super", {"-y"});
        EXPECT_EQ(run.status, 5) << run;
        EXPECT_EQ(run.log,
                  (Log{settings_line(device, "dump_super"), write_failed("Bad file descriptor")}));
        EXPECT_EQ(device.bytes(), bytes);
    }
    for (const std::string closed : {"exec 2>&-", "exec <&- 2>&-", "exec <&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        const LoggedRun run = run_after(closed, "dump_inode", {"-y", "-n", "300"});
        EXPECT_EQ(run.status, 22) << run;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.log, (Log{settings_line(device, "dump_inode", {.meta_no = 300}),
                                error_line("zutr_dump_common", "invalid no 300, max cnt:300")}));
        EXPECT_EQ(device.bytes(), bytes);
    }
}

TEST_F(ShellFaults, CommittedRepairWithClosedOutputSaysWhatItHasWritten)
{
    const std::string conf = device.directory().write("conf", "{\"i_no\":2,\"i_use\":0}");
    const auto offset = static_cast<std::uint64_t>(inode_offset(super, 2));
    const LoggedRun run = run_after("exec >&-", "repair_inode", {"-f", conf, "-y"});
    EXPECT_EQ(run.status, 5) << run;
    EXPECT_EQ(run.errors, Log{write_failed("Bad file descriptor" + written_at(offset))});
    EXPECT_EQ(device.block(offset), encode(InodeV1{.no = 2}));
}

// Then nothing is opened that could replace a standard stream.
TEST_F(ShellFaults, ClosedStandardStreamsWithoutANullDevice)
{
    const std::vector<std::uint8_t> bytes = device.bytes();
    const std::string faults =
        std::string("export ZUTR_FAULTS='open#1-=EIO' LD_PRELOAD='") + ZUTR_FAULTS_LIB + "'; ";
    for (const std::string closed : {"exec >&-", "exec <&-", "exec <&- >&-"}) {
        SCOPED_TRACE(closed);
        const LoggedRun run = run_after(faults + closed, "dump_inode", {"-y"});
        EXPECT_EQ(run.status, 5) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.errors, Log{error_line("main", "open /dev/null failed:Input/output error")});
        EXPECT_EQ(run.log, Log{});
        EXPECT_EQ(device.bytes(), bytes);
    }
}

} // namespace
