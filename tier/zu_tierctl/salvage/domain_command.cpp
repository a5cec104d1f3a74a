#include "zu_tierctl/commands.h"
#include "zu_tierctl/salvage/domain.h"

#include <CLI/CLI.hpp>
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
    "Example, first the tables of a device that dies, then what was not written back:\n"
    "  zu_tierctl domain --metadata /dev/nvme0n1 >tables.map\n"
    "  ddrescue -d -m tables.map /dev/nvme0n1 copy.img copy.map\n"
    "  zu_tierctl domain --dirty --mapfile copy.map copy.img >dirty.map\n"
    "  ddrescue -d -m dirty.map /dev/nvme0n1 copy.img copy.map";

} // namespace

void add_domain(CLI::App &app, int *status)
{
    constexpr std::pair<const char *, Domain> FLAGS[] = {
        {"--metadata", Domain::metadata}, {"--dirty", Domain::dirty}, {"--all", Domain::all}};
    constexpr const char *HELPS[] = {"Super block and tables: the default",
                                     "These, and data that was not written back",
                                     "These, and all data in use"};
    const auto options = std::make_shared<DomainOptions>();
    CLI::App *command =
        app.add_subcommand("domain", "Print what ddrescue is to copy of a device that dies");
    command->footer(DOMAIN_FOOTER);
    add_operand(*command, "DEVICE", options->device, "Block device or image, only read");
    std::vector<CLI::Option *> flags;
    for (size_t i = 0; i < std::size(FLAGS); i++) {
        const auto &[name, domain] = FLAGS[i];
        CLI::Option *flag = command->add_flag_callback(
            name, [options, wanted = domain] { options->domain = wanted; }, HELPS[i]);
        for (CLI::Option *other : flags) {
            flag->excludes(other);
        }
        flags.push_back(flag);
    }
    add_super_option(*command, options->super_file);
    add_mapfile_option(*command, options->mapfile);
    command->callback([options, status] { *status = print_domain(*options) ? 0 : 1; });
}

} // namespace tierctl
