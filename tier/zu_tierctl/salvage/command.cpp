#include "zu_tierctl/commands.h"
#include "zu_tierctl/salvage/salvage.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tierctl {

namespace {

constexpr const char SALVAGE_FOOTER[] =
    "A file is DIR/<uuid of its brick>/<uuid of its inode>, sparse, with its bytes at their\n"
    "offsets; in v3 each block is a file, DIR/<brick>/<inode>/<shard index>/<address>.block.\n"
    "What belongs to a damaged or missing entry is in DIR/unknown. DIR/manifest.ndjson says of\n"
    "each stretch where it was and is, whether it was written back, whether it was copied, and\n"
    "the CRC-32 of its bytes. Blocks that cannot be read stay holes. Where two extents hold the\n"
    "same place, the second is in a file beside the first, ending in .conflict-<extent>.\n"
    "Exit status: 0 all was copied, 1 something could not be.\n"
    "\n"
    "Example, and the same once more after an interruption:\n"
    "  zu_tierctl salvage /dev/nvme0n1 /srv/salvaged\n"
    "  zu_tierctl salvage --resume /dev/nvme0n1 /srv/salvaged";

} // namespace

void add_salvage(CLI::App &app, int *status)
{
    const auto options = std::make_shared<SalvageOptions>();
    CLI::App *command =
        app.add_subcommand("salvage", "Copy the data of files off a device that dies");
    command->footer(SALVAGE_FOOTER);
    add_operand(*command, "DEVICE", options->device, "Block device or image, only read");
    add_operand(*command, "DIR", options->directory, "Directory to write to: new, or empty");
    command->add_flag("--all", options->all, "Also what was written back");
    command
        ->add_flag_callback(
            "--dirty", [options] { options->all = false; },
            "Only what was not written back: the default")
        ->excludes("--all");
    command->add_option("--brick", options->brick, "Only files of this brick: its number or uuid")
        ->type_name("BRICK");
    command->add_option("--inode", options->inode, "Only this inode: its number or uuid")
        ->type_name("INODE");
    command->add_flag("--resume", options->resume,
                      "Go on with the interrupted salvage in DIR; with the same options");
    add_super_option(*command, options->super_file);
    add_mapfile_option(*command, options->mapfile);
    command->callback([options, status] { *status = salvage(*options) ? 0 : 1; });
}

} // namespace tierctl
