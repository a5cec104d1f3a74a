#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/plan/plan.h"
#include "zu_tierctl/subcommand.h"

#include <fmt/core.h>
#include <memory>
#include <optional>
#include <string>

namespace tierctl {

namespace {

constexpr const char PLAN_DESCRIPTION[] = "Print the steps that repair what check finds";

constexpr const char PLAN_FOOTER[] =
    "Changes nothing. Prints a line of JSON for each entry with an error: a step, or why there is\n"
    "none. Warnings of check have no line. The actions:\n"
    "  mend     turn wrong bits back, where the checksum tells which they are\n"
    "  copy     take the entry of SAVED, where that is sound\n"
    "  restore  make a damaged inode free that no extent belongs to\n"
    "  free     make an entry free whose owner does not exist; only with --free-lost\n"
    "  leave    no step; the reason says why\n"
    "The class says how sure a step is: certain (it gives the bytes that were there), likely, "
    "none\n"
    "(the operator decides). A certain mend goes before a copy, a copy that is not certain comes\n"
    "after every mend: what was saved may be older. \"lost\" says what a step gives up.\n"
    "Take out what is not wanted, and give the plan to zu_tierctl apply.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl plan /dev/nvme0n1 --from before.img >repair.plan\n"
    "  jq -r 'select(.action) | [.action, .class, .table, .no, .reason] | @tsv' repair.plan";

} // namespace

void add_plan(Subcommand &command)
{
    const auto options = std::make_shared<PlanOptions>();
    const auto only = std::make_shared<std::optional<std::string>>();
    command.describe(PLAN_DESCRIPTION, PLAN_FOOTER);
    command.operand("DEVICE", options->device, "Block device or image, only read");
    command.option("--from", "SAVED", options->saved,
                   "Saved file of DEVICE, or an image of it, to copy entries from");
    command.flag("--free-lost", options->free_lost,
                 "Make extents and shards free whose owner does not exist, and what\n"
                 "refers to these");
    command.option("--only", "certain", *only, "Leave out the steps that are not certain");
    options->release = ZU_TIER_RELEASE;
    command.run([options, only] {
        if (*only && **only != "certain") {
            throw UsageError(fmt::format("--only {}: expected certain", **only));
        }
        options->only_certain = only->has_value();
        plan(*options);
        return 0;
    });
}

} // namespace tierctl
