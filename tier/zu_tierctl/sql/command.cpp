#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/sql/sql.h"
#include "zu_tierctl/subcommand.h"

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
    "  zu_tierctl sql tier.img \"SELECT i.uuid, sum(e.te_size) FROM extent e JOIN inode i\n"
    "    ON i.no = e.te_inode_no WHERE e.state = 'ok' AND e.te_use AND NOT e.te_clean\n"
    "    GROUP BY 1 ORDER BY 2 DESC\"\n"
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
    refuse_same(devices);
    if (command.file.empty()) {
        print_query(command.options, query);
    } else {
        write_database(command.options, command.file);
    }
}

} // namespace

void add_sql(Subcommand &command)
{
    const auto sql = std::make_shared<SqlCommand>();
    const auto format = [&](const char *name, RowFormat chosen, const char *help) {
        command.flag(
            name, [sql, chosen] { sql->options.format = chosen; }, help);
    };
    command.describe(SQL_DESCRIPTION, SQL_FOOTER);
    command.operands("DEVICE", sql->options.devices,
                     "Block devices or images, only read; then the QUERY, unless\n"
                     "--into is given");
    format("--json", RowFormat::json, "Print an array of objects");
    format("--ndjson", RowFormat::ndjson, "Print an object a line");
    format("--csv", RowFormat::csv, "Print CSV, with a line of names");
    command.option("--into", "FILE", sql->file,
                   "Write all tables into this new file, an SQLite database with\n"
                   "indexes, instead of asking");
    command.exclude("--ndjson", {"--json"});
    command.exclude("--csv", {"--json", "--ndjson"});
    command.exclude("--into", {"--json", "--ndjson", "--csv"});
    command.super_option(sql->options.super_file);
    command.mapfile_option(sql->options.mapfile);
    command.run([sql] {
        run_sql(*sql);
        return 0;
    });
}

} // namespace tierctl
