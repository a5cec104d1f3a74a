#include "zu_tierctl/commands.h"
#include "zu_tierctl/revert/revert.h"
#include "zu_tierctl/subcommand.h"

#include <memory>
#include <string>
#include <utility>

namespace tierctl {

namespace {

constexpr const char REVERT_FOOTER[] =
    "Shows each entry as it is now, as it was then, and every field that differs. Refuses when "
    "the\n"
    "super blocks of SAVED and DEVICE differ, when the entry is missing in SAVED, and, without\n"
    "--damaged, when it is damaged there: as is what was repaired after it had been saved.\n"
    "To put back the super block itself, TABLE is super and NO is 0. What DEVICE holds at that\n"
    "place may be damaged, but SAVED and DEVICE must have the same size, and the same identity\n"
    "(uuid) in their super blocks or, when it is damaged, in their tables.\n"
    "Of several entries, all are checked and shown before the first is written.\n"
    "\n"
    "Example, which undoes the repair of a damaged entry:\n"
    "  zu_tierctl revert before.img /dev/nvme0n1 inode 7 --damaged\n"
    "  zu_tierctl revert before.img /dev/nvme0n1 inode 7 --damaged --commit";

} // namespace

void add_revert(Subcommand &command)
{
    const auto options = std::make_shared<RevertOptions>();
    const auto operands = std::make_shared<std::pair<std::string, std::string>>();
    command.describe("Put entries back from a saved file", REVERT_FOOTER);
    command.operand("SAVED", options->saved, "Saved file, or any image or device");
    command.operand("DEVICE", options->device, "Block device or image; written only with --commit");
    command.entry_operands(operands->first, operands->second);
    command.commit_flag(options->commit);
    command.flag("--damaged", options->damaged,
                 "Put an entry back that was damaged when it was saved, as it was");
    command.flag("--other-device", options->other_device,
                 "Put the super block back although DEVICE does not seem to be the device\n"
                 "that was saved: it takes the identity of that one");
    command.run([options, operands] {
        options->entries = read_operands(operands->first, operands->second);
        revert(*options);
        return 0;
    });
}

} // namespace tierctl
