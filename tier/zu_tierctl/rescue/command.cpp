#include "zu_tierctl/commands.h"
#include "zu_tierctl/rescue/rescue.h"
#include "zu_tierctl/subcommand.h"

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

void add_rescue(Subcommand &command)
{
    const auto options = std::make_shared<RescueOptions>();
    command.describe("Print a repair file of a lost super block, from its tables", RESCUE_FOOTER);
    command.widen();
    command.operand("DEVICE", options->device, "Device, or image of one");
    command.option("--uuid", "UUID", options->uuid, "Identity of the cache");
    command.option("--ssd-uuid", "TEXT", options->ssd_uuid, "Identity of the SSD, 38 characters");
    command.option("--ctime", "TIME", options->ctime,
                   "Time of creation: nanoseconds since the epoch,\n"
                   "hexadecimal after 0x");
    command.option("--like", "FILE", options->like,
                   "What no table says comes from this device or saved\n"
                   "file of the same layout and size; the identities only\n"
                   "when it is of the same cache");
    command.flag("!--no-verify", options->verify, "Do not check the device under the result");
    command.run([options] { return rescue(*options) ? 0 : STATUS_INCOMPLETE; });
}

} // namespace tierctl
