#include "zu_tierctl/sql/database.h"

#include "zu_tierctl/device/error.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <functional>
#include <new>
#include <span>
#include <sqlite3.h>
#include <stdexcept>

namespace tierctl {

/* A virtual table: its columns, and how its rows are made. */
struct Database::Source {
    std::string name;
    std::vector<SqlColumn> columns;
    std::function<std::unique_ptr<Rows>(const RowRange &)> make_rows;
    uint64_t rows = 1000; /* about */
    size_t devices = 1;
    bool is_keyed = false; /* no two rows have the same number */
    std::string filled{};  /* the columns that are not NULL in all rows, as SQL */
};

namespace {

/* What the plan of a query says of the rows: bits. The arguments follow in this order. */
enum Plan : int {
    NO_IS = 1,
    NO_FROM = 2,
    NO_UP_TO = 4,
    DEVICE_IS = 8,
    WITH_STATE = 16,
};

struct VirtualTable : sqlite3_vtab {
    const Database::Source *source = nullptr;
};

struct Cursor : sqlite3_vtab_cursor {
    std::unique_ptr<Rows> rows;
    bool has_row = false;
};

/* SQLite gives back what it was given, as what it knows of it: the start of these. */
VirtualTable *own(sqlite3_vtab *table) { return reinterpret_cast<VirtualTable *>(table); }
Cursor *own(sqlite3_vtab_cursor *cursor) { return reinterpret_cast<Cursor *>(cursor); }

/* Calls a function on behalf of SQLite, which knows no exceptions. */
template <class Function>
int guarded(sqlite3_vtab *table, const Function &function)
{
    try {
        function();
        return SQLITE_OK;
    } catch (const std::bad_alloc &) {
        return SQLITE_NOMEM;
    } catch (const std::exception &error) {
        sqlite3_free(table->zErrMsg);
        table->zErrMsg = sqlite3_mprintf("%s", error.what());
        return SQLITE_ERROR;
    }
}

int connect(sqlite3 *db, void *context, int, const char *const *, sqlite3_vtab **table, char **)
{
    const auto *source = static_cast<const Database::Source *>(context);
    const int result =
        sqlite3_declare_vtab(db, ("CREATE TABLE t" + declaration(source->columns)).c_str());
    auto *made = result == SQLITE_OK ? new (std::nothrow) VirtualTable{} : nullptr;
    if (made == nullptr) {
        return result == SQLITE_OK ? SQLITE_NOMEM : result;
    }
    made->source = source;
    *table = made;
    return SQLITE_OK;
}

int disconnect(sqlite3_vtab *table)
{
    delete own(table);
    return SQLITE_OK;
}

/* The bit of a condition that narrows what is read; 0: none does. */
int plan_bit(const sqlite3_index_info::sqlite3_index_constraint &condition)
{
    if (condition.usable == 0) {
        return 0;
    }
    switch (condition.op) {
    case SQLITE_INDEX_CONSTRAINT_EQ:
        return condition.iColumn == NO_COLUMN       ? NO_IS
               : condition.iColumn == DEVICE_COLUMN ? DEVICE_IS
                                                    : 0;
    case SQLITE_INDEX_CONSTRAINT_GT:
    case SQLITE_INDEX_CONSTRAINT_GE:
        return condition.iColumn == NO_COLUMN ? NO_FROM : 0;
    case SQLITE_INDEX_CONSTRAINT_LT:
    case SQLITE_INDEX_CONSTRAINT_LE:
        return condition.iColumn == NO_COLUMN ? NO_UP_TO : 0;
    default:
        return 0;
    }
}

/* SQLite tests every condition again: what is read may be more than what is wanted. */
int best_index(sqlite3_vtab *table, sqlite3_index_info *info)
{
    const Database::Source &source = *own(table)->source;
    const std::span conditions(info->aConstraint, static_cast<size_t>(info->nConstraint));
    int arguments = 0;
    for (const int bit : {NO_IS, NO_FROM, NO_UP_TO, DEVICE_IS}) {
        for (size_t i = 0; i < conditions.size() && (info->idxNum & bit) == 0; i++) {
            const bool is_exact =
                bit != DEVICE_IS ||
                strcmp(sqlite3_vtab_collation(info, static_cast<int>(i)), "BINARY") == 0;
            if (plan_bit(conditions[i]) == bit && is_exact) {
                info->idxNum |= bit;
                info->aConstraintUsage[i].argvIndex = ++arguments;
            }
        }
    }
    double rows = std::max(1.0, static_cast<double>(source.rows));
    if ((info->idxNum & DEVICE_IS) != 0) {
        rows /= static_cast<double>(source.devices);
    }
    if ((info->idxNum & NO_IS) != 0) {
        rows = 1;
    } else {
        rows /= (info->idxNum & NO_FROM) != 0 ? 4 : 1;
        rows /= (info->idxNum & NO_UP_TO) != 0 ? 4 : 1;
    }
    info->estimatedCost = rows + 100; /* a read */
    info->estimatedRows = static_cast<sqlite3_int64>(rows) + 1;
    if ((info->colUsed >> STATE_COLUMN & 1) != 0) {
        info->idxNum |= WITH_STATE;
    }
    return SQLITE_OK;
}

int open_cursor(sqlite3_vtab *, sqlite3_vtab_cursor **cursor)
{
    *cursor = new (std::nothrow) Cursor{};
    return *cursor != nullptr ? SQLITE_OK : SQLITE_NOMEM;
}

int close_cursor(sqlite3_vtab_cursor *cursor)
{
    delete own(cursor);
    return SQLITE_OK;
}

int go_on(sqlite3_vtab_cursor *base)
{
    Cursor *cursor = own(base);
    return guarded(base->pVtab, [cursor] { cursor->has_row = cursor->rows->next(); });
}

/* Takes the bound of a condition, if it is an integer. */
void narrow(RowRange &range, int bit, sqlite3_value *value)
{
    if (bit == DEVICE_IS && sqlite3_value_type(value) == SQLITE_TEXT) {
        range.device = reinterpret_cast<const char *>(sqlite3_value_text(value));
    }
    if (bit == DEVICE_IS || sqlite3_value_type(value) != SQLITE_INTEGER) {
        return;
    }
    const sqlite3_int64 bound = sqlite3_value_int64(value);
    if (bit != NO_UP_TO) {
        range.first = std::max(range.first, static_cast<uint64_t>(std::max<int64_t>(bound, 0)));
    }
    if (bit != NO_FROM) {
        range.last = std::min(range.last, static_cast<uint64_t>(std::max<int64_t>(bound, 0)));
    }
}

int filter(sqlite3_vtab_cursor *base, int plan, const char *, int, sqlite3_value **arguments)
{
    Cursor *cursor = own(base);
    return guarded(base->pVtab, [&] {
        RowRange range{.has_state = (plan & WITH_STATE) != 0};
        for (const int bit : {NO_IS, NO_FROM, NO_UP_TO, DEVICE_IS}) {
            if ((plan & bit) != 0) {
                narrow(range, bit, *arguments++);
            }
        }
        cursor->rows = own(base->pVtab)->source->make_rows(range);
        cursor->has_row = cursor->rows->next();
    });
}

int is_at_end(sqlite3_vtab_cursor *cursor) { return own(cursor)->has_row ? 0 : 1; }

int get_column(sqlite3_vtab_cursor *cursor, sqlite3_context *to, int column)
{
    return guarded(cursor->pVtab, [=] { own(cursor)->rows->put(column, to); });
}

int get_row_id(sqlite3_vtab_cursor *cursor, sqlite3_int64 *id)
{
    *id = own(cursor)->rows->id();
    return SQLITE_OK;
}

constexpr sqlite3_module MODULE = [] {
    sqlite3_module module{};
    module.xCreate = connect;
    module.xConnect = connect;
    module.xBestIndex = best_index;
    module.xDisconnect = disconnect;
    module.xDestroy = disconnect;
    module.xOpen = open_cursor;
    module.xClose = close_cursor;
    module.xFilter = filter;
    module.xNext = go_on;
    module.xEof = is_at_end;
    module.xColumn = get_column;
    module.xRowid = get_row_id;
    return module;
}();

/* Functions of SQLite that could load code. */
constexpr const char *FORBIDDEN[] = {"load_extension", "fts3_tokenizer"};

constexpr const char *PRAGMAS[] = {"table_info", "table_list", "function_list"};

/* Tables that SQLite itself sets up when they are first read, which a query may not do. */
constexpr const char *OWN_TABLES[] = {"pragma_table_info('')", "pragma_table_list",
                                      "pragma_function_list", "json_each('')", "json_tree('')"};

bool is_one_of(std::span<const char *const> names, const char *name)
{
    return std::ranges::any_of(names, [name](const char *known) {
        return name != nullptr && sqlite3_stricmp(known, name) == 0;
    });
}

/* What a query may do: read the tables, call functions, ask which tables and columns there are. */
int authorize(void *, int action, const char *first, const char *second, const char *, const char *)
{
    switch (action) {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_RECURSIVE:
        return SQLITE_OK;
    case SQLITE_FUNCTION:
        return is_one_of(FORBIDDEN, second) ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_PRAGMA:
        return is_one_of(PRAGMAS, first) ? SQLITE_OK : SQLITE_DENY;
    default:
        return SQLITE_DENY;
    }
}

void require(int result, sqlite3 *db)
{
    if (result == SQLITE_NOMEM) {
        throw std::bad_alloc();
    }
    if (result != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(db));
    }
}

/* "\"device\", \"no\"" */
std::string select_list(const std::vector<SqlColumn> &columns)
{
    std::string text;
    for (const SqlColumn &column : columns) {
        text += text.empty() ? "" : ", ";
        text += sql_name(column.name);
    }
    return text;
}

/* The columns that the layout of a device has. */
std::vector<SqlColumn> filled_columns(const SqlDevices &devices, const SqlTable &table)
{
    std::vector<SqlColumn> filled;
    for (size_t i = 0; i < table.columns.size(); i++) {
        const bool is_filled =
            i < BASE_COLUMNS || std::ranges::any_of(devices, [&](const SqlDevice &device) {
                const LayoutTable *layout = table.of(*device.metadata.layout);
                return layout != nullptr && layout->sources[i - BASE_COLUMNS].from != From::nowhere;
            });
        if (is_filled) {
            filled.push_back(table.columns[i]);
        }
    }
    return filled;
}

constexpr const char OUT[] = "out"; /* the file, as a database */

} // namespace

Query::Query(sqlite3 *db, const std::string &sql) : db_(db)
{
    const char *rest = nullptr;
    require(
        sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()) + 1, &statement_, &rest),
        db);
    sqlite3_stmt *next = nullptr;
    const int result = sqlite3_prepare_v2(db, rest, -1, &next, nullptr);
    const bool has_more = result != SQLITE_OK || next != nullptr;
    sqlite3_finalize(next);
    if (statement_ == nullptr || has_more) {
        sqlite3_finalize(statement_);
        throw UsageError("QUERY must be one statement");
    }
    if (sqlite3_stmt_readonly(statement_) == 0 || sqlite3_column_count(statement_) == 0) {
        sqlite3_finalize(statement_);
        throw std::runtime_error("not authorized: a query can only read");
    }
}

Query::~Query() { sqlite3_finalize(statement_); }

bool Query::next()
{
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_DONE && result != SQLITE_ROW) {
        require(result, db_);
    }
    return result == SQLITE_ROW;
}

Database::Database(const SqlDevices &devices) : caches_(devices.size())
{
    for (SqlTable &table : make_sql_tables(tier_layouts())) {
        auto source = std::make_unique<Source>();
        source->name = table.name;
        source->columns = table.columns;
        source->rows = count_rows(devices, table);
        source->is_keyed = devices.size() == 1 && !table.is_parts;
        source->filled = select_list(filled_columns(devices, table));
        source->make_rows = [this, &devices, table = std::move(table)](const RowRange &range) {
            return make_entry_rows(devices, table, caches_, range);
        };
        sources_.push_back(std::move(source));
    }
    auto findings = std::make_unique<Source>();
    findings->name = "finding";
    findings->columns = finding_columns();
    findings->filled = select_list(findings->columns);
    findings->make_rows = [this, &devices](const RowRange &range) {
        return make_finding_rows(devices, findings_, range);
    };
    sources_.push_back(std::move(findings));
    try {
        require(
            sqlite3_open_v2(":memory:", &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr),
            db_);
        for (const auto &source : sources_) {
            source->devices = devices.size();
            require(sqlite3_create_module_v2(db_, ("zu_" + source->name).c_str(), &MODULE,
                                             source.get(), nullptr),
                    db_);
            run(fmt::format("CREATE VIRTUAL TABLE {} USING {}", sql_name(source->name),
                            sql_name("zu_" + source->name)));
            run(view_statement("main", source->name, source->columns));
        }
    } catch (...) {
        sqlite3_close(db_);
        throw;
    }
}

Database::~Database() { sqlite3_close(db_); }

void Database::run(const std::string &sql)
{
    require(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), db_);
}

std::vector<std::string> Database::tables() const
{
    std::vector<std::string> names;
    for (const auto &source : sources_) {
        names.push_back(source->name);
    }
    return names;
}

void Database::lock()
{
    for (const char *table : OWN_TABLES) {
        run(fmt::format("SELECT 1 FROM {} LIMIT 0", table));
    }
    sqlite3_limit(db_, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_set_authorizer(db_, authorize, nullptr);
}

Query Database::ask(const std::string &sql)
{
    try {
        return {db_, sql};
    } catch (const std::runtime_error &error) {
        const std::string_view text = error.what();
        if (text.starts_with("no such table: ")) {
            throw std::runtime_error(
                fmt::format("{}; there are {}", text, fmt::join(tables(), ", ")));
        }
        if (text.starts_with("no such column: ")) {
            throw std::runtime_error(
                fmt::format("{}; PRAGMA table_info(TABLE) shows those of a table", text));
        }
        throw;
    }
}

void Database::write_to(const std::string &path)
{
    /* A name that begins like that would be taken for a URI. */
    const std::string name = path.starts_with("file:") ? "./" + path : path;
    run(fmt::format("ATTACH {} AS {}", sql_text(name), OUT));
    run(fmt::format("PRAGMA cache_size = -16384; PRAGMA {0}.page_size = 16384; "
                    "PRAGMA {0}.journal_mode = OFF; PRAGMA {0}.synchronous = OFF; "
                    "PRAGMA {0}.locking_mode = EXCLUSIVE; PRAGMA {0}.cache_size = -16384",
                    OUT));
    run("BEGIN");
    for (const auto &source : sources_) {
        const std::string table = sql_name(source->name);
        run(fmt::format("CREATE TABLE {}.{}{}", OUT, table,
                        declaration(source->columns, source->is_keyed ? "no" : "")));
        run(fmt::format("INSERT INTO {0}.{1} ({2}) SELECT {2} FROM main.{1}", OUT, table,
                        source->filled));
        for (const SqlColumn &column : source->columns) {
            if (column.is_owner || (column.name == "no" && !source->is_keyed)) {
                run(fmt::format("CREATE INDEX {0}.{1} ON {2} ({3}) WHERE {3} IS NOT NULL", OUT,
                                sql_name(source->name + '_' + column.name), table,
                                sql_name(column.name)));
            }
        }
        run(view_statement(OUT, source->name, source->columns));
    }
    run("COMMIT");
    run(fmt::format("DETACH {}", OUT));
}

} // namespace tierctl
