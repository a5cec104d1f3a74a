#include "template_run.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace tier_test {

namespace {

// Changes of an entry may come in any order, everything else has its place.
std::vector<std::string> expected_lines(const Device &device, const TemplateCase &entry,
                                        const ExpectedTemplate &expected)
{
    std::vector<std::string> notes = entry.before;
    notes.insert(notes.end(), expected.changes.begin(), expected.changes.end());
    for (const std::string &refusal : entry.refusals)
        notes.push_back("zu_tier refuses this file as it stands: " + refusal);
    notes.push_back("to repair it, with this file as FILE: zu_tier -p " + device.path() +
                    " -c repair_" + entry.table + entry.version + " -f FILE; with -y it writes");
    for (std::string &note : notes)
        note = text("zu_tierctl: %s %lu: ", entry.table.c_str(), entry.no) + note;
    return notes;
}

void sort_changes(std::vector<std::string> &lines)
{
    const auto is_change = [](const std::string &line) {
        return line.find(": a repair changes ") != std::string::npos;
    };
    const auto begin = std::ranges::find_if(lines, is_change);
    std::sort(begin, std::find_if_not(begin, lines.end(), is_change));
}

LoggedRun repair(const Device &device, const TemplateCase &entry, const std::string &file)
{
    std::vector<std::string> args{"-f", device.directory().write("template.json", file), "-y"};
    if (!entry.version.empty())
        args.insert(args.end(), {"-v", entry.version.substr(4)});
    return run_logged(device, "repair_" + entry.table, args);
}

// A new identity of version 4 under the right checksum, in place of which the block gets what it
// had.
void expect_random_uuid(Block &block, const Block &before)
{
    EXPECT_NE(get_uuid(block, 16), get_uuid(before, 16));
    EXPECT_EQ(block[22] >> 4, 4);
    EXPECT_EQ(get_u32(block, 0), record_crc(block, BrickV1::LENGTH));
    put_bytes(block, 16, get_uuid(before, 16));
    put_u32(block, 0, get_u32(before, 0));
}

} // namespace

RunResult run_template(const Device &device, const std::vector<std::string> &args,
                       const RunOptions &options)
{
    std::vector<std::string> all{"template", device.path()};
    all.insert(all.end(), args.begin(), args.end());
    return run_program(ZU_TIERCTL, all, options);
}

void expect_template_failure(Device &device, const std::vector<std::string> &args, int status,
                             const std::string &complaint)
{
    const RunResult run = run_template(device, args);
    EXPECT_EQ(run.status, status) << run;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
}

void expect_template(Device &device, const TemplateCase &entry, const ExpectedTemplate &expected)
{
    SCOPED_TRACE(entry.table + " " + std::to_string(entry.no));
    const Block before = device.block(entry.offset);
    std::vector<std::string> args{entry.table, std::to_string(entry.no)};
    args.insert(args.end(), entry.args.begin(), entry.args.end());
    const RunResult run = run_template(device, args);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, expected.file);
    std::vector<std::string> said = lines_of(run.err);
    std::vector<std::string> to_say = expected_lines(device, entry, expected);
    sort_changes(said);
    sort_changes(to_say);
    EXPECT_EQ(said, to_say);
    EXPECT_EQ(device.block(entry.offset), before);

    const LoggedRun repaired = repair(device, entry, run.out);
    Block after = device.block(entry.offset);
    if (!entry.refusals.empty()) {
        EXPECT_EQ(repaired.status, 22) << repaired;
        EXPECT_EQ(after, before);
        return;
    }
    EXPECT_EQ(repaired.status, 0) << repaired;
    if (expected.random_uuid)
        expect_random_uuid(after, before);
    EXPECT_EQ(after, expected.repaired);
}

} // namespace tier_test
