#include "zu_tierctl/sql/schema.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

namespace {

constexpr const char PARTS_TABLE[] = "piece";

bool has_words(const tier_table &row)
{
    return row.parts != nullptr && row.parts->fields().front().key.empty();
}

bool has_pieces(const tier_table &row)
{
    return row.parts != nullptr && !row.packed() && !has_words(row);
}

bool is_time(const tier_column &column)
{
    return column.form == zutr_form::time || column.form == zutr_form::hex_and_time;
}

/* Numbers of all 64 bits have none: a number of more than 63 is a text, which a type would turn
 * into one that is not exact. */
const char *type_of(const tier_column &column)
{
    if (column.type != tier_column_type::number || column.form == zutr_form::swapped_hex8) {
        return "TEXT";
    }
    return column.compute == nullptr && column.bits >> 63 == 0 ? "INTEGER" : "";
}

/* Adds what the layout has of a table to it. */
class TableMaker {
public:
    TableMaker(SqlTable &table, const tier_layout &layout, const tier_table &row) : table_(table)
    {
        if (table_.columns.empty()) {
            table_.columns = {{"device", "TEXT"},
                              {"no", "INTEGER"},
                              {"meta_offset", "INTEGER"},
                              {"state", "TEXT"}};
        }
        table_.layouts.push_back({&layout, &row, {}});
    }

    void add(const tier_columns &columns, From from)
    {
        for (const tier_column &column : columns) {
            const tier_number owner = table_.layouts.back().row->owner.no;
            const bool is_owner = !table_.is_parts && owner && column.compute == nullptr &&
                                  column.at == owner.at && column.bits == owner.mask;
            add({std::string(column.key), type_of(column), is_time(column), is_owner},
                {from, column});
        }
    }

    void add(const SqlColumn &column, const Source &source)
    {
        const auto known = std::ranges::find(table_.columns, column.name, &SqlColumn::name);
        const auto place = static_cast<size_t>(known - table_.columns.begin());
        if (place < BASE_COLUMNS) { /* the number of the slot says more than that of its record */
            return;
        }
        if (known == table_.columns.end()) {
            table_.columns.push_back(column);
        }
        std::vector<Source> &sources = table_.layouts.back().sources;
        sources.resize(std::max(sources.size(), place - BASE_COLUMNS + 1));
        sources[place - BASE_COLUMNS] = source;
    }

private:
    SqlTable &table_;
};

SqlTable &find_or_add(std::vector<SqlTable> &tables, std::string_view name)
{
    const auto found = std::ranges::find(tables, name, &SqlTable::name);
    return found != tables.end() ? *found : tables.emplace_back(SqlTable{std::string(name)});
}

void add_entries(std::vector<SqlTable> &tables, const tier_layout &layout, const tier_table &row)
{
    TableMaker maker(find_or_add(tables, row.name), layout, row);
    maker.add(row.fields(), From::slot);
    if (row.packed()) {
        maker.add(row.parts->fields(), From::part);
    } else if (has_words(row)) {
        maker.add({std::string(row.parts->key), "TEXT"},
                  {From::words, row.parts->fields().front()});
    }
}

void add_pieces(SqlTable &table, const tier_layout &layout, const tier_table &row)
{
    table.is_parts = true;
    TableMaker(table, layout, row).add(row.parts->fields(), From::part);
}

} // namespace

const LayoutTable *SqlTable::of(const tier_layout &layout) const
{
    const auto found = std::ranges::find(layouts, &layout, &LayoutTable::layout);
    return found != layouts.end() ? &*found : nullptr;
}

std::vector<SqlTable> make_sql_tables(std::span<const tier_layout *const> layouts)
{
    std::vector<SqlTable> tables;
    SqlTable pieces{PARTS_TABLE};
    for (const tier_layout *layout : layouts) {
        for (const tier_table *row : layout->tables) {
            if (row->fields != nullptr) {
                add_entries(tables, *layout, *row);
            }
            if (has_pieces(*row)) {
                add_pieces(pieces, *layout, *row);
            }
        }
    }
    if (!pieces.layouts.empty()) {
        tables.push_back(std::move(pieces));
    }
    for (SqlTable &table : tables) {
        for (LayoutTable &layout : table.layouts) {
            layout.sources.resize(table.columns.size() - BASE_COLUMNS);
        }
    }
    return tables;
}

std::string sql_name(std::string_view name)
{
    std::string quoted = "\"";
    for (const char c : name) {
        quoted.append(c == '"' ? 2 : 1, c);
    }
    return quoted + '"';
}

std::string sql_text(std::string_view text)
{
    std::string quoted = "'";
    for (const char c : text) {
        quoted.append(c == '\'' ? 2 : 1, c);
    }
    return quoted + '\'';
}

std::string declaration(std::span<const SqlColumn> columns, std::string_view key)
{
    std::string text;
    for (const SqlColumn &column : columns) {
        text += text.empty() ? "(" : ", ";
        text += fmt::format("{} {}{}", sql_name(column.name), column.type,
                            column.name == key ? " PRIMARY KEY" : "");
    }
    return text + ')';
}

std::string view_statement(const std::string &schema, const std::string &table,
                           std::span<const SqlColumn> columns)
{
    std::string text;
    bool has_time = false;
    for (const SqlColumn &column : columns) {
        const std::string name = sql_name(column.name);
        text += text.empty() ? "" : ", ";
        text += column.is_time
                    ? fmt::format("strftime('%Y-%m-%d %H:%M:%S', {0} / 1000000000, 'unixepoch', "
                                  "'localtime') AS {0}",
                                  name)
                    : name;
        has_time = has_time || column.is_time;
    }
    if (!has_time) {
        return "";
    }
    return fmt::format("CREATE VIEW {}.{} AS SELECT {} FROM {}", schema, sql_name(table + "_text"),
                       text, sql_name(table));
}

} // namespace tierctl
