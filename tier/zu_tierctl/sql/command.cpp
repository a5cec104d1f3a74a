#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/sql/sql.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tierctl {

namespace {

constexpr const char SQL_DESCRIPTION[] = "Ask anything about the entries of devices, in SQL";

constexpr const char SQL_FOOTER[] =
    "Tables: super, brick, inode, shard, extent, piece (a mapped piece of an extent in use, under\n"
    "the number of this) and finding (what check says). All have device, no, meta_offset (of the\n"
    "block) and state (ok, damaged, unreadable); the other columns are the fields of a dump, NULL\n"
    "where a layout has none and where a block cannot be read. Times are nanoseconds, and text in\n"
    "the views super_text and inode_text. Unsigned numbers from 2^63 on are decimal text. A\n"
    "condition on no reads one block, one on device only this. PRAGMA table_info(extent) shows "
    "the\n"
    "columns. A query can only read; Ctrl-C ends it.\n"
    "\n"
    "Examples, files by bytes not written back, and a database for later:\n"
    "  zu_tierctl sql tier.img 'SELECT i.uuid, sum(e.te_size) FROM extent e JOIN inode i\n"
    "    ON i.no = e.te_inode_no WHERE e.te_use AND NOT e.te_clean GROUP BY 1 ORDER BY 2 DESC'\n"
    "  zu_tierctl sql node1.img node2.img --into caches.db";

struct SqlCommand {
    SqlOptions options;
    std::string file;
};

void run_sql(SqlCommand command)
{
    std::vector<std::string> &devices = command.options.devices;
    std::string query;
    if (command.file.empty()) {
        query = devices.back();
        devices.pop_back();
        if (devices.empty()) {
            throw UsageError("QUERY is required");
        }
    }
    require_one_device(command.options.super_file, command.options.mapfile, devices.size());
    if (command.file.empty()) {
        print_query(command.options, query);
    } else {
        write_database(command.options, command.file);
    }
}

} // namespace

void add_sql(CLI::App &app)
{
    const auto sql = std::make_shared<SqlCommand>();
    CLI::App *command = app.add_subcommand("sql", SQL_DESCRIPTION);
    command->footer(SQL_FOOTER);
    command
        ->add_option("DEVICE", sql->options.devices,
                     "Block devices or images, only read; then the QUERY, unless\n"
                     "--into is given")
        ->type_name("")
        ->required();
    const auto add_format = [&](const char *name, RowFormat format, const char *help) {
        return command->add_flag_callback(
            name, [sql, format] { sql->options.format = format; }, help);
    };
    CLI::Option *json = add_format("--json", RowFormat::json, "Print an array of objects");
    CLI::Option *ndjson = add_format("--ndjson", RowFormat::ndjson, "Print an object a line");
    CLI::Option *csv = add_format("--csv", RowFormat::csv, "Print CSV, with a line of names");
    ndjson->excludes(json);
    csv->excludes(json)->excludes(ndjson);
    command
        ->add_option("--into", sql->file,
                     "Write all tables into this new file, an SQLite database with\n"
                     "indexes, instead of asking")
        ->type_name("FILE")
        ->excludes(json)
        ->excludes(ndjson)
        ->excludes(csv);
    add_super_option(*command, sql->options.super_file);
    add_mapfile_option(*command, sql->options.mapfile);
    command->callback([sql] { run_sql(*sql); });
}

} // namespace tierctl
