// What every command stands: bad command lines, and inputs and outputs that are none. It ends with
// the status that the manual gives, says why, and leaves every file as it was.

#include "conformance.h"
#include "conversion.h"
#include "v3_device.h"

#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>

using namespace tier_test;

namespace {

struct Command {
    std::string file{}; // the repair file; empty: the command takes none
    bool prints = true;
};

const std::string CONVERSION = "convert_super"; // works on a device that still says V1

SuperV3 super_block() { return super_v3(2, 3); }

std::map<std::string, Command> commands()
{
    const SuperV3 sb = super_block();
    const auto block = [](std::int64_t offset, const char *entries) {
        return text("{\"meta_offset\":%ld%s}", offset, entries);
    };
    return {
        {"dump_super", {}},
        {"dump_brick", {}},
        {"dump_inode", {}},
        {"dump_extent", {}},
        {"dump_shard", {}},
        {"dump_hot", {}},
        {"repair_super", {json(sb)}},
        {"repair_brick", {R"({"bi_use":0,"bi_no":1})"}},
        {"repair_inode", {R"({"i_use":0,"i_no":2})"}},
        {"repair_extent", {block(extent_offset(sb, 0), R"(,"extents":[])"), false}},
        {"repair_shard", {block(shard_offset(sb, 0), R"(,"shards":[])"), false}},
        {"repair_hot", {block(hot_offset(sb, 0), ""), false}},
        {CONVERSION, {old_file(cache(262144, 16384)).text()}},
    };
}

constexpr int ABORTED = -1; // in a failed assertion, as the manual says of a conversion

// What an input ends a run with.
struct Input {
    std::string kind;
    int device;
    int unasked_device; // of a conversion, which does not ask its super block
    int file;
    int conversion_file;
};

const Input INPUTS[] = {
    {"missing", 5, 5, 22, ABORTED}, {"unreadable", 5, 5, 22, ABORTED},
    {"tiny", 5, 22, 22, 22},        {"empty", 5, 22, 22, 22},
    {"random", 14, 22, 22, 22},     {"directory", 5, 5, 22, ABORTED},
    {"fifo", 5, 5, 22, 22},         {"/dev/null", 5, 5, 22, 22},
    {"/dev/zero", 5, 5, 22, 22},    {"read-only", 0, 0, 0, 0},
};

// A command on a device of its own, with all that it takes.
class Subject {
public:
    Subject(const std::string &name, const Command &command)
        : conversion_(name == CONVERSION),
          device_(conversion_ ? make_v2_device(cache(262144, 16384))
                              : make_v3_device(super_block())),
          options_{"-c", name}
    {
        if (conversion_)
            options_.insert(options_.end(), {"-v", "2"});
        if (!command.file.empty())
            device_.directory().write("file", command.file);
    }

    bool is_conversion() const { return conversion_; }
    std::string path(std::string_view name) const { return device_.directory().path(name); }

    // Every run leaves all files as they are. One that fails says why and prints nothing.
    RunResult run(std::vector<std::string> args, int status, const std::string &output = {}) const
    {
        SCOPED_TRACE(testing::PrintToString(args) + output);
        args.insert(args.begin(), options_.begin(), options_.end());
        args.insert(args.begin(), {"-l", logs_.path("log")});
        const auto before = files_in(device_.directory());
        RunResult run = run_as_user(ZU_TIER, args, output);
        EXPECT_FALSE(run.timed_out);
        EXPECT_EQ(run.status, status) << run;
        if (status == ABORTED)
            expect_abort(run, "ret == 0 || ret == -EIO || ret == -EINVAL");
        if (status != 0) {
            EXPECT_EQ(run.out, "");
            EXPECT_NE(run.err, "");
        }
        EXPECT_TRUE(files_in(device_.directory()) == before);
        return run;
    }

private:
    bool conversion_;
    Device device_;
    TempDir logs_;
    std::vector<std::string> options_;
};

template <class Check>
void for_each_command(const Check &check)
{
    for (const auto &[name, command] : commands()) {
        SCOPED_TRACE(name);
        check(Subject(name, command), command);
    }
}

// The manual names every command in the heads of the list under "Commands", the usage most of them.
TEST(Conformance, CoversEveryCommand)
{
    std::set<std::string> named;
    const std::string manual = read_file(MANUALS "/zu_tier.8");
    const std::size_t begin = manual.find(".Ss Commands");
    std::size_t end = manual.find(".El", begin);
    const std::regex word("[a-z]+_[a-z]+");
    const auto add = [&](const std::string &text) {
        for (std::sregex_iterator at(text.begin(), text.end(), word), none; at != none; ++at)
            named.insert(at->str());
    };
    for (const std::string &line : lines_of(manual.substr(begin, end - begin)))
        if (line.starts_with(".It Cm "))
            add(line);
    const std::string usage = run_tool({"-h"}).out;
    for (std::size_t at = 0; (at = usage.find("-c [", at)) != std::string::npos; at = end) {
        end = usage.find(']', at);
        add(usage.substr(at, end - at));
    }
    std::set<std::string> covered;
    for (const auto &[name, command] : commands())
        covered.insert(name);
    EXPECT_EQ(covered, named);
}

TEST(Conformance, CommandLines)
{
    for_each_command([](const Subject &subject, const Command &command) {
        const std::string device = subject.path("device");
        EXPECT_TRUE(subject.run({"-p", device, "-h"}, 0).out.starts_with("usage: "));
        for (const auto &[args, complaint] :
             std::vector<std::pair<std::vector<std::string>, std::string>>{
                 {{}, "cmd and dev path must be specified"},
                 {{"-p"}, "option requires an argument -- 'p'"},
                 {{"-p", device, "-f"}, "option requires an argument -- 'f'"},
                 {{"-p", device, "--bogus"}, "unrecognized option '--bogus'"},
                 {{"-p", device, "-o", subject.path("none/out")}, "No such file or directory"},
                 {{"-p", device, "-o", subject.path("")}, "Is a directory"},
                 {{"-p", device, "-o", device}, "Device or resource busy"}})
            EXPECT_NE(subject.run(args, 22).err.find(complaint), std::string::npos) << complaint;
        if (!command.file.empty() && !subject.is_conversion()) // which says nothing of it
            subject.run({"-p", device, "-y"}, 22);
    });
}

TEST(Conformance, Devices)
{
    for_each_command([](const Subject &subject, const Command &) {
        const std::string bad = subject.path("bad");
        for (const Input &input : INPUTS) {
            lay(input.kind, subject.path("device"), bad);
            const std::fstream held(bad); // who opens a FIFO waits for its other end
            const int status = subject.is_conversion() ? input.unasked_device : input.device;
            subject.run({"-p", bad, "-f", subject.path("file")}, status);
            subject.run({"-p", bad, "-f", subject.path("file"), "-y"}, status == 0 ? 5 : status);
        }
    });
}

TEST(Conformance, RepairFiles)
{
    for_each_command([](const Subject &subject, const Command &command) {
        if (command.file.empty())
            return;
        const std::string bad = subject.path("bad");
        for (const Input &input : INPUTS) {
            lay(input.kind, subject.path("file"), bad);
            const std::fstream held(bad); // who opens a FIFO waits for its other end
            const int status = subject.is_conversion() ? input.conversion_file : input.file;
            std::vector<std::string> args{"-p", subject.path("device"), "-f", bad};
            if (status != 0)
                args.emplace_back("-y");
            subject.run(args, status);
        }
    });
}

TEST(Conformance, Outputs)
{
    for_each_command([](const Subject &subject, const Command &command) {
        const std::vector<std::string> args{"-p", subject.path("device"), "-f",
                                            subject.path("file")};
        EXPECT_EQ(subject.run(args, 0).out.empty(), !command.prints);
        for (const auto &[output, reason] : BAD_OUTPUTS) {
            const RunResult run = subject.run(args, command.prints ? 5 : 0, output);
            EXPECT_EQ(run.err.find("write output failed:" + reason) != std::string::npos,
                      command.prints)
                << run;
        }
    });
}

} // namespace
