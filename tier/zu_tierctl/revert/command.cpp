#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/revert/revert.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

namespace tierctl {

namespace {

constexpr const char REVERT_FOOTER[] =
    "Shows the entry as it is now, as it was then, and each field that differs. Refuses when the\n"
    "super blocks of SAVED and DEVICE differ, and when the entry is damaged or missing in SAVED.\n"
    "To put back the super block itself, TABLE is super and NO is 0: then SAVED and DEVICE must\n"
    "have the same size, and what DEVICE holds at that place does not matter.\n"
    "\n"
    "Example, which undoes a repair:\n"
    "  zu_tierctl revert before.img /dev/nvme0n1 inode 7\n"
    "  zu_tierctl revert before.img /dev/nvme0n1 inode 7 --commit";

} // namespace

void add_revert(CLI::App &app)
{
    const auto options = std::make_shared<RevertOptions>();
    CLI::App *command = app.add_subcommand("revert", "Put an entry back from a saved file");
    command->footer(REVERT_FOOTER);
    add_operand(*command, "SAVED", options->saved, "Saved file, or any image or device");
    add_operand(*command, "DEVICE", options->device,
                "Block device or image; written only with --commit");
    add_operand(*command, "TABLE", options->table,
                tables_text() + ";\nof shard, hot and the extent of v3 an entry is a block");
    command
        ->add_option_function<std::string>(
            "NO", [options](const std::string &text) { options->no = read_number("NO", text); },
            "Number of the entry")
        ->type_name("")
        ->required();
    command->add_flag("--commit", options->commit,
                      "Write: a block device is opened for this program alone, and what was\n"
                      "written is read back");
    command->callback([options] { revert(*options); });
}

} // namespace tierctl
