#pragma once

#include <cstddef>
#include <string>

namespace tierctl {

class Subcommand;

/* Refuses these options, where they are not empty, for several devices. */
void require_one_device(const std::string &super_file, const std::string &mapfile, size_t devices);

/* Each says what its command takes and does. */
void add_apply(Subcommand &command);
void add_check(Subcommand &command);
void add_diff(Subcommand &command);
void add_domain(Subcommand &command);
void add_export(Subcommand &command);
void add_map(Subcommand &command);
void add_plan(Subcommand &command);
void add_rescue(Subcommand &command);
void add_revert(Subcommand &command);
void add_salvage(Subcommand &command);
void add_sample(Subcommand &command);
void add_save(Subcommand &command);
void add_sql(Subcommand &command);
void add_template(Subcommand &command);
void add_undo(Subcommand &command);
void add_usage(Subcommand &command);

} // namespace tierctl
