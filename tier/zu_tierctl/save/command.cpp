#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/save/save.h"

#include <CLI/CLI.hpp>
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

void add_save(CLI::App &app, int *status)
{
    const auto options = std::make_shared<SaveOptions>();
    CLI::App *command = app.add_subcommand("save", SAVE_DESCRIPTION);
    command->footer(SAVE_FOOTER);
    add_operand(*command, "DEVICE", options->device, "Block device or image, only read");
    add_operand(*command, "FILE", options->file, "File to create");
    command
        ->add_option("--write-mapfile", options->new_mapfile,
                     "Write a new mapfile for ddrescue: which blocks were read, which\n"
                     "could not be, and that the rest has not been tried")
        ->type_name("NEW");
    add_super_option(*command, options->super_file);
    add_mapfile_option(*command, options->mapfile);
    command->callback([options, status] {
        if (!save(*options)) {
            complain(options->file + " is incomplete: see " + unreadable_path(options->file));
            *status = 1;
        }
    });
}

} // namespace tierctl
