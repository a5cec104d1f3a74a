#include "zu_tierctl/subcommand.h"

#include "zu_tierctl/entry/table.h"

#include <CLI/CLI.hpp>

namespace tierctl {

Subcommand::Subcommand(CLI::App &app, const std::string &name, int *status)
    : app_(*app.add_subcommand(name)), status_(status)
{
}

void Subcommand::describe(const std::string &text, const char *footer)
{
    app_.description(text);
    app_.footer(footer);
}

void Subcommand::widen() { app_.get_formatter()->column_width(32); }

void Subcommand::operand(const char *name, std::string &value, const std::string &help)
{
    app_.add_option(name, value, help)->type_name("")->required();
}

void Subcommand::operand(const char *name, std::optional<std::string> &value,
                         const std::string &help)
{
    app_.add_option(name, value, help)->type_name("");
}

void Subcommand::operands(const char *name, std::vector<std::string> &values,
                          const std::string &help)
{
    app_.add_option(name, values, help)->type_name("")->required();
}

void Subcommand::entry_operands(std::string &table, std::string &numbers)
{
    operand("TABLE", table,
            tables_text() + ";\nan inode may lie in the expansion area; of shard,\n"
                            "hot and the extent of v3 an entry is a block");
    app_.add_option("NO", numbers,
                    "Number of the entry, 0 for the super block; several\n"
                    "as in 3,7,9..12. Octal after 0, hexadecimal after 0x\n"
                    "Instead of TABLE NO, extent:1542 names the block in\n"
                    "which extent 1542 is")
        ->type_name("");
}

void Subcommand::flag(const char *name, bool &chosen, const std::string &help)
{
    app_.add_flag(name, chosen, help);
}

void Subcommand::flag(const char *name, const std::function<void()> &choose,
                      const std::string &help)
{
    app_.add_flag_callback(name, choose, help);
}

void Subcommand::option(const char *name, const char *type, std::string &value,
                        const std::string &help)
{
    app_.add_option(name, value, help)->type_name(type);
}

void Subcommand::option(const char *name, const char *type, std::optional<std::string> &value,
                        const std::string &help)
{
    app_.add_option(name, value, help)->type_name(type);
}

void Subcommand::option(const char *name, const char *type, std::vector<std::string> &values,
                        const std::string &help)
{
    app_.add_option(name, values, help)->type_name(type)->allow_extra_args(false);
}

void Subcommand::option(const char *name, const char *type,
                        const std::function<void(const std::string &)> &read,
                        const std::string &help)
{
    app_.add_option_function<std::string>(name, read, help)->type_name(type);
}

void Subcommand::super_option(std::string &file)
{
    option("--super", "FILE", file,
           "Where the super block is lost: take that of FILE, a device, image or\n"
           "saved file, its block alone, or a repair file for it");
}

void Subcommand::mapfile_option(std::string &file)
{
    option("--mapfile", "MAP", file,
           "DEVICE is a copy that ddrescue has made with this mapfile: what that\n"
           "does not call finished cannot be read");
}

void Subcommand::commit_flag(bool &commit)
{
    flag("--commit", commit,
         "Write: a block device is opened for this program alone, and what was\n"
         "written is read back");
}

void Subcommand::require(const char *name) { app_.get_option(name)->required(); }

void Subcommand::exclude(const char *name, std::initializer_list<const char *> others)
{
    CLI::Option *option = app_.get_option(name);
    for (const char *other : others) {
        option->excludes(app_.get_option(other));
    }
}

void Subcommand::run(const std::function<int()> &run, int failure)
{
    app_.callback([status = status_, run, failure] {
        *status = failure;
        *status = run();
    });
}

} // namespace tierctl
