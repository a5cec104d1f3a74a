// zu_tierctl salvage on devices and disks that fail, and killed: it says what is missing, calls
// nothing copied that may not be on the disk, and goes on to the same files.

#include "faulty_run.h"
#include "kill_run.h"
#include "salvage_tree.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

// Of so many moments this many are tried; scripts/sweep.sh tries all.
const std::size_t MOMENTS = [] {
    const char *wanted = std::getenv("ZU_TIER_SALVAGE_MOMENTS");
    return wanted == nullptr ? 5 : std::stoul(wanted);
}();

class SalvageFaults : public testing::TestWithParam<std::string> {
protected:
    const std::string layout = GetParam();
    const Device device = make_sample(small_sample(layout), layout);
    const std::vector<HeldPiece> wanted = dirty(held_pieces(device, layout));
    const SalvageTree complete = expected_tree(wanted);
    const TempDir directory;
    const std::string into = directory.path("salvaged");
    const std::string manifest = into + "/manifest.ndjson";

    RunResult salvage(const std::string &faults, const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> args{"salvage", device.path(), into};
        args.insert(args.end(), more.begin(), more.end());
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                               {"ZUTR_FAULTS", "trace:" + directory.path("trace") + ";" + faults}};
        fs::remove(directory.path("trace"));
        ++runs;
        return run_program(ZU_TIERCTL, args, options);
    }

    mutable std::size_t runs = 0;

    void TearDown() override { RecordProperty("runs", std::to_string(runs)); }

    // How often a run makes the call.
    std::size_t calls(const std::string &call) const
    {
        EXPECT_EQ(salvage(call + "=pass").status, 0);
        fs::remove_all(into);
        return lines_of(read_file(directory.path("trace"))).size();
    }

    // Calls `act` with some of the numbers 1 to `count`, the first and the last of them included.
    template <class Act>
    static void some_of(std::size_t count, const Act &act)
    {
        EXPECT_GT(count, 0U);
        for (std::size_t i = 0; i < std::min(count, MOMENTS); ++i)
            act(1 + i * (count - 1) / std::max<std::size_t>(1, std::min(count, MOMENTS) - 1));
    }

    // The lines of a manifest, of which the last may be torn.
    std::vector<nlohmann::json> kept_lines() const
    {
        std::vector<nlohmann::json> lines;
        const std::string text = fs::exists(manifest) ? read_file(manifest) : "";
        for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos;
             at = end + 1)
            lines.push_back(nlohmann::json::parse(text.substr(at, end - at)));
        if (!lines.empty())
            lines.erase(lines.begin());
        return lines;
    }

    // What the manifest calls copied is in its file, and a run that goes on completes the rest.
    std::size_t expect_resumed() const
    {
        const std::vector<nlohmann::json> kept = kept_lines();
        EXPECT_LE(kept.size(), complete.manifest.size());
        for (std::size_t i = 0; i < std::min(kept.size(), complete.manifest.size()); ++i) {
            EXPECT_EQ(kept[i], complete.manifest[i]);
            const std::string name = kept[i]["file"];
            const std::uint64_t offset = kept[i]["offset"];
            const std::uint64_t length = kept[i]["length"];
            EXPECT_TRUE(read_file(into + "/" + name).substr(offset, length) ==
                        complete.files.at(name).substr(offset, length));
        }
        const RunResult resumed = salvage("pread#99999=pass", {"--resume"});
        EXPECT_EQ(resumed.status, 0) << resumed;
        EXPECT_EQ(resumed.err, total_line(complete));
        expect_same(read_tree(into), complete);
        fs::remove_all(into);
        return kept.size();
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, SalvageFaults, testing::Values("v1", "v2", "v3"),
                         [](const auto &layout) { return layout.param; });

// Pieces that follow one another on the device are read at once, up to a MiB of them.
TEST_P(SalvageFaults, NeighboursAreReadAtOnce)
{
    std::map<std::uint64_t, std::uint64_t> expected; // length by offset
    std::uint64_t run = 0;
    for (const HeldPiece &piece : wanted) {
        const std::uint64_t length = round_up(piece.length, BLOCK_SIZE);
        const bool goes_on = expected.contains(run) && run + expected[run] == piece.device &&
                             expected[run] + length <= MIB;
        run = goes_on ? run : piece.device;
        expected[run] += length;
    }
    EXPECT_EQ(salvage("pread=pass").status, 0);
    std::map<std::uint64_t, std::uint64_t> found;
    for (const std::string &call : lines_of(read_file(directory.path("trace")))) {
        std::uint64_t length = 0;
        std::uint64_t offset = 0;
        EXPECT_EQ(std::sscanf(call.c_str(), "pread(%lu)@%lu=", &length, &offset), 2) << call;
        if (offset >= wanted.front().device)
            found[offset] += length;
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(expected.size() < wanted.size(), layout != "v1");
}

// A read of the device that fails once is tried again, block by block, but for the super block.
TEST_P(SalvageFaults, EachReadFailsOnce)
{
    some_of(calls("pread"), [this](std::size_t turn) {
        SCOPED_TRACE(turn);
        const RunResult run = salvage("pread#" + std::to_string(turn) + "=EIO");
        if (turn == 1) {
            EXPECT_EQ(run.err,
                      "zu_tierctl: cannot read the super block of " + device.path() +
                          ": Input/output error; what helps: " + super_ways(device.path()) + "\n");
            EXPECT_FALSE(fs::exists(into));
            return;
        }
        if (run.err.starts_with("zu_tierctl: cannot read " + manifest + ": ")) {
            EXPECT_EQ(run.status, 1);
            EXPECT_EQ(expect_resumed(), 0U);
            return;
        }
        EXPECT_EQ(run.status, 0) << run;
        expect_same(read_tree(into), complete);
        fs::remove_all(into);
    });
}

TEST_P(SalvageFaults, BlocksThatCannotBeReadAreHoles)
{
    const HeldPiece &first = wanted.front();
    const HeldPiece &last = wanted.back();
    const std::uint64_t end = (last.length - 1) / BLOCK_SIZE * BLOCK_SIZE;
    const std::set<std::uint64_t> bad{first.device, last.device + end};
    std::string faults;
    for (const std::uint64_t block : bad)
        faults += text("pread@%lu+4096=EIO;", block);
    const RunResult run = salvage(faults);
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_NE(run.err.find(" bytes cannot be read: see " + manifest), std::string::npos) << run;
    expect_same(read_tree(into), expected_tree(wanted, bad));
}

TEST_P(SalvageFaults, EachWriteFails)
{
    some_of(calls("pwrite"), [this](std::size_t turn) {
        SCOPED_TRACE(turn);
        const RunResult run = salvage("pwrite#" + std::to_string(turn) + "=ENOSPC");
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_TRUE(run.err.starts_with("zu_tierctl: cannot write " + into + "/")) << run;
        EXPECT_NE(run.err.find(": No space left on device"), std::string::npos) << run;
        EXPECT_EQ(run.err.ends_with("; salvage --resume goes on from here\n"), turn != 1) << run;
        expect_resumed();
    });
}

TEST_P(SalvageFaults, EachWriteIsShort)
{
    const RunResult run = salvage("pwrite=short:1000");
    EXPECT_EQ(run.status, 0) << run;
    expect_same(read_tree(into), complete);
}

// What may not be on the disk is not called copied.
TEST_P(SalvageFaults, ADiskThatTellsOfItTooLate)
{
    for (const std::string call : {"syncfs", "fsync"}) {
        const std::size_t count = calls(call);
        some_of(count, [&](std::size_t turn) {
            SCOPED_TRACE(call + std::to_string(turn));
            const RunResult run = salvage(call + "#" + std::to_string(turn) + "=EIO");
            EXPECT_EQ(run.status, 1) << run;
            EXPECT_TRUE(run.err.starts_with("zu_tierctl: cannot write ")) << run;
            EXPECT_NE(run.err.find(": Input/output error"), std::string::npos) << run;
            const std::size_t kept = expect_resumed();
            if (call == "syncfs" && turn == 1) {
                EXPECT_EQ(kept, 0U);
            }
        });
    }
}

TEST_P(SalvageFaults, KilledAtEachWrite)
{
    for (const std::string call : {"pwrite", "syncfs", "fsync", "close"})
        some_of(calls(call), [&](std::size_t turn) {
            SCOPED_TRACE(call + std::to_string(turn));
            EXPECT_EQ(salvage(call + "#" + std::to_string(turn) + "=kill").signal, SIGKILL);
            expect_resumed();
        });
}

TEST_P(SalvageFaults, KilledAndInterruptedAnywhere)
{
    const std::vector<std::string> args{"salvage", device.path(), into};
    const std::size_t stops = run_killed_at(1000000, args, ZU_TIERCTL);
    fs::remove_all(into);
    some_of(stops, [&](std::size_t stop) {
        SCOPED_TRACE(stop);
        run_killed_at(stop, args, ZU_TIERCTL, 0, stop % 2 == 0 ? SIGKILL : SIGINT);
        ++runs;
        expect_resumed();
    });
}

// What is past the largest file that the disk takes is tried again: another disk takes more.
TEST_P(SalvageFaults, FilesThatAreTooLargeForTheDisk)
{
    const RunResult run = salvage("pwrite#2=EFBIG");
    EXPECT_EQ(run.status, 1) << run;
    std::uint64_t lost = 0;
    for (const auto &line : kept_lines())
        lost += line["state"] == "too large" ? line["length"].get<std::uint64_t>() : 0;
    EXPECT_GT(lost, 0U);
    EXPECT_EQ(run.err, text("zu_tierctl: %lu bytes lie past the end of the largest file that %s "
                            "takes, by its file system or a limit (ulimit -f): see %s; salvage "
                            "--resume tries them again\n",
                            lost, into.c_str(), manifest.c_str()) +
                           total_line(read_tree(into)));
    EXPECT_EQ(salvage("pread#99999=pass", {"--resume"}).status, 0);
    expect_same(read_tree(into), complete);
}

TEST_P(SalvageFaults, NoMemory)
{
    const RunResult run = salvage("posix_memalign#5=ENOMEM");
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, "zu_tierctl: std::bad_alloc\n");
    expect_resumed();
}

} // namespace
