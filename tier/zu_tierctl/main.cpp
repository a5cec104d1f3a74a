#include "common/zutr_utils.h"
#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/subcommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <sstream>
#include <string_view>

namespace tierctl {

namespace {

constexpr int STATUS_USAGE = 2;
constexpr int STATUS_UNREAD = 128 + SIGPIPE; /* as a shell shows a program that the signal ended */

int fail(const std::exception &error, int status)
{
    complain(error.what());
    return status;
}

struct Command {
    std::string_view name;
    void (*add)(Subcommand &command);
};

constexpr Command COMMANDS[] = {
    {"apply", add_apply},     {"check", add_check},       {"diff", add_diff},
    {"domain", add_domain},   {"export", add_export},     {"map", add_map},
    {"plan", add_plan},       {"rescue", add_rescue},     {"revert", add_revert},
    {"salvage", add_salvage}, {"sample", add_sample},     {"save", add_save},
    {"sql", add_sql},         {"template", add_template}, {"undo", add_undo},
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
            Subcommand added(app, std::string(command.name), status);
            command.add(added);
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
