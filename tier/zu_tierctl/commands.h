#pragma once

#include <cstddef>
#include <string>

namespace CLI {
class App;
}

namespace tierctl {

/* Adds a required operand to a subcommand. */
void add_operand(CLI::App &command, const char *name, std::string &value, const std::string &help);

/* Adds the operands TABLE and NO, which read_operands() takes, to a subcommand. */
void add_entry_operands(CLI::App &command, std::string &table, std::string &numbers);

/* Adds the option --super of the commands that read a device. */
void add_super_option(CLI::App &command, std::string &value);

/* Adds the option --mapfile of the commands that read a copy made by ddrescue. */
void add_mapfile_option(CLI::App &command, std::string &value);

/* Refuses these options, where they are not empty, for several devices. */
void require_one_device(const std::string &super_file, const std::string &mapfile, size_t devices);

/* Each function adds a subcommand to `app`: its options, and a callback that runs it. The callback
 * may store the program's exit status in `*status`, which must outlive `app`; by default it is 0,
 * or 1 after an exception. */
void add_apply(CLI::App &app);
void add_check(CLI::App &app, int *status);
void add_diff(CLI::App &app, int *status);
void add_domain(CLI::App &app, int *status);
void add_export(CLI::App &app);
void add_map(CLI::App &app);
void add_plan(CLI::App &app);
void add_rescue(CLI::App &app, int *status);
void add_revert(CLI::App &app);
void add_salvage(CLI::App &app, int *status);
void add_sample(CLI::App &app);
void add_save(CLI::App &app, int *status);
void add_sql(CLI::App &app);
void add_template(CLI::App &app);
void add_undo(CLI::App &app);
void add_usage(CLI::App &app, int *status);

} // namespace tierctl
