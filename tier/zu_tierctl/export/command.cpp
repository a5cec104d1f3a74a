#include "zu_tierctl/commands.h"
#include "zu_tierctl/export/export.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tierctl {

namespace {

constexpr const char EXPORT_DESCRIPTION[] = "Write the tables of a device for engines of a fleet";

constexpr const char EXPORT_FOOTER[] =
    "DIR gets table=TABLE/node=NAME/part-0.ndjson.zst for each table that \"sql\" knows, with the\n"
    "same columns: lines of JSON, compressed by zstd. Engines that take such directories as\n"
    "partitions (DuckDB, Spark, Trino, ClickHouse) read many nodes as one. An older export of the\n"
    "same node is replaced when the new one is complete.\n"
    "\n"
    "Example:\n"
    "  zu_tierctl export /dev/nvme0n1 /srv/fleet --node $(hostname)\n"
    "  duckdb -c \"select node, count(*) from read_ndjson('/srv/fleet/table=inode/*/*.zst')\n"
    "           group by node\"";

} // namespace

void add_export(CLI::App &app)
{
    const auto options = std::make_shared<ExportOptions>();
    CLI::App *command = app.add_subcommand("export", EXPORT_DESCRIPTION);
    command->footer(EXPORT_FOOTER);
    add_operand(*command, "DEVICE", options->device, "Device, or image of one, only read");
    add_operand(*command, "DIR", options->directory, "Directory of the fleet; created if missing");
    command->add_option("--node", options->node, "Name of this node among the others")
        ->type_name("NAME")
        ->required();
    add_super_option(*command, options->super_file);
    add_mapfile_option(*command, options->mapfile);
    command->callback([options] { export_tables(*options); });
}

} // namespace tierctl
