#pragma once

#include <string>
#include <vector>

namespace tierctl {

enum class RowFormat { aligned, json, ndjson, csv };

struct SqlOptions {
    std::vector<std::string> devices;
    std::string super_file{}; /* the super block of the only device, instead of its own; or empty */
    RowFormat format = RowFormat::aligned;
};

/* Prints the rows that a query gives. */
void print_query(const SqlOptions &options, const std::string &query);

/* Writes all tables as a new SQLite database. */
void write_database(const SqlOptions &options, const std::string &file);

} // namespace tierctl
