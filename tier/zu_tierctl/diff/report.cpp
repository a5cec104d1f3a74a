#include "zu_tierctl/diff/report.h"

#include "zu_tierctl/device/json.h"
#include "zu_tierctl/device/output.h"

#include <cerrno>
#include <cstring>

namespace {

std::string error_text(int error)
{
    return error == ENODATA ? "not in the saved file" : strerror(error);
}

std::string range_text(const tierctl_entry_range &range)
{
    std::string text = std::string(range.table) + ' ' + std::to_string(range.first);
    return range.count == 1 ? text : text + ".." + std::to_string(range.first + range.count - 1);
}

class text_report : public tierctl_diff_report {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        tierctl_print("layout: " + std::string(a) + " -> " + std::string(b) + '\n');
    }

    void entry(const tierctl_entry &a, const tierctl_entry &b) override
    {
        tierctl_print(range_text({a.table.name, a.no, 1}) + '\n');
        tierctl_print(tierctl_differences_text(tierctl_entry_differences(a, b)));
    }

    void unreadable(const tierctl_entry_range &range, int error_a, int error_b) override
    {
        std::string text = range_text(range) + ": cannot be read";
        if (error_a != 0) {
            text += " in A: " + error_text(error_a);
        }
        if (error_b != 0) {
            text.append(error_a != 0 ? ", in B: " : " in B: ").append(error_text(error_b));
        }
        tierctl_print(text + '\n');
    }

    void only_in(std::string_view side, const tierctl_entry_range &range) override
    {
        tierctl_print(range_text(range) + ": only in " + (side == "a" ? "A" : "B") + '\n');
    }
};

/* "{"kind":"entry","table":"inode","no":7,"count":1" */
std::string json_head(const char *kind, const tierctl_entry_range &range)
{
    return R"({"kind":")" + std::string(kind) + R"(","table":")" + std::string(range.table) +
           R"(","no":)" + std::to_string(range.first) + ",\"count\":" + std::to_string(range.count);
}

std::string json_error(int error)
{
    return error == 0 ? "null" : tierctl_json_text(error_text(error));
}

class json_report : public tierctl_diff_report {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        tierctl_print(R"({"kind":"layout","a":")" + std::string(a) + R"(","b":")" + std::string(b) +
                      "\"}\n");
    }

    void entry(const tierctl_entry &a, const tierctl_entry &b) override
    {
        std::string fields;
        for (const tierctl_difference &field : tierctl_entry_differences(a, b)) {
            fields.append(fields.empty() ? "" : ",").append(R"({"key":")").append(field.key);
            fields.append(R"(","a":)").append(field.a).append(R"(,"b":)").append(field.b) += '}';
        }
        tierctl_print(json_head("entry", {a.table.name, a.no, 1}) + R"(,"offset_a":)" +
                      std::to_string(a.table.slot(a.no)) + R"(,"offset_b":)" +
                      std::to_string(b.table.slot(b.no)) + R"(,"fields":[)" + fields + "]}\n");
    }

    void unreadable(const tierctl_entry_range &range, int error_a, int error_b) override
    {
        tierctl_print(json_head("unreadable", range) + ",\"a\":" + json_error(error_a) +
                      ",\"b\":" + json_error(error_b) + "}\n");
    }

    void only_in(std::string_view side, const tierctl_entry_range &range) override
    {
        tierctl_print(json_head("only", range) + R"(,"in":")" + std::string(side) + "\"}\n");
    }
};

} // namespace

std::unique_ptr<tierctl_diff_report> tierctl_text_report()
{
    return std::make_unique<text_report>();
}

std::unique_ptr<tierctl_diff_report> tierctl_json_report()
{
    return std::make_unique<json_report>();
}
