#include "common/zutr_utils.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/entry/table.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <sstream>
#include <string_view>

namespace tierctl {

namespace {

constexpr int STATUS_FAILURE = 1;
constexpr int STATUS_USAGE = 2;
constexpr int STATUS_UNREAD = 128 + SIGPIPE; /* as a shell shows a program that the signal ended */

int fail(const std::exception &error, int status)
{
    complain(error.what());
    return status;
}

template <void (*Add)(CLI::App &)>
void without_status(CLI::App &app, int *)
{
    Add(app);
}

struct Command {
    std::string_view name;
    void (*add)(CLI::App &app, int *status);
};

constexpr Command COMMANDS[] = {
    {"apply", without_status<add_apply>},
    {"check", add_check},
    {"diff", add_diff},
    {"domain", add_domain},
    {"export", without_status<add_export>},
    {"map", without_status<add_map>},
    {"plan", without_status<add_plan>},
    {"rescue", add_rescue},
    {"revert", without_status<add_revert>},
    {"salvage", add_salvage},
    {"sample", without_status<add_sample>},
    {"save", add_save},
    {"sql", without_status<add_sql>},
    {"template", without_status<add_template>},
    {"undo", without_status<add_undo>},
    {"usage", add_usage},
};

/* Adds the command that `first`, the first argument, names; all of them when it names none. To make
 * the options of all would be a quarter of a short run. */
void add_commands(CLI::App &app, std::string_view first, int *status)
{
    const auto is_named = [first](const Command &command) { return command.name == first; };
    const bool only_one = std::ranges::any_of(COMMANDS, is_named);
    for (const Command &command : COMMANDS) {
        if (!only_one || is_named(command)) {
            command.add(app, status);
        }
    }
}

int run(int argc, char *argv[], int *status)
{
    CLI::App app{"Companion of zu_tier: everything around the repair of a tier-cache device.",
                 "zu_tierctl"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "zu_tierctl " ZU_TIER_RELEASE);
    add_commands(app, argc > 1 ? argv[1] : "", status);
    try {
        app.parse(argc, argv);
        return *status;
    } catch (const CLI::Success &help) {
        std::ostringstream text;
        *status = app.exit(help, text, text);
        print_text(text.str());
        finish_output();
        return *status;
    } catch (const CLI::ParseError &error) {
        return fail(error, STATUS_USAGE);
    } catch (const UsageError &error) {
        return fail(error, STATUS_USAGE);
    }
}

} // namespace

void add_operand(CLI::App &command, const char *name, std::string &value, const std::string &help)
{
    command.add_option(name, value, help)->type_name("")->required();
}

void add_entry_operands(CLI::App &command, std::string &table, std::string &numbers)
{
    add_operand(command, "TABLE", table,
                tables_text() + ";\nan inode may lie in the expansion area; of shard,\n"
                                "hot and the extent of v3 an entry is a block");
    command
        .add_option("NO", numbers,
                    "Number of the entry, 0 for the super block; several\n"
                    "as in 3,7,9..12. Octal after 0, hexadecimal after 0x\n"
                    "Instead of TABLE NO, extent:1542 names the block in\n"
                    "which extent 1542 is")
        ->type_name("");
}

void add_super_option(CLI::App &command, std::string &value)
{
    constexpr const char HELP[] =
        "Where the super block is lost: take that of FILE, a device, image or\n"
        "saved file, its block alone, or a repair file for it";
    command.add_option("--super", value, HELP)->type_name("FILE");
}

void add_mapfile_option(CLI::App &command, std::string &value)
{
    constexpr const char HELP[] =
        "DEVICE is a copy that ddrescue has made with this mapfile: what that\n"
        "does not call finished cannot be read";
    command.add_option("--mapfile", value, HELP)->type_name("MAP");
}

void require_one_device(const std::string &super_file, const std::string &mapfile, size_t devices)
{
    if (devices > 1 && !(super_file.empty() && mapfile.empty())) {
        throw UsageError(super_file.empty() ? "--mapfile is for one DEVICE"
                                            : "--super is for one DEVICE");
    }
}

} // namespace tierctl

int main(int argc, char *argv[])
{
    int status = 0;
    try {
        if (zutr_secure_streams() != 0) {
            tierctl::throw_errno("cannot open /dev/null");
        }
        return tierctl::run(argc, argv, &status);
    } catch (const tierctl::OutputClosed &) {
        return tierctl::STATUS_UNREAD;
    } catch (const std::exception &error) { /* GCOVR_EXCL_BR_LINE: nothing else is thrown */
        return tierctl::fail(error, status != 0 ? status : tierctl::STATUS_FAILURE);
    }
}
