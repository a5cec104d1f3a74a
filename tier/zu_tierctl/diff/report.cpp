#include "zu_tierctl/diff/report.h"

#include "zu_tierctl/device/json.h"
#include "zu_tierctl/device/output.h"

#include <cerrno>
#include <cstring>

namespace tierctl {

namespace {

std::string error_text(int error)
{
    return error == ENODATA ? "not in the saved file" : strerror(error);
}

std::string range_text(const EntryRange &range)
{
    std::string text = std::string(range.table) + ' ' + std::to_string(range.first);
    return range.count == 1 ? text : text + ".." + std::to_string(range.first + range.count - 1);
}

class text_report : public DiffReport {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        print("layout: " + std::string(a) + " -> " + std::string(b) + '\n');
    }

    void entry(const Entry &a, const Entry &b) override
    {
        print(range_text({a.table.name, a.no, 1}) + '\n');
        print(differences_text(entry_differences(a, b)));
    }

    void unreadable(const EntryRange &range, int error_a, int error_b) override
    {
        std::string text = range_text(range) + ": cannot be read";
        if (error_a != 0) {
            text += " in A: " + error_text(error_a);
        }
        if (error_b != 0) {
            text.append(error_a != 0 ? ", in B: " : " in B: ").append(error_text(error_b));
        }
        print(text + '\n');
    }

    void only_in(std::string_view side, const EntryRange &range) override
    {
        print(range_text(range) + ": only in " + (side == "a" ? "A" : "B") + '\n');
    }
};

/* "{"kind":"entry","table":"inode","no":7,"count":1" */
std::string json_head(const char *kind, const EntryRange &range)
{
    return R"({"kind":")" + std::string(kind) + R"(","table":")" + std::string(range.table) +
           R"(","no":)" + std::to_string(range.first) + ",\"count\":" + std::to_string(range.count);
}

std::string json_error(int error)
{
    return error == 0 ? "null" : json_text(error_text(error));
}

class json_report : public DiffReport {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        print(R"({"kind":"layout","a":")" + std::string(a) + R"(","b":")" + std::string(b) +
              "\"}\n");
    }

    void entry(const Entry &a, const Entry &b) override
    {
        std::string fields;
        for (const Difference &field : entry_differences(a, b)) {
            fields.append(fields.empty() ? "" : ",").append(R"({"key":")").append(field.key);
            fields.append(R"(","a":)").append(field.a).append(R"(,"b":)").append(field.b) += '}';
        }
        print(json_head("entry", {a.table.name, a.no, 1}) + R"(,"offset_a":)" +
              std::to_string(a.table.slot(a.no)) + R"(,"offset_b":)" +
              std::to_string(b.table.slot(b.no)) + R"(,"fields":[)" + fields + "]}\n");
    }

    void unreadable(const EntryRange &range, int error_a, int error_b) override
    {
        print(json_head("unreadable", range) + ",\"a\":" + json_error(error_a) +
              ",\"b\":" + json_error(error_b) + "}\n");
    }

    void only_in(std::string_view side, const EntryRange &range) override
    {
        print(json_head("only", range) + R"(,"in":")" + std::string(side) + "\"}\n");
    }
};

} // namespace

std::unique_ptr<DiffReport> make_text_report()
{
    return std::make_unique<text_report>();
}

std::unique_ptr<DiffReport> make_json_report()
{
    return std::make_unique<json_report>();
}

} // namespace tierctl
