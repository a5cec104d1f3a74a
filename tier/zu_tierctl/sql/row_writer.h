#pragma once

#include "zu_tierctl/sql/sql.h"

#include <memory>
#include <string>

struct sqlite3_stmt;

namespace tierctl {

/* Writes the rows of a statement to standard output. */
class RowWriter {
public:
    RowWriter() = default;
    RowWriter(const RowWriter &) = delete;
    RowWriter &operator=(const RowWriter &) = delete;
    virtual ~RowWriter() = default;

    /* The row at which the statement is. */
    virtual void add() = 0;

    /* Must be called after the last. */
    virtual void end() = 0;
};

/* The row at which the statement is, as a JSON object. */
std::string json_row(sqlite3_stmt *statement);

/* The statement must outlive the writer. */
std::unique_ptr<RowWriter> make_row_writer(RowFormat format, sqlite3_stmt *statement);

} // namespace tierctl
