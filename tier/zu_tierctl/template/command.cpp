#include "zu_tier/layout/layout.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/entry/selection.h"
#include "zu_tierctl/subcommand.h"
#include "zu_tierctl/template/template.h"

#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

constexpr const char TEMPLATE_FOOTER[] =
    "Standard error tells what is wrong with the entry, every field and byte that a\n"
    "repair with the unchanged file would change, what zu_tier would refuse, and the\n"
    "command that repairs it. Where the checksum tells which one or two bits of a\n"
    "damaged entry have flipped, standard error names them, and the file has the entry\n"
    "mended; otherwise it has what can be read. The device is not changed.\n"
    "\n"
    "Example, an inode whose checksum is wrong:\n"
    "  zu_tierctl template /dev/vg/tcache inode 7 > inode7.json\n"
    "  vi inode7.json\n"
    "  zu_tier -l tier.log -p /dev/vg/tcache -c repair_inode -f inode7.json     shows the result\n"
    "  zu_tier -l tier.log -p /dev/vg/tcache -c repair_inode -f inode7.json -y\n"
    "The files of several, in the new directory fix:\n"
    "  zu_tierctl template /dev/vg/tcache inode 7,9..12 --into fix";

struct TemplateOptions {
    std::string device;
    std::string table;
    std::string numbers;
    std::string layout;
    std::string into;
    std::string super_file;
    std::string mapfile;
    bool as_is = false;

    Damage damage() const { return as_is ? Damage::as_is : Damage::mended; }
};

std::vector<std::string_view> layout_names()
{
    std::vector<std::string_view> names;
    for (const tier_layout *layout : tier_layouts()) {
        names.push_back(layout->name);
    }
    return names;
}

void complain_of(const Table &table, uint64_t no, std::string_view what)
{
    complain(fmt::format("{} {}: {}", table.name, no, what));
}

void tell(const Table &table, uint64_t no, const Template &made)
{
    for (const std::string &note : made.notes) {
        complain_of(table, no, note);
    }
}

void write_file(const std::string &path, const std::string &text)
{
    NewFile file(path, Naming::new_name);
    file.write(0, text.data(), text.size());
    file.commit();
}

/* Writes a file for each entry. What cannot be read does not keep the others from being written. */
void write_files(const Device &device, const Metadata &metadata, const Selection &selection,
                 const TemplateOptions &options)
{
    const Table &table = selection.table;
    const std::string &directory = options.into;
    const auto path_of = [&](uint64_t no) {
        return (fs::path(directory) / fmt::format("{}-{}.json", table.name, no)).string();
    };
    std::error_code error; /* of a directory that exists: none */
    fs::create_directory(directory, error);
    if (error) {
        throw std::system_error(error, "cannot create " + directory);
    }
    for (const uint64_t no : selection.slots) {
        refuse_existing(path_of(no));
    }
    size_t failed = 0;
    for (const uint64_t no : selection.slots) {
        const std::string path = path_of(no);
        std::optional<Template> made;
        try {
            made = make_template(device, metadata, table, no, path, options.damage());
        } catch (const std::runtime_error &reason) {
            complain_of(table, no, reason.what());
            failed++;
            continue;
        }
        write_file(path, made->file);
        tell(table, no, *made);
    }
    if (failed != 0) {
        throw std::runtime_error(
            fmt::format("{} of {} files were not written", failed, selection.slots.size()));
    }
}

void run(const TemplateOptions &options)
{
    const EntryOperands entries = read_operands(options.table, options.numbers);
    const Device device(options.device, Access::read_only, options.mapfile);
    hint_in_use(options.device);
    const Metadata metadata =
        read_template_metadata(device, entries.table, options.layout, options.super_file);
    const Selection selection = select_slots(metadata.tables, entries);
    if (options.into.empty() && selection.slots.size() > 1) {
        throw UsageError("zu_tier repairs one entry a file: several need --into DIR");
    }
    for (const std::string &note : selection.notes) {
        complain(note);
    }
    if (!options.into.empty()) {
        write_files(device, metadata, selection, options);
        return;
    }
    const uint64_t no = selection.slots.front();
    const Template made =
        make_template(device, metadata, selection.table, no, "", options.damage());
    print_text(made.file);
    finish_output();
    tell(selection.table, no, made);
}

} // namespace

void add_template(Subcommand &command)
{
    const auto options = std::make_shared<TemplateOptions>();
    command.describe("Print the repair file of an entry, ready to edit", TEMPLATE_FOOTER);
    command.widen();
    command.operand("DEVICE", options->device, "Device or image");
    command.entry_operands(options->table, options->numbers);
    command.option("--into", "DIR", options->into,
                   "Write a new file for each entry into this directory,\n"
                   "inode-7.json; made if there is none. Several entries\n"
                   "need it");
    command.flag("--as-is", options->as_is,
                 "Give a damaged entry as it stands. Without it the file\n"
                 "has the entry mended where one or two flipped bits\n"
                 "explain the damage");
    command.option("--layout", "NAME", options->layout,
                   fmt::format("Layout of a super block that does not say so: {}",
                               fmt::join(layout_names(), ", ")));
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    command.run([options] {
        run(*options);
        return 0;
    });
}

} // namespace tierctl
