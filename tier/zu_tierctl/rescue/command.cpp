#include "zu_tierctl/commands.h"
#include "zu_tierctl/rescue/rescue.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tierctl {

namespace {

constexpr int STATUS_INCOMPLETE = 1;

constexpr const char RESCUE_FOOTER[] =
    "Standard error tells where each value comes from, how sure it is (certain, likely, or\n"
    "not certain) and which value comes next; then what check finds under this super block,\n"
    "and the command that writes it. First comes the block itself, mended by its checksum;\n"
    "then what is left of it, as far as the tables agree; then the tables alone: numbers,\n"
    "magics and checksums of their entries. The device is not changed.\n"
    "\n"
    "No table holds the identities and the time of creation. Where they are not given the\n"
    "file has null, which zu_tier refuses.\n"
    "\n"
    "Exit status: 0 the file is complete, 1 a value has to be filled in, or an error.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl rescue /dev/vg/tcache --like saved.tier > super.json\n"
    "  zu_tier -l tier.log -p /dev/vg/tcache -c repair_super -v 2 -f super.json     shows it\n"
    "  zu_tier -l tier.log -p /dev/vg/tcache -c repair_super -v 2 -f super.json -y";

} // namespace

void add_rescue(CLI::App &app, int *status)
{
    const auto options = std::make_shared<RescueOptions>();
    CLI::App *command =
        app.add_subcommand("rescue", "Print a repair file of a lost super block, from its tables");
    command->footer(RESCUE_FOOTER);
    command->get_formatter()->column_width(32);
    add_operand(*command, "DEVICE", options->device, "Device, or image of one");
    command->add_option("--uuid", options->uuid, "Identity of the cache")->type_name("UUID");
    command->add_option("--ssd-uuid", options->ssd_uuid, "Identity of the SSD, 38 characters")
        ->type_name("TEXT");
    command
        ->add_option("--ctime", options->ctime,
                     "Time of creation: nanoseconds since the epoch,\n"
                     "hexadecimal after 0x")
        ->type_name("TIME");
    command
        ->add_option("--like", options->like,
                     "What no table says comes from this device or saved\n"
                     "file of the same layout and size; the identities only\n"
                     "when it is of the same cache")
        ->type_name("FILE");
    command->add_flag("!--no-verify", options->verify, "Do not check the device under the result");
    command->callback([options, status] { *status = rescue(*options) ? 0 : STATUS_INCOMPLETE; });
}

} // namespace tierctl
