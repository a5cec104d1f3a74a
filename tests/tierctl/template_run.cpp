#include "template_run.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>

namespace tier_test {

namespace {

constexpr char REFUSED[] = "zu_tier refuses this file as it stands: ";
constexpr char CHANGED[] = "a repair changes ";
constexpr char MADE_UP[] = "a new one each time";

// The text after a prefix; empty when it begins otherwise.
std::string after(const std::string &line, const std::string &prefix)
{
    return line.starts_with(prefix) ? line.substr(prefix.size()) : "";
}

// As people are shown it: quoted when not all of it can be printed.
std::string shown(const std::string &message)
{
    std::string quoted;
    for (const char byte : message) {
        if (byte == '"' || byte == '\\')
            quoted += '\\';
        quoted += byte >= ' ' && byte <= '~' ? std::string(1, byte)
                                             : text("\\x%02x", static_cast<unsigned char>(byte));
    }
    return quoted == message ? message : '"' + quoted + '"';
}

// What the parser said on standard error, which repeats bytes of the file: a message may have
// several lines.
std::vector<std::string> parser_messages(const Log &errors)
{
    std::vector<std::string> messages;
    for (const LogLine &line : errors) {
        if (line.level.empty())
            messages.back() += '\n' + line.text.substr(0, line.text.find('\n'));
        else if (line.func != "zutr_repair_common")
            messages.push_back(line.text);
    }
    std::ranges::transform(messages, messages.begin(), shown);
    return messages;
}

// The names of all values of a document, in its order.
void add_keys(const nlohmann::ordered_json &value, std::vector<std::string> &keys)
{
    for (const auto &[key, member] : value.items()) {
        if (member.is_structured())
            add_keys(member, keys);
        else if (value.is_object())
            keys.push_back(key);
    }
}

// The parser read its keys in the order of the file.
void expect_order(const std::string &file, const Log &log)
{
    std::vector<std::string> keys;
    add_keys(nlohmann::ordered_json::parse(file), keys);
    auto next = keys.begin();
    for (const LogLine &line : log) {
        const std::string key = line.text.substr(0, line.text.find(": "));
        if (line.level != "DEBUG" || std::ranges::find(keys, key) == keys.end())
            continue;
        next = std::find(next, keys.end(), key);
        ASSERT_NE(next, keys.end()) << key << " is read elsewhere than it stands";
        ++next;
    }
}

// A line of a difference without the name of a stretch of bytes.
std::string without_stretch(const std::string &change)
{
    static const std::regex STRETCH(R"(^(bytes \d+\.\.\d+) \([a-z ]+\): )");
    return std::regex_replace(change, STRETCH, "$1: ");
}

} // namespace

RunResult run_template(const Device &device, const std::vector<std::string> &args,
                       const RunOptions &options)
{
    std::vector<std::string> all{"template", device.path()};
    all.insert(all.end(), args.begin(), args.end());
    return run_program(ZU_TIERCTL, all, options);
}

Template read_template(const Device &device, const std::vector<std::string> &args)
{
    const RunResult run = run_template(device, args);
    EXPECT_EQ(run.status, 0) << run;
    Template made{.file = run.out};
    std::vector<std::string> lines = lines_of(run.err);
    if (lines.empty()) {
        ADD_FAILURE() << run;
        return made;
    }
    const std::string prefix = "zu_tierctl: " + args[0] + ' ' + args[1] + ": ";
    const std::string command = prefix +
                                "to repair it, with this file as FILE: zu_tier -l tier.log -p " +
                                device.path() + " -c repair_" + args[0];
    const std::string rest = after(lines.back(), command);
    const std::size_t end = rest.find(" -f FILE; with -y it writes");
    EXPECT_EQ(rest.substr(end), " -f FILE; with -y it writes") << run;
    made.option = rest.substr(0, end);
    std::erase(made.option, ' ');
    lines.pop_back();
    for (const std::string &line : lines) {
        const std::string note = after(line, prefix);
        EXPECT_NE(note, "") << line;
        const std::string change = after(note, CHANGED);
        const std::string refusal = after(note, REFUSED);
        std::vector<std::string> &list = !change.empty()    ? made.changes
                                         : !refusal.empty() ? made.refusals
                                                            : made.flaws;
        list.push_back(!change.empty() ? change : !refusal.empty() ? refusal : note);
        // First what is wrong, then what changes, then what is refused.
        EXPECT_TRUE(made.refusals.empty() || !refusal.empty()) << run;
        EXPECT_TRUE(made.changes.empty() || &list != &made.flaws) << run;
    }
    return made;
}

void expect_template_failure(const Device &device, const std::vector<std::string> &args, int status,
                             const std::string &complaint)
{
    const RunResult run = run_template(device, args);
    EXPECT_EQ(run.status, status) << run;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
}

TemplateProof::TemplateProof(const Device &device) : device_(device)
{
    const RunResult run = run_program("/bin/cp", {"--sparse=always", device.path(), copy_});
    EXPECT_EQ(run.status, 0) << run;
}

Template TemplateProof::check(const std::string &table, std::uint64_t no,
                              const std::vector<std::string> &args)
{
    SCOPED_TRACE(table + ' ' + std::to_string(no));
    std::vector<std::string> all{table, std::to_string(no)};
    all.insert(all.end(), args.begin(), args.end());
    Template made = read_template(device_, all);
    directory_.write("template.json", made.file);

    LoggedRun run = repair(table, made, "");
    expect_order(made.file, run.log);
    if (!made.refusals.empty()) {
        expect_refused(run, made);
        run = repair(table, made, "-F");
        if (made.changes.empty() && run.status != 0) {
            expect_refused(run, made);
            return made;
        }
    }
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.err, "");
    expect_changes(table, no, made);
    return made;
}

void TemplateProof::finish() const
{
    const RunResult run = run_program("/usr/bin/cmp", {device_.path(), copy_});
    EXPECT_EQ(run.status, 0) << run;
}

LoggedRun TemplateProof::repair(const std::string &table, const Template &made,
                                const std::string &more) const
{
    std::vector<std::string> args{
        "-p", copy_, "-c", "repair_" + table, "-f", directory_.path("template.json"), "-y"};
    for (const std::string &option : {made.option, more})
        if (!option.empty())
            args.push_back(option);
    return run_with_log(directory_, args);
}

void TemplateProof::expect_refused(const LoggedRun &run, const Template &made) const
{
    EXPECT_NE(run.status, 0) << run;
    EXPECT_EQ(parser_messages(run.errors), made.refusals) << run;
}

void TemplateProof::expect_changes(const std::string &table, std::uint64_t no,
                                   const Template &made) const
{
    const std::vector<std::string> changes = take_changes(table, no);
    ASSERT_EQ(changes.size(), made.changes.size())
        << testing::PrintToString(changes) << testing::PrintToString(made.changes);
    std::vector<std::string> others;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const std::string told = without_stretch(made.changes[i]);
        if (!told.ends_with(MADE_UP)) {
            EXPECT_EQ(told, changes[i]);
            continue;
        }
        if (others.empty()) {
            EXPECT_EQ(repair(table, made, "").status, 0);
            others = take_changes(table, no);
            ASSERT_EQ(others.size(), changes.size());
        }
        const std::string fixed = told.substr(0, told.size() - sizeof(MADE_UP) + 1);
        EXPECT_TRUE(changes[i].starts_with(fixed)) << changes[i];
        EXPECT_TRUE(others[i].starts_with(fixed)) << others[i];
        EXPECT_NE(others[i], changes[i]);
    }
}

// What the last repair has changed, in the words of the companion; undoes it.
std::vector<std::string> TemplateProof::take_changes(const std::string &table,
                                                     std::uint64_t no) const
{
    std::vector<std::string> args{"revert", copy_, device_.path(), table, std::to_string(no)};
    if (table == "super") // of which the repair may have made anything
        args.emplace_back("--other-device");
    const RunResult run = run_program(ZU_TIERCTL, args);
    EXPECT_EQ(run.status, 0) << run;
    std::vector<std::string> lines = lines_of(run.out);
    const std::string place = after(lines.at(0), table + ' ' + std::to_string(no) + " at byte ");
    if (place.empty()) {
        EXPECT_EQ(run.out, text("%s %lu is the same in both: nothing to do\n", table.c_str(), no));
        return {};
    }
    lines.erase(lines.begin(), lines.begin() + 3);
    for (std::string &line : lines)
        line = after(line, "  ");
    const Block block = device_.block(std::stoull(place));
    std::fstream copy(copy_, std::ios::in | std::ios::out | std::ios::binary);
    copy.seekp(std::stoll(place));
    copy.write(reinterpret_cast<const char *>(block.data()), BLOCK_SIZE);
    EXPECT_TRUE(copy.flush());
    return lines;
}

std::vector<Template> check_table(TemplateProof &proof, const std::string &table,
                                  std::uint64_t count, const std::vector<std::string> &args)
{
    std::vector<Template> all;
    for (std::uint64_t no = 0; no < count; ++no)
        all.push_back(proof.check(table, no, args));
    return all;
}

} // namespace tier_test
