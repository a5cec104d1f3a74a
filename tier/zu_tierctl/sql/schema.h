#pragma once

#include "zu_tier/layout/layout.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* The tables of all layouts as tables of SQL: the columns of a table are those of all layouts that
 * have it. */

/* Where the value of a column comes from. */
enum class From {
    nowhere, /* the layout has no such column */
    slot,    /* the record at the start of the slot */
    part,    /* the record of a part: a packed entry, a piece */
    words,   /* the parts together, as the text of a dump */
};

struct Source {
    From from = From::nowhere;
    tier_column column{};
};

/* The first columns of every table, and their places. */
enum BaseColumn { DEVICE_COLUMN, NO_COLUMN, OFFSET_COLUMN, STATE_COLUMN, BASE_COLUMNS };

struct SqlColumn {
    std::string name;
    const char *type = ""; /* in a declaration; empty where unsigned numbers of 64 bits may be */
    bool is_time = false;
    bool is_owner = false; /* the number of an entry of another table, to which this one refers */
};

/* A table as a layout has it. */
struct LayoutTable {
    const tier_layout *layout;
    const tier_table *row;
    std::vector<Source> sources; /* for each column after those of every table */
};

struct SqlTable {
    std::string name;
    bool is_parts = false; /* rows are parts of the entries in use, not these */
    std::vector<SqlColumn> columns{};
    std::vector<LayoutTable> layouts{};

    /* The table as the layout has it; null: it has none. */
    const LayoutTable *of(const tier_layout &layout) const;
};

/* The tables, in the order of the device; then that of pieces. */
std::vector<SqlTable> make_sql_tables(std::span<const tier_layout *const> layouts);

/* "(device TEXT, no INTEGER, ...)"; the key, if any, is a column of integers. */
std::string declaration(std::span<const SqlColumn> columns, std::string_view key = {});

/* The statement that creates the view of a table with its times as text, in the time zone of the
 * program that reads it; empty when it has no times. */
std::string view_statement(const std::string &schema, const std::string &table,
                           std::span<const SqlColumn> columns);

/* A name in SQL. */
std::string sql_name(std::string_view name);

/* A text in SQL. */
std::string sql_text(std::string_view text);

} // namespace tierctl
