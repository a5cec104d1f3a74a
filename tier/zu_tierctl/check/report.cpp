#include "zu_tierctl/check/report.h"

#include "zu_tierctl/check/seen.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/mend.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace tierctl {

namespace {

/* The whole line of a finding. */
std::string finding_line(const Finding &finding, const std::string &command)
{
    return one_line(fmt::format(
        "{}: {} at {}: {}{}{} ({}): {}", severity_name(finding.kind.severity), about_text(finding),
        finding.offset, finding.zero ? "all zero: " : "", finding.varied ? "the first: " : "",
        finding_text(finding), finding.kind.name, command));
}

class TextReport : public Report {
public:
    using Report::Report;

private:
    void write_causes(const std::vector<Cause> &causes) override
    {
        for (const Cause &cause : causes) {
            print("{}cause: {}\n", wipe_, one_line(cause.text));
        }
        told_ = !causes.empty();
    }

    void write(const Finding &finding) override
    {
        print("{}{}\n", wipe_, finding_line(finding, command(finding)));
        told_ = true;
    }

    void write_end() override
    {
        std::string text = told_ ? "\n" : "";
        text += fmt::format("{:<8}", "table");
        for (const CountColumn &column : COUNT_COLUMNS) {
            text += fmt::format(" {:>12}", column.title);
        }
        for (const auto &[table, counts] : counts()) {
            text += fmt::format("\n{:<8}", table);
            for (const CountColumn &column : COUNT_COLUMNS) {
                text += fmt::format(" {:>12}", counts.*column.count);
            }
        }
        text += "\n\n";
        if (detail() == Detail::summary) {
            for (const auto &[what, range] : ranges()) {
                const auto &[kind, table, unit] = what;
                text += fmt::format("{:<32} {:>12} {}{} {}\n", kind, range.count, table,
                                    unit == "block" ? " block" : "",
                                    range_text(range.first, range.last));
            }
        } else {
            for (const auto &[kind, count] : kinds()) {
                text += fmt::format("{:<32} {:>12}\n", kind, count);
            }
        }
        print("{}{}{:<32} {:>12}\n", wipe_, text, "findings", findings());
    }

    /* Begins each line: on a terminal it wipes the progress bar. */
    const char *wipe_ = is_able_terminal(STDOUT_FILENO) ? "\r\x1b[K" : "";
    bool told_ = false; /* there are lines before the counts */
};

class JsonReport : public Report {
public:
    JsonReport(const std::string &device, std::string_view layout, Detail detail)
        : Report(device, detail), device_(device), layout_(layout)
    {
    }

private:
    void write_causes(const std::vector<Cause> &causes) override
    {
        std::string text;
        for (const Cause &cause : causes) {
            text += fmt::format(R"({}{{"table":"{}","no":{},"last":{},"count":{},"text":{}}})",
                                text.empty() ? "\n" : ",\n", cause.table, cause.first, cause.last,
                                cause.last - cause.first + 1, json_text(cause.text));
        }
        print(R"({{"device":{},"layout":"{}","causes":[{}],)"
              "\n"
              R"("findings":[)",
              json_text(device_), layout_, text);
        begun_ = true;
    }

    void write(const Finding &finding) override
    {
        print(R"({}{{"kind":"{}","severity":"{}","table":"{}","unit":"{}","no":{},"last":{},)"
              R"("count":{},"block":{},"offset":{},"zero":{},"one_bit":{},"two_bits":{},)"
              R"("command":{},"text":{}}})",
              delimiter_, finding.kind.name, severity_name(finding.kind.severity), finding.table,
              finding.unit, finding.no, finding.last, finding.count,
              finding.packed ? std::to_string(finding.slot) : "null", finding.offset, finding.zero,
              finding.one_bit, finding.two_bits, json_text(command(finding)),
              json_text(finding_text(finding)));
        delimiter_ = ",\n";
    }

    void write_end() override { write_document_end(""); }

    void write_failure(std::string_view error) override
    {
        if (!begun_) {
            write_causes({});
        }
        write_document_end(",\n\"error\":" + json_text(error));
    }

    /* `rest`: members that come last. */
    void write_document_end(const std::string &rest)
    {
        if (detail() == Detail::summary) {
            write_ranges();
        }
        auto tables = nlohmann::ordered_json::object();
        for (const auto &[table, counts] : counts()) {
            for (const CountColumn &column : COUNT_COLUMNS) {
                tables[std::string(table)][column.key] = counts.*column.count;
            }
        }
        print("],\n\"tables\":{},\n\"kinds\":{}{}}}\n", tables.dump(),
              nlohmann::json(kinds()).dump(), rest);
    }

    void write_ranges()
    {
        for (const auto &[what, range] : ranges()) {
            const auto &[kind, table, unit] = what;
            print(R"({}{{"kind":"{}","table":"{}","unit":"{}","no":{},"last":{},"count":{}}})",
                  delimiter_, kind, table, unit, range.first, range.last, range.count);
            delimiter_ = ",\n";
        }
    }

    std::string device_;
    std::string layout_;
    const char *delimiter_ = "\n";
    bool begun_ = false;
};

} // namespace

const char *severity_name(Severity severity)
{
    return severity == Severity::error ? "error" : "warning";
}

std::string about_text(const Finding &finding)
{
    const bool is_block = finding.unit == "block";
    std::string notes;
    if (finding.packed && !is_block) {
        notes = fmt::format("block{} {}", finding.slot == finding.last_slot ? "" : "s",
                            range_text(finding.slot, finding.last_slot));
    }
    if (finding.count > 1) {
        notes += fmt::format("{}{} findings", notes.empty() ? "" : "; ", finding.count);
    }
    return fmt::format("{}{} {}{}", finding.table, is_block ? " block" : "",
                       range_text(finding.no, finding.last),
                       notes.empty() ? "" : " (" + notes + ')');
}

std::string finding_text(const Finding &finding)
{
    std::string text = finding.text;
    for (const auto &[bits, explained] : {std::pair{1U, finding.one_bit}, {2U, finding.two_bits}}) {
        if (explained != 0) {
            text += "; " + explained_text(bits, finding.count == 1 ? "it"
                                                : explained == finding.count
                                                    ? "each"
                                                    : fmt::format("{} of them", explained));
        }
    }
    return text;
}

Report::Report(const std::string &device, Detail detail)
    : tool_(tool_command(device)), detail_(detail),
      runs_([this](const Finding &finding) { write(finding); })
{
}

void Report::add(const Finding &finding)
{
    const auto has_it = [&finding](const SeenEntries &pass) { return pass.contains(finding); };
    if (passes_ != nullptr && !finding.unread && !std::ranges::all_of(*passes_, has_it)) {
        return;
    }
    findings_ = add_limited(findings_, finding.count);
    const auto [place, is_new] =
        ranges_.try_emplace({finding.kind.name, finding.table, finding.unit},
                            KindRange{finding.kind.severity, finding.no, finding.last, 0});
    KindRange &range = place->second;
    range.first = std::min(range.first, finding.no);
    range.last = std::max(range.last, finding.last);
    range.count = add_limited(range.count, finding.count);
    if (detail_ == Detail::each) {
        write(finding);
    } else if (detail_ == Detail::runs) {
        runs_.add(finding);
    }
}

void Report::add_counts(std::string_view table, const Counts &counts)
{
    counts_.emplace_back(table, counts);
}

void Report::finish()
{
    runs_.end();
    write_end();
    finish_output();
}

void Report::fail(std::string_view error)
{
    runs_.end();
    write_failure(error);
    finish_output();
}

std::map<std::string, uint64_t> Report::kinds() const
{
    std::map<std::string, uint64_t> kinds;
    for (const auto &[what, range] : ranges_) {
        uint64_t &count = kinds[std::get<0>(what)];
        count = add_limited(count, range.count);
    }
    return kinds;
}

std::string Report::command(const Finding &finding) const
{
    return fmt::format("{} -c dump_{}", tool_, finding.table) +
           (finding.table == SUPER_TABLE ? "" : fmt::format(" -n {}", finding.slot));
}

std::unique_ptr<Report> make_text_report(const std::string &device, Detail detail)
{
    return std::make_unique<TextReport>(device, detail);
}

std::unique_ptr<Report> make_json_report(const std::string &device, std::string_view layout,
                                         Detail detail)
{
    return std::make_unique<JsonReport>(device, layout, detail);
}

void print_json_error(const std::string &device, std::string_view error)
{
    print("{{\"device\":{},\"error\":{}}}\n", json_text(device), json_text(error));
    finish_output();
}

} // namespace tierctl
