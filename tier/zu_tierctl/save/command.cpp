#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/save/save.h"
#include "zu_tierctl/subcommand.h"

#include <memory>
#include <string>

namespace tierctl {

namespace {

constexpr const char SAVE_DESCRIPTION[] =
    "Copy the metadata of a device, without its data, to a file";

constexpr const char SAVE_FOOTER[] =
    "FILE is sparse, has the size of DEVICE, and holds super block and tables at the same\n"
    "offsets: zu_tier -p FILE works on it as on the device. It appears only when it is\n"
    "complete. Blocks that cannot be read stay holes: they are listed in FILE.unreadable.json,\n"
    "and the exit status is 1.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl save /dev/nvme0n1 cache.img\n"
    "  tar --sparse --zstd -cf cache.tar.zst cache.img*";

} // namespace

void add_save(Subcommand &command)
{
    const auto options = std::make_shared<SaveOptions>();
    command.describe(SAVE_DESCRIPTION, SAVE_FOOTER);
    command.operand("DEVICE", options->device, "Block device or image, only read");
    command.operand("FILE", options->file, "File to create");
    command.option("--write-mapfile", "NEW", options->new_mapfile,
                   "Write a new mapfile for ddrescue: which blocks were read, which\n"
                   "could not be, and that the rest has not been tried");
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    command.run([options] {
        if (save(*options)) {
            return 0;
        }
        complain(options->file + " is incomplete: see " + unreadable_path(options->file));
        return 1;
    });
}

} // namespace tierctl
