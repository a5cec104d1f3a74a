#pragma once

#include <string>

namespace tierctl {

struct ExportOptions {
    std::string device;
    std::string directory;
    std::string node;         /* of which the device is */
    std::string super_file{}; /* the super block, instead of the device's own; or empty */
    std::string mapfile{};    /* of the device, which is a copy; or empty */
};

/* Writes the rows of each table as lines of JSON, compressed by zstd, to
 * "<directory>/table=<table>/node=<node>/part-0.ndjson.zst", where engines that read directories as
 * partitions find table and node. All files are complete before the first takes the place of an
 * older one. Throws. */
void export_tables(const ExportOptions &options);

} // namespace tierctl
