#include "zu_tierctl/commands.h"
#include "zu_tierctl/plan/undo.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <utility>

namespace tierctl {

namespace {

constexpr const char UNDO_FOOTER[] =
    "Works from any moment of an apply, and of an undo: a block may be as before, as after or, "
    "when\n"
    "the power failed while it was written, in part each. Refuses, before anything is written, "
    "when\n"
    "a block is anything else, when DEVICE is another device, and when FILE is damaged.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl undo undo.bin /dev/nvme0n1\n"
    "  zu_tierctl undo undo.bin /dev/nvme0n1 --commit\n"
    "  zu_tierctl undo undo.bin /dev/nvme0n1 inode 7,9 --commit";

} // namespace

void add_undo(CLI::App &app)
{
    const auto options = std::make_shared<UndoOptions>();
    const auto operands = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App *command = app.add_subcommand("undo", "Take an apply back");
    command->footer(UNDO_FOOTER);
    add_operand(*command, "FILE", options->file, "Undo file of the apply");
    add_operand(*command, "DEVICE", options->device,
                "Block device or image; written only with --commit");
    CLI::Option *table =
        command
            ->add_option("TABLE", operands->first,
                         "Only entries of this table, by their numbers; all without it")
            ->type_name("");
    command
        ->add_option("NO", operands->second,
                     "Number of an entry, or several as in 3,7,9..12. Instead of\n"
                     "TABLE NO, extent:1542 names the block in which extent 1542 is")
        ->type_name("");
    command->add_flag("--commit", options->commit,
                      "Write: a block device is opened for this program alone, and what was\n"
                      "written is read back");
    command->callback([options, operands, table] {
        if (table->count() != 0) {
            options->entries = read_operands(operands->first, operands->second);
        }
        undo(*options);
    });
}

} // namespace tierctl
