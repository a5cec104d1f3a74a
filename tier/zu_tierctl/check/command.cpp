#include "zu_tierctl/check/check.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/metrics/metrics.h"

#include <CLI/CLI.hpp>
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

void add_check(CLI::App &app, int *status)
{
    const auto options = std::make_shared<CheckOptions>();
    const auto metrics = std::make_shared<std::optional<std::string>>();
    CLI::App *command =
        app.add_subcommand("check", "Check the metadata of a device, without changing it");
    command->footer(CHECK_FOOTER);
    command->get_formatter()->column_width(32);
    add_operand(*command, "DEVICE", options->device, "Device, or image of one, to check");
    command->add_flag("--json", options->json, "Report as JSON, not as text");
    command->add_flag_callback(
        "--all", [options] { options->detail = Detail::each; },
        "Each finding by itself: those that say the same of\n"
        "neighbouring entries are one by default");
    command
        ->add_flag_callback(
            "--summary", [options] { options->detail = Detail::summary; },
            "Only how many of each kind, and from where to where")
        ->excludes("--all");
    command->add_flag("--live", options->live,
                      "DEVICE is in use: check three times, some seconds\n"
                      "apart, and report only what stays");
    CLI::Option *tables =
        command
            ->add_option("--table", options->tables,
                         "Report on this table only; may be repeated\n" + tables_text())
            ->type_name("TABLE")
            ->allow_extra_args(false);
    command
        ->add_option("--metrics", *metrics,
                     "Also write what was found, and the bytes that were\n"
                     "not written back, to FILE as OpenMetrics text")
        ->type_name("FILE")
        ->excludes(tables);
    add_super_option(*command, options->super_file);
    add_mapfile_option(*command, options->mapfile);
    command->callback([options, metrics, status] {
        *status = STATUS_NOT_CHECKED; /* if it throws */
        const bool fine =
            metrics->has_value() ? check_with_metrics(*options, **metrics) : check(*options);
        *status = fine ? 0 : STATUS_FINDINGS;
    });
}

} // namespace tierctl
