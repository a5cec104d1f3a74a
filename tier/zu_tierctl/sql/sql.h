#pragma once

#include "zu_tierctl/sql/rows.h"

#include <string>
#include <vector>

namespace tierctl {

enum class RowFormat { aligned, json, ndjson, csv };

struct SqlOptions {
    std::vector<std::string> devices;
    std::string super_file{}; /* the super block of the only device, instead of its own; or empty */
    std::string mapfile{};    /* of the only device, which is a copy; or empty */
    RowFormat format = RowFormat::aligned;
};

/* Opens the devices, and says which entries they are too short for. Throws. */
SqlDevices open_devices(const SqlOptions &options);

/* Prints the rows that a query gives. */
void print_query(const SqlOptions &options, const std::string &query);

/* Writes all tables as a new SQLite database. */
void write_database(const SqlOptions &options, const std::string &path);

} // namespace tierctl
