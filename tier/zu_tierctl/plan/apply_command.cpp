#include "zu_tierctl/commands.h"
#include "zu_tierctl/plan/apply.h"
#include "zu_tierctl/subcommand.h"

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

void add_apply(Subcommand &command)
{
    const auto options = std::make_shared<ApplyOptions>();
    command.describe("Carry out the steps of a plan", APPLY_FOOTER);
    command.operand("PLAN", options->plan, "Plan, as the command plan prints it");
    command.operand("DEVICE", options->device, "Block device or image; written only with --commit");
    command.option("--undo", "FILE", options->undo,
                   "File to create, which leads back; or that of an earlier run of the\n"
                   "same plan, which goes on");
    command.require("--undo");
    command.commit_flag(options->commit);
    command.run([options] {
        apply(*options);
        return 0;
    });
}

} // namespace tierctl
