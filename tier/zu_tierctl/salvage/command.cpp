#include "zu_tierctl/commands.h"
#include "zu_tierctl/salvage/salvage.h"
#include "zu_tierctl/subcommand.h"

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
    "Of a device whose reads fail, copy first what matters with ddrescue: see domain --help.\n"
    "Exit status: 0 all was copied, 1 something could not be.\n"
    "\n"
    "Example, and the same once more after an interruption:\n"
    "  zu_tierctl salvage /dev/nvme0n1 /srv/salvaged\n"
    "  zu_tierctl salvage --resume /dev/nvme0n1 /srv/salvaged";

} // namespace

void add_salvage(Subcommand &command)
{
    const auto options = std::make_shared<SalvageOptions>();
    command.describe("Copy the data of files off a device that dies", SALVAGE_FOOTER);
    command.operand("DEVICE", options->device, "Block device or image, only read");
    command.operand("DIR", options->directory, "Directory to write to: new, or empty");
    command.flag("--all", options->all, "Also what was written back");
    command.flag(
        "--dirty", [options] { options->all = false; },
        "Only what was not written back: the default");
    command.exclude("--dirty", {"--all"});
    command.option("--brick", "BRICK", options->brick,
                   "Only files of this brick: its number or uuid");
    command.option("--inode", "INODE", options->inode, "Only this inode: its number or uuid");
    command.flag("--resume", options->resume,
                 "Go on with the interrupted salvage in DIR; with the same options");
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    command.run([options] { return salvage(*options) ? 0 : 1; });
}

} // namespace tierctl
