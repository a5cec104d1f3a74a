// What every command of the companion stands: bad command lines, and inputs and outputs that are
// none. It ends with the status that the manual gives, says why, and leaves every file as it was.

#include "cache.h"
#include "conformance.h"
#include "plans.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <set>

using namespace tier_test;

namespace {

constexpr char OUT[] = "out"; // names a file to be created

// Runs on two images, "device" and "saved", of which the first has a damaged inode 2; on a plan
// that mends it, and on the undo file of a plan that made it so.
struct Command {
    std::vector<std::string> args;
    std::string last; // the operand that is missing without the last argument
    int failed = 1;
    int done = 0;
    bool prints = true;
    bool writes = false;     // the device
    bool answers = false;    // with a JSON document, also when it fails
    bool rescues = false;    // a device without a super block, if it has tables
    bool takes_more = false; // any number of devices
};

const std::vector<Command> COMMANDS{
    {{"apply", "--undo", "new", "plan", "device"}, "DEVICE"},
    {{"apply", "--commit", "--undo", OUT, "plan", "device"}, "DEVICE", 1, 0, true, true},
    {{"check", "device"}, "DEVICE", 2, 1},
    {{"check", "--json", "device"}, "DEVICE", 2, 1, true, false, true},
    {{"save", "device", OUT}, "FILE", 1, 0, false},
    {{"template", "device", "inode", "2"}, "NO"},
    {{"revert", "saved", "device", "inode", "2"}, "NO"},
    {{"revert", "--commit", "saved", "device", "inode", "2"}, "NO", 1, 0, true, true},
    {{"domain", "--all", "device"}, "DEVICE"},
    {{"export", "--node", "n1", "device", OUT}, "DIR", 1, 0, false},
    {{"salvage", "device", OUT}, "DIR", 1, 0, false},
    {.args = {"rescue", "device"}, .last = "DEVICE", .rescues = true},
    {{"diff", "saved", "device"}, "B", 2, 1},
    {{"diff", "--json", "saved", "device"}, "B", 2, 1},
    {{"plan", "device"}, "DEVICE"},
    {{"plan", "--from", "saved", "device"}, "DEVICE"},
    {{"map", "device"}, "DEVICE"},
    {{"map", "--html", OUT, "device"}, "DEVICE", 1, 0, false},
    {{"sample", "--layout", "v1", OUT}, "FILE", 1, 0, false},
    {.args = {"sql", "device", "select * from inode"}, .last = "QUERY", .takes_more = true},
    {.args = {"sql", "--into", OUT, "device"},
     .last = "DEVICE",
     .prints = false,
     .takes_more = true},
    {{"undo", "undo", "device", "inode", "2"}, "NO"},
    {{"undo", "--commit", "undo", "device", "inode", "2"}, "NO", 1, 0, true, true},
    {.args = {"usage", "device"}, .last = "DEVICE", .failed = 2, .done = 1, .takes_more = true},
    {.args = {"usage", "--json", "device"},
     .last = "DEVICE",
     .failed = 2,
     .done = 1,
     .answers = true,
     .takes_more = true},
};

const std::set<std::string> FILES{"device", "saved", "plan", "undo", "new", OUT};

// An input, and what is said of the path.
struct Input {
    std::string kind;
    std::string complaint; // empty: none
    std::string complaint_of_writing = complaint;
};

const std::string NONE = "cannot read the super block of %: No such device or address";
const std::string NO_SUPER_BLOCK = no_super_block("%");
const std::string NO_TABLES =
    "% has no super block of a known layout, and no entry of a table that "
    "can be told without one";
const std::string NEITHER = "% is neither a regular file nor a block device";

const std::vector<Input> INPUTS{
    {"missing", "cannot open %: No such file or directory"},
    {"unreadable", "cannot open %: Permission denied"},
    {"tiny", NONE},
    {"empty", NONE},
    {"random", NO_SUPER_BLOCK},
    {"read-only", "", "cannot open %: Permission denied"},
    {"directory", NEITHER},
    {"fifo", NEITHER},
    {"/dev/null", NEITHER},
    {"/dev/zero", NEITHER},
    {"/dev/tty", NEITHER},
    {"socket", NEITHER},
};

std::string of_path(std::string complaint, const std::string &path)
{
    return "zu_tierctl: " + std::regex_replace(complaint, std::regex("%"), path) + "\n";
}

class Conformance : public testing::Test {
protected:
    const Cache cache = make_cache("v1");
    const TempDir &directory = cache.device.directory();
    const std::string bad = directory.path("bad");

    void SetUp() override
    {
        std::filesystem::copy_file(path("device"), path("saved"));
        const std::int64_t offset = cache.offset("inode", 2);
        const auto place = static_cast<std::uint64_t>(offset);
        const Block sound = cache.device.block(place);
        damage();
        const Block damaged = cache.device.block(place);
        const PlannedDevice device{"v1", cache.device.size(), cache.device.block(SUPER_OFFSET)};
        directory.write("plan", plan_text(device, {{"inode", 2, offset, damaged, sound}}));
        directory.write("undo", undo_file(device, "", {{"inode", 2, offset, sound, damaged}}));
    }

    // A single bit: the entry has errors of its own, which a certain mend may give back.
    void damage() const { flip(cache.device, cache.offset("inode", 2) + 60, 0x01); }
    std::string path(const std::string &name) const { return directory.path(name); }

    // The arguments with the paths of the files, the one at `place` replaced by the bad one.
    std::vector<std::string> args_of(const Command &command, std::size_t place = 0) const
    {
        std::vector<std::string> args = command.args;
        for (std::size_t i = 1; i < args.size(); ++i)
            if (FILES.contains(args[i]))
                args[i] = path(args[i]);
        if (place != 0)
            args[place] = bad;
        return args;
    }

    // A run that fails leaves every file as it was. One that is done leaves its output, which is
    // removed, or what it has committed, which is undone.
    RunResult run(const std::vector<std::string> &args, int status, bool failed = true,
                  const std::string &output = {}, const std::string &answer = {}) const
    {
        SCOPED_TRACE(testing::PrintToString(args) + output);
        const auto before = files_in(directory);
        RunResult run = run_as_user(ZU_TIERCTL, args, output);
        EXPECT_FALSE(run.timed_out);
        EXPECT_EQ(run.status, status) << run;
        auto after = files_in(directory);
        if (failed) {
            EXPECT_EQ(run.out, answer);
            EXPECT_TRUE(run.err.starts_with("zu_tierctl: ")) << run;
        } else {
            EXPECT_EQ(std::filesystem::remove_all(path(OUT)) != 0,
                      std::ranges::count(args, path(OUT)) == 1);
            if (std::ranges::count(args, "--commit") != 0) {
                EXPECT_EQ(after.at("device"), after.at("saved"));
                damage();
            }
            after = files_in(directory);
        }
        EXPECT_TRUE(after == before);
        return run;
    }

    // What a run prints is lost, and it says so; but not when nobody reads any more, unless a
    // write is expected of it. Then it also says that nothing was written.
    void expect_lost(const std::vector<std::string> &args, int status, const std::string &output,
                     const std::string &reason) const
    {
        const bool commits = std::ranges::count(args, "--commit") != 0;
        const bool is_of_plan =
            (args[0] == "apply" || args[0] == "undo") && args.back() != "--help";
        const bool unread = output == "broken" && (!commits || is_of_plan);
        const bool silent = output == "broken" && !commits;
        const bool tells = output == "broken" || is_of_plan;
        SCOPED_TRACE(testing::PrintToString(args) + output);
        const auto before = files_in(directory);
        const RunResult ended = run_as_user(ZU_TIERCTL, args, output);
        EXPECT_EQ(ended.status, unread ? 128 + SIGPIPE : status);
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err, silent ? ""
                                    : std::string("zu_tierctl: ") +
                                          (tells ? "nothing was written: " : "") +
                                          "cannot write to standard output: " + reason + "\n");
        EXPECT_TRUE(files_in(directory) == before);
    }
};

TEST_F(Conformance, CoversEveryCommand)
{
    std::set<std::string> covered;
    for (const Command &command : COMMANDS)
        covered.insert(command.args.front());
    std::set<std::string> helped;
    const std::string help = run({"--help"}, 0, false).out;
    for (const std::string &line : lines_of(help.substr(help.find("Subcommands:") + 13)))
        if (line.starts_with("  "))
            helped.insert(line.substr(2, line.find(' ', 2) - 2));
    EXPECT_EQ(covered, helped);
    const std::string manual = read_file(MANUALS "/zu_tierctl.8");
    std::set<std::string> described;
    const std::regex section("\n\\.Ss (\\w+)\n");
    for (std::sregex_iterator at(manual.begin(), manual.end(), section), none; at != none; ++at)
        described.insert(at->str(1));
    EXPECT_EQ(covered, described);
}

TEST_F(Conformance, CommandLines)
{
    EXPECT_TRUE(run({"--version"}, 0, false).out.starts_with("zu_tierctl "));
    expect_complaint(run({}, 2), 2, "A subcommand is required");
    for (const Command &command : COMMANDS) {
        const std::string &name = command.args.front();
        const std::string help = run({name, "--help"}, 0, false).out;
        EXPECT_NE(help.find("\nUsage: zu_tierctl " + name + " "), std::string::npos) << help;
        run({name}, 2);
        std::vector<std::string> args = args_of(command);
        args.emplace_back("--bogus");
        EXPECT_NE(run(args, 2).err.find("--bogus"), std::string::npos);
        if (!command.takes_more) {
            args.back() = "superfluous";
            EXPECT_NE(run(args, 2).err.find("superfluous"), std::string::npos);
        }
        args.resize(args.size() - 2);
        expect_complaint(run(args, 2), 2, command.last + " is required");
    }
}

TEST_F(Conformance, Inputs)
{
    for (const Command &command : COMMANDS) {
        for (std::size_t i = 1; i < command.args.size(); ++i) {
            const std::string &good = command.args[i];
            if (good != "device" && good != "saved")
                continue;
            const bool written = command.writes && good == "device";
            for (const Input &input : INPUTS) {
                lay(input.kind, path(good), bad);
                const auto &complaint = written ? input.complaint_of_writing : input.complaint;
                const bool failed = !complaint.empty();
                std::string said = failed ? of_path(complaint, bad) : "";
                if (command.rescues && good == "device" &&
                    (input.complaint == NONE || input.kind == "random"))
                    said = of_path(NO_TABLES, bad);
                const std::string answer = command.answers && failed
                                               ? R"({"device":")" + bad + R"(","error":")" +
                                                     said.substr(12, said.size() - 13) + "\"}\n"
                                               : "";
                const RunResult ended =
                    run(args_of(command, i), failed ? command.failed : command.done, failed, {},
                        answer);
                if (failed) {
                    EXPECT_EQ(ended.err, said);
                }
            }
        }
    }
}

// Nothing that is there is replaced.
TEST_F(Conformance, OutputFiles)
{
    for (const Command &command : COMMANDS) {
        const auto out = std::ranges::find(command.args, OUT) - command.args.begin();
        if (out == std::ssize(command.args))
            continue;
        const auto place = static_cast<std::size_t>(out);
        for (const Input &input : INPUTS) {
            lay(input.kind, path("device"), bad);
            const bool is_place = command.last == "DIR" && input.kind == "directory";
            if (input.kind != "missing" && !is_place) {
                EXPECT_NE(run(args_of(command, place), 1).err.find(bad), std::string::npos);
            }
        }
        std::vector<std::string> args = args_of(command);
        for (const std::string &target : {path("none/out"), std::string("/proc/out")}) {
            args[place] = target;
            expect_complaint(run(args, 1), 1,
                             "cannot create " + target + ": No such file or directory");
        }
    }
}

TEST_F(Conformance, StandardOutput)
{
    for (const Command &command : COMMANDS) {
        EXPECT_EQ(run(args_of(command), command.done, false).out.empty(), !command.prints);
        for (const auto &[output, reason] : BAD_OUTPUTS) {
            const int status = command.prints ? command.failed : command.done;
            if (command.prints) {
                expect_lost(args_of(command), status, output, reason);
            } else {
                run(args_of(command), status, false, output);
            }
        }
    }
}

// Whatever a path or an argument holds, what is said of it is one line.
TEST_F(Conformance, LinesStayWhole)
{
    const std::string odd = path("a\nb\x1B[2J\xC3\xA4");
    const std::string shown = path("a\\x0ab\\x1b[2J\xC3\xA4");
    for (const Command &command : COMMANDS) {
        for (std::size_t i = 1; i < command.args.size(); ++i) {
            if (command.args[i] != "device" && command.args[i] != "saved")
                continue;
            std::vector<std::string> args = args_of(command);
            args[i] = odd;
            EXPECT_EQ(run_ctl(args).err,
                      of_path("cannot open %: No such file or directory", shown));
        }
        std::vector<std::string> args = args_of(command);
        args.emplace_back("--no\nsuch");
        EXPECT_EQ(lines_of(run_ctl(args).err).size(), 1U);
    }
    std::filesystem::create_hard_link(path("device"), odd);
    const RunResult checked = run_ctl({"check", odd});
    EXPECT_EQ(lines_of(checked.out).size(),
              lines_of(run_ctl({"check", path("device")}).out).size());
    EXPECT_NE(checked.out.find(" -p $'" + path("a\\012b\\033[2J\\303\\244") + "' -c dump_inode"),
              std::string::npos)
        << checked;
    const RunResult drawn = run_ctl({"map", odd});
    EXPECT_TRUE(drawn.out.starts_with('"' + path("a\\x0ab\\x1b[2J\\xc3\\xa4") + "\"\n")) << drawn;
}

TEST_F(Conformance, LostHelp)
{
    std::vector<std::vector<std::string>> helps{{"--help"}, {"--version"}};
    for (const Command &command : COMMANDS)
        helps.push_back({command.args.front(), "--help"});
    for (const auto &args : helps)
        for (const auto &[output, reason] : BAD_OUTPUTS)
            expect_lost(args, 1, output, reason);
}

} // namespace
