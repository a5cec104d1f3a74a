#include "zu_tierctl/diff/diff.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"

#include <fmt/core.h>

namespace tierctl {

namespace {

/* "inode 7", "inode 7..9" */
std::string range_text(const EntryRange &range)
{
    const std::string text = fmt::format("{} {}", range.table, range.first);
    return range.count == 1 ? text : fmt::format("{}..{}", text, range.first + range.count - 1);
}

class TextReport : public DiffReport {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        print("layout: {} -> {}\n", a, b);
    }

    void entry(const Entry &a, const Entry &b) override
    {
        print("{}\n{}", range_text({a.table.name, a.no, 1}),
              differences_text(entry_differences(a, b)));
    }

    void unreadable(const EntryRange &range, int error_a, int error_b) override
    {
        print("{}: cannot be read{}{}{}\n", range_text(range), in_side("A", error_a),
              error_a != 0 && error_b != 0 ? "," : "", in_side("B", error_b));
    }

    void only_in(std::string_view side, const EntryRange &range) override
    {
        print("{}: only in {}\n", range_text(range), side == "a" ? "A" : "B");
    }

private:
    static std::string in_side(const char *side, int error)
    {
        return error == 0 ? "" : fmt::format(" in {}: {}", side, error_text(error));
    }
};

/* The start of a line: {"kind":"entry","table":"inode","no":7,"count":1 */
std::string json_head(const char *kind, const EntryRange &range)
{
    return fmt::format(R"({{"kind":"{}","table":"{}","no":{},"count":{})", kind, range.table,
                       range.first, range.count);
}

std::string json_error(int error) { return error == 0 ? "null" : json_text(error_text(error)); }

class JsonReport : public DiffReport {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        print(R"({{"kind":"layout","a":"{}","b":"{}"}})"
              "\n",
              a, b);
    }

    void entry(const Entry &a, const Entry &b) override
    {
        std::string fields;
        for (const Difference &field : entry_differences(a, b)) {
            fields += fmt::format(R"({}{{"key":"{}","a":{},"b":{}}})", fields.empty() ? "" : ",",
                                  field.key, field.a, field.b);
        }
        print(R"({},"offset_a":{},"offset_b":{},"fields":[{}]}})"
              "\n",
              json_head("entry", {a.table.name, a.no, 1}), a.table.slot(a.no), b.table.slot(b.no),
              fields);
    }

    void unreadable(const EntryRange &range, int error_a, int error_b) override
    {
        print(R"({},"a":{},"b":{}}})"
              "\n",
              json_head("unreadable", range), json_error(error_a), json_error(error_b));
    }

    void only_in(std::string_view side, const EntryRange &range) override
    {
        print(R"({},"in":"{}"}})"
              "\n",
              json_head("only", range), side);
    }
};

} // namespace

std::unique_ptr<DiffReport> make_text_report() { return std::make_unique<TextReport>(); }

std::unique_ptr<DiffReport> make_json_report() { return std::make_unique<JsonReport>(); }

} // namespace tierctl
