#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/subcommand.h"
#include "zu_tierctl/usage/usage.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tierctl {

namespace {

constexpr int STATUS_UNKNOWN = 1;
constexpr int STATUS_NOT_READ = 2;

constexpr const char USAGE_DESCRIPTION[] =
    "Sum up what is cached of files, and what was not written back";

constexpr const char USAGE_FOOTER[] =
    "By brick, and of each the files with most bytes not written back, then most cached: bytes\n"
    "cached and not written back, pieces, last change of the file (its mtime). An extent of v1\n"
    "and v3 is a piece; v3 tells only which blocks are in use and dirty, so that bytes are upper\n"
    "bounds. What damaged and unreadable entries held is unknown: their numbers are listed. Ages\n"
    "are those of last changes, from the newest one back. Sums of bytes stop at 2^64 - 1.\n"
    "\n"
    "Exit status: 0 all is known, 1 something is unknown, 2 a DEVICE could not be read.\n"
    "\n"
    "JSON: a document of one line for each DEVICE, with device, layout, cache, block_size, total,\n"
    "bricks (each with its largest files), inodes, file or ages, unknown: [{table, why, no, last,\n"
    "count}]; with device and error when it could not be read; with several one more with total\n"
    "and not_read, the number of those that could not be read.\n"
    "\n"
    "Examples:\n"
    "  zu_tierctl usage /dev/nvme0n1\n"
    "  zu_tierctl usage --json --top 100000 tier.img | jq '.bricks[].largest[] | .uuid, .dirty'";

struct UsageOptions {
    std::vector<std::string> devices;
    UsageView view;
    std::string by = "brick";
    std::string top;
    std::string file;
    bool json = false;
    std::string super_file;
    std::string mapfile;
};

By read_by(const std::string &text)
{
    constexpr std::pair<std::string_view, By> NAMES[] = {
        {"brick", By::owner}, {"inode", By::file}, {"age", By::age}};
    const auto *const name =
        std::ranges::find(NAMES, text, &std::pair<std::string_view, By>::first);
    if (name == std::end(NAMES)) {
        throw UsageError(fmt::format("--by {}: expected brick, inode or age", text));
    }
    return name->second;
}

/* The total of several devices, and of how many it is not. */
std::string all_text(const UsageTotal &total)
{
    const std::string missing =
        text_if(total.not_read != 0, fmt::format(" but {} that could not be read", total.not_read));
    return fmt::format("all devices{}: {}", missing, total_text(total));
}

/* Prints the usage of the devices, one after the other, and the total of several. The exit status.
 */
int print_usage(const UsageOptions &options)
{
    const size_t width = output_width();
    const bool colours = wants_colours();
    UsageTotal total;
    for (const std::string &device : options.devices) {
        std::string text;
        try {
            const Usage usage = read_usage(device, options.super_file, options.mapfile);
            text = options.json ? usage_json(usage, options.view)
                                : draw_usage(usage, options.view, width, colours);
            total.add(usage, options.view);
        } catch (const UsageError &) {
            throw;
        } catch (const std::exception &error) {
            if (options.json) {
                text = fmt::format("{{\"device\":{},\"error\":{}}}\n", json_text(device),
                                   json_text(error.what()));
            }
            complain(error.what());
            total.not_read++;
        }
        print_text(text);
        if (!options.json && options.devices.size() > 1 && !text.empty()) {
            print_text("\n");
        }
    }
    if (options.devices.size() > 1) {
        print_text(options.json ? total_json(total) : all_text(total) + '\n');
    }
    finish_output();
    return total.not_read != 0 ? STATUS_NOT_READ : total.is_complete ? 0 : STATUS_UNKNOWN;
}

} // namespace

void add_usage(Subcommand &command)
{
    const auto options = std::make_shared<UsageOptions>();
    command.describe(USAGE_DESCRIPTION, USAGE_FOOTER);
    command.operands("DEVICE", options->devices, "Block devices or images, only read");
    command.option("--by", "brick|inode|age", options->by,
                   "What the rows are: brick (and the first files of each),\n"
                   "inode (the first of all) or age");
    command.option("--top", "N", options->top,
                   "So many files, of each brick or of all; default 10");
    command.option("--inode", "NO", options->file, "Only the file of this inode");
    command.flag("--json", options->json, "Report as JSON, not as text");
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    const auto run = [options] {
        options->view.by = read_by(options->by);
        if (!options->top.empty()) {
            options->view.top = read_number("--top", options->top);
        }
        if (!options->file.empty()) {
            options->view.file = read_number("--inode", options->file);
        }
        require_one_device(options->super_file, options->mapfile, options->devices.size());
        refuse_same(options->devices);
        return print_usage(*options);
    };
    command.run(run, STATUS_NOT_READ);
}

} // namespace tierctl
