#include "zu_tierctl/commands.h"
#include "zu_tierctl/export/export.h"
#include "zu_tierctl/subcommand.h"

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

void add_export(Subcommand &command)
{
    const auto options = std::make_shared<ExportOptions>();
    command.describe(EXPORT_DESCRIPTION, EXPORT_FOOTER);
    command.operand("DEVICE", options->device, "Device, or image of one, only read");
    command.operand("DIR", options->directory, "Directory of the fleet; created if missing");
    command.option("--node", "NAME", options->node, "Name of this node among the others");
    command.require("--node");
    command.super_option(options->super_file);
    command.mapfile_option(options->mapfile);
    command.run([options] {
        export_tables(*options);
        return 0;
    });
}

} // namespace tierctl
