#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/map/map.h"
#include "zu_tierctl/subcommand.h"

#include <memory>
#include <optional>
#include <string>

namespace tierctl {

namespace {

constexpr size_t HTML_CELLS_MAX = 3000; /* of a table */

constexpr const char MAP_DESCRIPTION[] = "Draw what the tables of a device hold, and where";

constexpr const char MAP_FOOTER[] =
    "Each table is a grid of cells, each of them one entry or several that follow one another:\n"
    "in use, dirty (not written back), free, with findings of zu_tierctl check, damaged, "
    "unreadable. Rows begin with the\n"
    "number of their first entry, and the expansion of a table begins a row of its own. Then come\n"
    "use by brick and the ages of files, from the newest access back; accesses more than a year\n"
    "later than all others are left out as odd when they are few. The picture is as wide as the\n"
    "terminal, or COLUMNS; it has colours on a terminal, unless NO_COLOR is set. A page also "
    "lists\n"
    "the findings, at most 5000 and 1000 of a kind, by severity, table, kind and words.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl map --html map.html /dev/nvme0n1";

struct MapOptions {
    std::string device;
    std::optional<std::string> html;
    bool quick = false;
    std::string super_file;
    std::string plan_file;
    std::string mapfile;
};

void write_html(const MapOptions &options)
{
    refuse_existing(*options.html);
    NewFile file(*options.html, Naming::new_name);
    const std::string page = draw_page(read_map(
        options.device, [](uint64_t) { return HTML_CELLS_MAX; }, options.super_file, options.quick,
        options.plan_file, options.mapfile));
    file.write(0, page.data(), page.size());
    file.commit();
}

void print_map(const MapOptions &options)
{
    const size_t width = output_width();
    const bool colours = wants_colours();
    const Map map = read_map(
        options.device, [width](uint64_t last) { return terminal_cells(width, last); },
        options.super_file, options.quick, options.plan_file, options.mapfile);
    print_text(draw_terminal(map, width, colours));
    finish_output();
}

} // namespace

void add_map(Subcommand &command)
{
    const auto options = std::make_shared<MapOptions>();
    command.describe(MAP_DESCRIPTION, MAP_FOOTER);
    command.operand("DEVICE", options->device, "Block device or image, only read");
    command.option("--html", "FILE", options->html, "Draw a page into this new file instead");
    command.flag("--quick", options->quick,
                 "Read once, with little memory: do not search for duplicates");
    command.option("--plan", "PLAN", options->plan_file,
                   "Show what this plan would change: cells of which it repairs all that\n"
                   "is damaged or cannot be read are marked");
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    command.run([options] {
        if (options->html) {
            write_html(*options);
        } else {
            print_map(*options);
        }
        return 0;
    });
}

} // namespace tierctl
