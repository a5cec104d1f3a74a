#include "zu_tierctl/commands.h"
#include "zu_tierctl/plan/undo.h"
#include "zu_tierctl/subcommand.h"

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

void add_undo(Subcommand &command)
{
    const auto options = std::make_shared<UndoOptions>();
    const auto table = std::make_shared<std::optional<std::string>>();
    const auto numbers = std::make_shared<std::optional<std::string>>();
    command.describe("Take an apply back", UNDO_FOOTER);
    command.operand("FILE", options->file, "Undo file of the apply");
    command.operand("DEVICE", options->device, "Block device or image; written only with --commit");
    command.operand("TABLE", *table,
                    "Only entries of this table, by their numbers; all without it");
    command.operand("NO", *numbers,
                    "Number of an entry, or several as in 3,7,9..12. Instead of\n"
                    "TABLE NO, extent:1542 names the block in which extent 1542 is");
    command.commit_flag(options->commit);
    command.run([options, table, numbers] {
        if (table->has_value()) {
            options->entries = read_operands(**table, numbers->value_or(""));
        }
        undo(*options);
        return 0;
    });
}

} // namespace tierctl
