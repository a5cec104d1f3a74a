#include "zu_tierctl/check/check.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/entry/table.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tierctl {

namespace {

constexpr int STATUS_FINDINGS = 1;
constexpr int STATUS_NOT_CHECKED = 2;

constexpr const char CHECK_FOOTER[] =
    "Exit status: 0 nothing was found, 1 something was found, 2 DEVICE could not be checked.\n"
    "A warning counts as found: it breaks no rule, but is odd, or something could not be checked.\n"
    "\n"
    "Example, what is wrong with the extents, and how often:\n"
    "  zu_tierctl check --json --table extent tier.img | jq .kinds";

} // namespace

void add_check(CLI::App &app, int *status)
{
    const auto options = std::make_shared<CheckOptions>();
    CLI::App *command =
        app.add_subcommand("check", "Check the metadata of a device, without changing it");
    command->footer(CHECK_FOOTER);
    command->get_formatter()->column_width(32);
    add_operand(*command, "DEVICE", options->device, "Device, or image of one, to check");
    command->add_flag("--json", options->json, "Report as JSON, not as text");
    command
        ->add_option("--table", options->tables,
                     "Report on this table only; may be repeated\n" + tables_text())
        ->type_name("TABLE")
        ->allow_extra_args(false);
    command->callback([options, status] {
        *status = STATUS_NOT_CHECKED; /* if it throws */
        *status = check(*options) ? 0 : STATUS_FINDINGS;
    });
}

} // namespace tierctl
