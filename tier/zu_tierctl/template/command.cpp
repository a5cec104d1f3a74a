#include "zu_tier/layout/layout.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/template/template.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

namespace {

constexpr const char TEMPLATE_FOOTER[] =
    "Standard error tells what is wrong with the entry, every field and byte that a\n"
    "repair with the unchanged file would change, what zu_tier would refuse, and the\n"
    "command that repairs it. Of a damaged entry the file has what can be read. The\n"
    "device is not changed.\n"
    "\n"
    "Example, an inode whose checksum is wrong:\n"
    "  zu_tierctl template /dev/vg/tcache inode 7 > inode7.json\n"
    "  vi inode7.json\n"
    "  zu_tier -p /dev/vg/tcache -c repair_inode -f inode7.json     shows what it would write\n"
    "  zu_tier -p /dev/vg/tcache -c repair_inode -f inode7.json -y";

struct template_options {
    std::string device;
    std::string table;
    std::string no;
    std::string layout;
};

std::vector<std::string_view> layout_names()
{
    std::vector<std::string_view> names;
    for (const tier_layout *layout : tier_layouts()) {
        names.push_back(layout->name);
    }
    return names;
}

void run(const template_options &options)
{
    const uint64_t no = read_number("NO", options.no);
    const Device device(options.device, Access::read_only);
    const Template made = make_template(device, options.table, no, options.layout);
    print_text(made.file);
    finish_output();
    for (const std::string &note : made.notes) {
        complain(fmt::format("{} {}: {}", options.table, options.no, note));
    }
}

} // namespace

void add_template(CLI::App &app)
{
    const auto options = std::make_shared<template_options>();
    CLI::App *command =
        app.add_subcommand("template", "Print the repair file of an entry, ready to edit");
    command->footer(TEMPLATE_FOOTER);
    command->get_formatter()->column_width(32);
    command->add_option("DEVICE", options->device, "Device or image")->type_name("")->required();
    command
        ->add_option("TABLE", options->table,
                     tables_text() + ";\nan inode may also lie in the expansion area")
        ->type_name("")
        ->required();
    command
        ->add_option("NO", options->no,
                     "Number of the entry, 0 for the super block; in v3 that of\n"
                     "the block of a shard, hot or extent table")
        ->type_name("")
        ->required();
    command
        ->add_option("--layout", options->layout,
                     fmt::format("Layout of a super block that does not say so: {}",
                                 fmt::join(layout_names(), ", ")))
        ->type_name("NAME");
    command->callback([options] { run(*options); });
}

} // namespace tierctl
