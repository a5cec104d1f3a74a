#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/sample/sample.h"
#include "zu_tierctl/subcommand.h"

#include <fmt/core.h>
#include <functional>
#include <memory>
#include <string>

namespace tierctl {

namespace {

constexpr const char SAMPLE_FOOTER[] =
    "Example, a device with two damaged entries, and what zu_tier says of one of its tables:\n"
    "  zu_tierctl sample --layout v1 --inodes 1000 --damage inode:7 --damage extent:3:number "
    "tier.img\n"
    "  zu_tier -l tier.log -p tier.img -c dump_inode";

constexpr const char DAMAGE_HELP[] = "Spoil an entry; may be repeated\n"
                                     "TABLE: super (its only entry is 0), brick, inode (also in\n"
                                     "the expansion area), extent; in v3 also shard and hot, and\n"
                                     "an entry of shard, hot or extent is a block of the table\n"
                                     "KIND, by default the first that the table has: checksum,\n"
                                     "magic or number (the checksum stays right), zero (the whole\n"
                                     "slot), bit (one bit of the record, chosen by the seed)";

constexpr const char DATA_HELP[] = "Fill what the extents hold of files, in pages of 4096 bytes:\n"
                                   "each 32 bytes are the uuid of the file, the offset of the\n"
                                   "page in the file, in v3 its address, and its offset on the\n"
                                   "device, each of 8 bytes; without it all that stays zero";

constexpr const char OVERWRITE_HELP[] =
    "With --force: also when the block device holds a cache, a file\n"
    "system or anything else that is recognised";

std::string conversion_help()
{
    const SampleLayout &layout = SAMPLE_LAYOUT_FOR_CONVERSION;
    return fmt::format("Make a device that convert_super accepts: the tables of v2\n"
                       "under the super block of {}; sizes as for v2, but\n"
                       "{} {} and no {}",
                       layout.name, SIZE_OPTIONS[BLOCKS].name, bounds_text(layout.bounds[BLOCKS]),
                       SIZE_OPTIONS[EXPANSION].name);
}

/* The option's meaning and, in a line for each layout, "v1: 1..300, default 4". */
std::string size_help(size_t size)
{
    std::string text = SIZE_OPTIONS[size].meaning;
    for (const SampleLayout *layout : sample_layouts()) {
        const Bounds &bounds = layout->bounds[size];
        text += fmt::format("\n{}: {}", layout->name, bounds_text(bounds));
        if (bounds.fallback != 0) {
            text += fmt::format(", default {}", bounds.fallback);
        }
    }
    return text;
}

std::string layout_help()
{
    std::string names;
    for (const SampleLayout *layout : sample_layouts()) {
        names += fmt::format("{}{}", names.empty() ? "" : ", ", layout->name);
    }
    return "Layout of the device: " + names;
}

std::string seed_help()
{
    return fmt::format("Seed of everything random, default {}\n"
                       "The same arguments give the same bytes: times lie in the year\n"
                       "before {}",
                       SampleOptions{}.seed, SAMPLE_DATE);
}

} // namespace

void add_sample(Subcommand &command)
{
    const auto options = std::make_shared<SampleOptions>();
    /* The library would read -1 as the largest number. */
    const auto number = [&](const char *name, const std::function<void(uint64_t)> &store,
                            const std::string &help) {
        const auto read = [name, store](const std::string &text) {
            store(read_number(name, text));
        };
        command.option(name, "N", read, help);
    };
    command.describe("Write the image of a sample device", SAMPLE_FOOTER);
    command.widen();
    command.operand("FILE", options->file, "File, or with --force block device, to write");
    command.option("--layout", "NAME", options->layout, layout_help());
    command.require("--layout");
    command.flag("--for-conversion", options->for_conversion, conversion_help());
    for (size_t i = 0; i < SIZES; i++) {
        const auto store = [options, i](uint64_t value) { options->sizes[i] = value; };
        number(SIZE_OPTIONS[i].name, store, size_help(i));
    }
    const auto store_seed = [options](uint64_t value) { options->seed = value; };
    number("--seed", store_seed, seed_help());
    command.option("--damage", "TABLE:NO[:KIND]", options->damage, DAMAGE_HELP);
    command.flag("--data", options->data, DATA_HELP);
    command.exclude("--data", {"--for-conversion"});
    command.flag("--force", options->force, "Replace FILE, or write to the block device");
    command.flag("--overwrite-cache", options->overwrite_cache, OVERWRITE_HELP);
    command.run([options] {
        sample(*options);
        return 0;
    });
}

} // namespace tierctl
