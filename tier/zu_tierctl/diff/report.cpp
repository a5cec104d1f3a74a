#include "zu_tierctl/diff/diff.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <fmt/core.h>

namespace tierctl {

namespace {

/* "inode 7", "inode 7..9" */
std::string entries_text(const EntryRange &range)
{
    return fmt::format("{} {}", range.table,
                       range_text(range.first, range.first + range.count - 1));
}

const char *state_name(SlotState state)
{
    constexpr const char *NAMES[] = {"sound", "damaged", "zero"};
    return NAMES[static_cast<size_t>(state)];
}

/* ", all zero in B, sound in A"; empty when neither is zero. */
std::string states_text(const EntryRun &run)
{
    if (run.a == SlotState::zero) {
        return fmt::format(", all zero in A, {} in B", state_name(run.b));
    }
    return text_if(run.b == SlotState::zero,
                   fmt::format(", all zero in B, {} in A", state_name(run.a)));
}

class TextReport : public DiffReport {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        print("layout: {} -> {}\n", a, b);
    }

    void entries(const EntryRun &run) override
    {
        const uint64_t count = run.range.count;
        print("{}{}{}{}\n{}", entries_text(run.range),
              text_if(count != 1, fmt::format(", {} entries that differ alike", count)),
              states_text(run),
              count == 1 ? "" : ", the first:", differences_text(run.differences));
    }

    void unreadable(const EntryRange &range, int error_a, int error_b) override
    {
        print("{}: cannot be read{}{}{}\n", entries_text(range), in_side("A", error_a),
              error_a != 0 && error_b != 0 ? "," : "", in_side("B", error_b));
    }

    void only_in(std::string_view side, const EntryRange &range) override
    {
        print("{}: only in {}\n", entries_text(range), side == "a" ? "A" : "B");
    }

private:
    static std::string in_side(const char *side, int error)
    {
        return text_if(error != 0, fmt::format(" in {}: {}", side, error_text(error)));
    }
};

/* The start of a line: {"kind":"entry","table":"inode","no":7,"count":1 */
std::string json_head(const char *kind, const EntryRange &range)
{
    return fmt::format(R"({{"kind":"{}","table":"{}","no":{},"count":{})", kind, range.table,
                       range.first, range.count);
}

std::string json_error(int error)
{
    if (error == 0) {
        return "null";
    }
    return json_text(error_text(error));
}

class JsonReport : public DiffReport {
public:
    void layouts(std::string_view a, std::string_view b) override
    {
        print(R"({{"kind":"layout","a":"{}","b":"{}"}})"
              "\n",
              a, b);
    }

    void entries(const EntryRun &run) override
    {
        std::string fields;
        for (const Difference &field : run.differences) {
            fields += fmt::format(R"({}{{"key":"{}","a":{},"b":{}}})", fields.empty() ? "" : ",",
                                  field.key, field.a, field.b);
        }
        print(R"({},"offset_a":{},"offset_b":{},"state_a":"{}","state_b":"{}","fields":[{}]}})"
              "\n",
              json_head("entry", run.range), run.offset_a, run.offset_b, state_name(run.a),
              state_name(run.b), fields);
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

/* Counts by table and way, and writes when all are known. */
class SummaryReport : public DiffReport {
public:
    explicit SummaryReport(bool json)
        : json_(json), full_(json ? make_json_report() : make_text_report())
    {
    }

    void layouts(std::string_view a, std::string_view b) override { full_->layouts(a, b); }

    void entries(const EntryRun &run) override
    {
        add("entry", "differ" + states_text(run), run.range);
    }

    void unreadable(const EntryRange &range, int /*error_a*/, int /*error_b*/) override
    {
        add("unreadable", "cannot be read", range);
    }

    void only_in(std::string_view side, const EntryRange &range) override
    {
        add("only", fmt::format("only in {}", side == "a" ? 'A' : 'B'), range);
    }

    void finish() override
    {
        for (const Line &line : lines_) {
            if (json_) {
                print(R"({{"kind":"{}","table":"{}","no":{},"last":{},"count":{},"text":"{}"}})"
                      "\n",
                      line.kind, line.table, line.first, line.last, line.count, line.text);
            } else {
                print("{} {}: {} {}\n", line.table, range_text(line.first, line.last), line.count,
                      line.text);
            }
        }
    }

private:
    struct Line {
        const char *kind;
        std::string text;
        std::string_view table;
        uint64_t first;
        uint64_t last;
        uint64_t count;
    };

    void add(const char *kind, const std::string &text, const EntryRange &range)
    {
        const uint64_t last = range.first + range.count - 1;
        const auto line = std::ranges::find_if(lines_, [&](const Line &known) {
            return known.table == range.table && known.text == text;
        });
        if (line == lines_.end()) {
            lines_.push_back({kind, text, range.table, range.first, last, range.count});
        } else {
            line->last = last;
            line->count = add_limited(line->count, range.count);
        }
    }

    bool json_;
    std::unique_ptr<DiffReport> full_; /* for what is no entry */
    std::vector<Line> lines_;
};

} // namespace

std::unique_ptr<DiffReport> make_text_report() { return std::make_unique<TextReport>(); }

std::unique_ptr<DiffReport> make_json_report() { return std::make_unique<JsonReport>(); }

std::unique_ptr<DiffReport> make_summary_report(bool json)
{
    return std::make_unique<SummaryReport>(json);
}

} // namespace tierctl
