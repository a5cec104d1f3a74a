#include "zu_tierctl/commands.h"
#include "zu_tierctl/plan/apply.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tierctl {

namespace {

constexpr const char APPLY_FOOTER[] =
    "Without --commit, shows each step field by field, and what check would find afterwards.\n"
    "With it, first writes the undo file, which holds the old blocks and the new ones, then block\n"
    "by block. Refuses, before anything is written, when a block is neither as the plan says nor\n"
    "as it is to be, when a step makes no sound entry, and when PLAN is of another device.\n"
    "When it ends early, even by a power failure, the same command goes on, and undo goes back.\n"
    "Keep the undo file on another disk than DEVICE until the result has been checked.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl plan /dev/nvme0n1 > plan.json\n"
    "  zu_tierctl apply plan.json /dev/nvme0n1 --undo undo.bin\n"
    "  zu_tierctl apply plan.json /dev/nvme0n1 --undo undo.bin --commit";

} // namespace

void add_apply(CLI::App &app)
{
    const auto options = std::make_shared<ApplyOptions>();
    CLI::App *command = app.add_subcommand("apply", "Carry out the steps of a plan");
    command->footer(APPLY_FOOTER);
    add_operand(*command, "PLAN", options->plan, "Plan, as the command plan prints it");
    add_operand(*command, "DEVICE", options->device,
                "Block device or image; written only with --commit");
    command
        ->add_option("--undo", options->undo,
                     "File to create, which leads back; or that of an earlier run of the\n"
                     "same plan, which goes on")
        ->type_name("FILE")
        ->required();
    command->add_flag("--commit", options->commit,
                      "Write: a block device is opened for this program alone, and what was\n"
                      "written is read back");
    command->callback([options] { apply(*options); });
}

} // namespace tierctl
