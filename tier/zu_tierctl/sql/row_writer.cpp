#include "zu_tierctl/sql/row_writer.h"

#include "zu_tier/record/text.h"
#include "zu_tierctl/device/lines.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <span>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace tierctl {

namespace {

/* So many rows tell how wide the columns of a table are. */
constexpr size_t MEASURED_ROWS = 1000;

/* Between the columns of a table. */
constexpr const char *GAP = "  ";

/* The values of the row at which a statement is, as text. */
class RowText {
public:
    explicit RowText(sqlite3_stmt *statement)
        : statement_(statement), count_(sqlite3_column_count(statement))
    {
    }

    int count() const { return count_; }
    std::string_view name(int column) const { return sqlite3_column_name(statement_, column); }
    int type(int column) const { return sqlite3_column_type(statement_, column); }
    bool is_number(int column) const
    {
        return type(column) == SQLITE_INTEGER || type(column) == SQLITE_FLOAT;
    }

    /* The value as text: bytes as hexadecimal digits, nothing as an empty one. */
    std::string text(int column) const
    {
        const auto *bytes = static_cast<const uint8_t *>(sqlite3_column_blob(statement_, column));
        if (type(column) == SQLITE_BLOB) {
            std::string digits;
            for (const uint8_t byte :
                 std::span(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column)))) {
                digits.append(ZUTR_HEX_DIGITS[byte].data(), 2);
            }
            return digits;
        }
        const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
        return value == nullptr
                   ? ""
                   : std::string(value,
                                 static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
    }

    std::string json(int column) const
    {
        switch (type(column)) {
        case SQLITE_NULL:
            return "null";
        case SQLITE_FLOAT:
            if (!std::isfinite(sqlite3_column_double(statement_, column))) {
                return json_text(text(column));
            }
            return text(column);
        case SQLITE_INTEGER:
            return text(column);
        default:
            return json_text(text(column));
        }
    }

    std::string json_object() const
    {
        std::string object;
        for (int i = 0; i < count_; i++) {
            object += fmt::format("{}{}:{}", i == 0 ? "{" : ",", json_text(name(i)), json(i));
        }
        return object + '}';
    }

private:
    sqlite3_stmt *statement_;
    int count_;
};

class StatementWriter : public RowWriter {
public:
    explicit StatementWriter(sqlite3_stmt *statement) : values_(statement) {}

protected:
    const RowText &values() const { return values_; }

private:
    RowText values_;
};

class JsonWriter : public StatementWriter {
public:
    using StatementWriter::StatementWriter;

    void add() override
    {
        print_text(delimiter_);
        print_text(values().json_object());
        delimiter_ = ",\n";
    }
    void end() override { print_text(delimiter_ == ",\n" ? "\n]\n" : "[]\n"); }

private:
    std::string delimiter_ = "[\n";
};

class NdjsonWriter : public StatementWriter {
public:
    using StatementWriter::StatementWriter;

    void add() override { print("{}\n", values().json_object()); }
    void end() override {}
};

class CsvWriter : public StatementWriter {
public:
    explicit CsvWriter(sqlite3_stmt *statement)
        : StatementWriter(statement), is_shown_(isatty(STDOUT_FILENO) != 0)
    {
        print_line([this](int i) { return std::string(values().name(i)); });
    }

    void add() override
    {
        print_line([this](int i) { return values().text(i); });
    }
    void end() override {}

private:
    template <class Value>
    void print_line(const Value &value)
    {
        std::string line;
        for (int i = 0; i < values().count(); i++) {
            const std::string field = value(i);
            line += i == 0 ? "" : ",";
            line += quoted_if_needed(is_shown_ ? one_line(field) : field);
        }
        print("{}\n", line);
    }

    static std::string quoted_if_needed(const std::string &text)
    {
        if (text.find_first_of(",\"\r\n") == std::string::npos) {
            return text;
        }
        std::string quoted = "\"";
        for (const char c : text) {
            quoted.append(c == '"' ? 2 : 1, c);
        }
        return quoted + '"';
    }

    bool is_shown_; /* a terminal must not take what a device holds for commands */
};

/* Numbers to the right, everything else to the left. */
class AlignedWriter : public StatementWriter {
public:
    explicit AlignedWriter(sqlite3_stmt *statement) : StatementWriter(statement)
    {
        names_.reserve(static_cast<size_t>(values().count()));
        for (int i = 0; i < values().count(); i++) {
            names_.push_back({one_line(values().name(i)), false});
        }
    }

    void add() override
    {
        std::vector<Cell> row;
        row.reserve(names_.size());
        for (int i = 0; i < values().count(); i++) {
            row.push_back({one_line(values().text(i)), values().is_number(i)});
        }
        if (is_measured_) {
            print_row(row, PLAIN);
            return;
        }
        first_.push_back(std::move(row));
        if (first_.size() == MEASURED_ROWS) {
            print_first();
        }
    }

    void end() override
    {
        if (!is_measured_) {
            print_first();
        }
    }

private:
    struct Cell {
        std::string text;
        bool is_number;
    };

    void print_first()
    {
        is_measured_ = true;
        for (size_t i = 0; i < names_.size(); i++) {
            size_t width = columns(names_[i].text);
            for (const std::vector<Cell> &row : first_) {
                width = std::max(width, columns(row[i].text));
            }
            widths_.push_back(width);
            names_[i].is_number = !first_.empty() && first_.front()[i].is_number;
        }
        print_row(names_, wants_colours() ? BOLD : PLAIN);
        for (const std::vector<Cell> &row : first_) {
            print_row(row, PLAIN);
        }
        first_.clear();
    }

    void print_row(const std::vector<Cell> &row, TextStyle style) const
    {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            const auto &[text, is_right] = row[i];
            const size_t width = columns(text);
            const std::string space(widths_[i] > width ? widths_[i] - width : 0, ' ');
            line += i == 0 ? "" : GAP;
            line += is_right ? space : text;
            line += is_right ? text : space;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        print_text(style.empty() ? line : fmt::format("\x1b[{}m{}\x1b[0m", style, line));
        print_text("\n");
    }

    std::vector<Cell> names_;
    std::vector<std::vector<Cell>> first_; /* rows that are not printed yet */
    std::vector<size_t> widths_;
    bool is_measured_ = false;
};

} // namespace

std::string json_row(sqlite3_stmt *statement) { return RowText(statement).json_object(); }

std::unique_ptr<RowWriter> make_row_writer(RowFormat format, sqlite3_stmt *statement)
{
    switch (format) {
    case RowFormat::json:
        return std::make_unique<JsonWriter>(statement);
    case RowFormat::ndjson:
        return std::make_unique<NdjsonWriter>(statement);
    case RowFormat::csv:
        return std::make_unique<CsvWriter>(statement);
    default:
        return std::make_unique<AlignedWriter>(statement);
    }
}

} // namespace tierctl
