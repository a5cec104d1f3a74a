#include "zu_tierctl/commands.h"
#include "zu_tierctl/salvage/domain.h"
#include "zu_tierctl/subcommand.h"

#include <memory>

namespace tierctl {

namespace {

constexpr const char DOMAIN_FOOTER[] =
    "The output is a mapfile of GNU ddrescue, for its option -m: what is wanted is finished in "
    "it,\n"
    "everything else has not been tried. Without the tables nobody knows what was not written\n"
    "back: copy them first, and ask the copy.\n"
    "Exit status: 0 done, 1 not done, or some extents could not be read or are damaged.\n"
    "\n"
    "Example, first the tables of a device that dies, then what was not written back, as files:\n"
    "  zu_tierctl domain --metadata /dev/nvme0n1 >tables.map\n"
    "  ddrescue -d -m tables.map /dev/nvme0n1 copy.img copy.map\n"
    "  zu_tierctl domain --dirty --mapfile copy.map copy.img >dirty.map\n"
    "  ddrescue -d -m dirty.map /dev/nvme0n1 copy.img copy.map\n"
    "  zu_tierctl salvage --mapfile copy.map copy.img /srv/salvaged";

} // namespace

void add_domain(Subcommand &command)
{
    const auto options = std::make_shared<DomainOptions>();
    const auto flag = [&](const char *name, Domain domain, const char *help) {
        command.flag(
            name, [options, domain] { options->domain = domain; }, help);
    };
    command.describe("Print what ddrescue is to copy of a device that dies", DOMAIN_FOOTER);
    command.operand("DEVICE", options->device, "Block device or image, only read");
    flag("--metadata", Domain::metadata, "Super block and tables: the default");
    flag("--dirty", Domain::dirty, "These, and data that was not written back");
    flag("--all", Domain::all, "These, and all data in use");
    command.exclude("--dirty", {"--metadata"});
    command.exclude("--all", {"--metadata", "--dirty"});
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    command.run([options] { return print_domain(*options) ? 0 : 1; });
}

} // namespace tierctl
