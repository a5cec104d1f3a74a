#include "zu_tierctl/check/check.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/metrics/metrics.h"
#include "zu_tierctl/subcommand.h"

#include <memory>
#include <optional>
#include <string>

namespace tierctl {

namespace {

constexpr int STATUS_FINDINGS = 1;
constexpr int STATUS_NOT_CHECKED = 2;

constexpr const char CHECK_FOOTER[] =
    "Exit status: 0 nothing was found, 1 something was found, 2 DEVICE could not be checked,\n"
    "or the metrics could not be written.\n"
    "A warning counts as found: it breaks no rule, but is odd, or something could not be checked.\n"
    "\n"
    "What explains many findings at once comes first, as a line \"cause: ...\". Commands that are\n"
    "named log to tier.log in the current directory, where a damaged entry is printed too.\n"
    "\n"
    "JSON: a document with device, layout, causes: [{table, no, last, count, text}],\n"
    "findings: [{kind, severity, table, unit, no (the first), last, count, block (of packed\n"
    "entries, else null), offset, zero (all zero), command, text}], tables, kinds; with error\n"
    "when DEVICE could not be checked. With --summary a finding has kind, table, no, last, count.\n"
    "\n"
    "Example, what is wrong with the extents, and how often:\n"
    "  zu_tierctl check --json --table extent tier.img | jq .kinds";

} // namespace

void add_check(Subcommand &command)
{
    const auto options = std::make_shared<CheckOptions>();
    const auto metrics = std::make_shared<std::optional<std::string>>();
    command.describe("Check the metadata of a device, without changing it", CHECK_FOOTER);
    command.widen();
    command.operand("DEVICE", options->device, "Device, or image of one, to check");
    command.flag("--json", options->json, "Report as JSON, not as text");
    command.flag(
        "--all", [options] { options->detail = Detail::each; },
        "Each finding by itself: those that say the same of\n"
        "neighbouring entries are one by default");
    command.flag(
        "--summary", [options] { options->detail = Detail::summary; },
        "Only how many of each kind, and from where to where");
    command.exclude("--summary", {"--all"});
    command.flag("--live", options->live,
                 "DEVICE is in use: check three times, some seconds\n"
                 "apart; report only what stays or cannot be read");
    command.option("--table", "TABLE", options->tables,
                   "Report on this table only; may be repeated\n" + tables_text());
    command.option("--metrics", "FILE", *metrics,
                   "Also write what was found, and the bytes that were\n"
                   "not written back, to FILE as OpenMetrics text");
    command.exclude("--metrics", {"--table"});
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    const auto run = [options, metrics] {
        const bool fine =
            metrics->has_value() ? check_with_metrics(*options, **metrics) : check(*options);
        return fine ? 0 : STATUS_FINDINGS;
    };
    command.run(run, STATUS_NOT_CHECKED);
}

} // namespace tierctl
