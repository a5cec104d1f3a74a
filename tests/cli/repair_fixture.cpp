#include "repair_fixture.h"

#include "probe_log.h"

#include <iterator>
#include <regex>

namespace tier_test {

namespace {

void mask_addresses(Log &log)
{
    static const std::regex ADDRESS("(bitmap|te_mapped_meta|shards_json|value):0x[0-9a-f]+");
    for (LogLine &line : log)
        line.text = std::regex_replace(line.text, ADDRESS, "$1:<address>");
}

} // namespace

LoggedRun RepairFixture::repair(const std::string &document, const std::vector<std::string> &args,
                                const RunOptions &options)
{
    std::vector<std::string> all{"-f", device.directory().write("conf.json", document)};
    all.insert(all.end(), args.begin(), args.end());
    LoggedRun run = run_logged(device, command_, all, options);
    mask_addresses(run.log);
    mask_addresses(run.errors);
    return run;
}

Log RepairFixture::log_with(const Log &lines, const Log &rest) const
{
    Log log = probe_log(device, command_, version_, {.repair_conf = conf()});
    std::ranges::copy(lines, std::back_inserter(log));
    std::ranges::copy(rest, std::back_inserter(log));
    return log;
}

LogLine RepairFixture::dry_run_line() const
{
    return debug_line(
        "zutr_repair_common",
        text("'commit' flag not set, won't write dev. cmd:%d, conf:%s", code_, conf().c_str()));
}

LogLine RepairFixture::parse_failure_line(int status) const
{
    return error_line("zutr_repair_common",
                      text("parse meta info failed:%d, cmd:%d, dev:%s, conf:%s", -status, code_,
                           device.path().c_str(), conf().c_str()));
}

void RepairFixture::expect_accepted(const std::string &document, const Log &lines,
                                    const std::function<Repaired(const std::string &)> &outcome)
{
    const std::vector<std::uint8_t> before = device.bytes();
    const LoggedRun dry = repair(document);
    const Repaired seen = outcome(dry.out);
    expect_run(dry, {.status = 0, .out = seen.json, .log = log_with(lines, {dry_run_line()})});
    EXPECT_EQ(device.bytes(), before);

    // Nothing of what the slot held may stay.
    const auto slot = static_cast<std::uint64_t>(seen.offset);
    const Block old = device.block(slot);
    Block noise;
    noise.fill(0xEE);
    device.write(slot, noise);
    std::vector<std::uint8_t> expected = device.bytes();
    const LoggedRun commit = repair(document, {"-y"});
    const Repaired written = outcome(commit.out);
    expect_run(commit, {.status = 0, .out = written.json, .log = log_with(lines)});
    put_bytes(expected, slot, written.block);
    EXPECT_EQ(device.bytes(), expected);
    device.write(slot, old);
}

void RepairFixture::expect_not_loaded(const std::string &document, const Log &lines)
{
    expect_failure(document, lines, 22);
}

void RepairFixture::expect_refused(const std::string &document, Log lines, int status)
{
    lines.push_back(parse_failure_line(status));
    expect_failure(document, lines, status);
}

void RepairFixture::expect_failure(const std::string &document, const Log &lines, int status)
{
    const std::vector<std::uint8_t> before = device.bytes();
    expect_run(repair(document, {"-y"}), {.status = status, .out = "", .log = log_with(lines)});
    EXPECT_EQ(device.bytes(), before);
}

} // namespace tier_test
