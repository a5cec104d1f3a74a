#include "zu_tierctl/check/report.h"

#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"

#include <cstdio>
#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace tierctl {

namespace {

struct CountColumn {
    const char *key;
    const char *title;
    uint64_t Counts::*count;
};

constexpr CountColumn COLUMNS[] = {
    {"entries", "entries", &Counts::entries},
    {"in_use", "in use", &Counts::in_use},
    {"free", "free", &Counts::free},
    {"damaged", "damaged", &Counts::damaged},
    {"unreadable", "unreadable", &Counts::unreadable},
};

const char *severity_name(Severity severity)
{
    return severity == Severity::error ? "error" : "warning";
}

class TextReport : public Report {
public:
    using Report::Report;

private:
    void write(const Finding &finding) override
    {
        print("{}{}: {}{} {} at {}: {} ({}): {}\n", wipe_, severity_name(finding.kind.severity),
              finding.table, finding.unit == "block" ? " block" : "", finding.no, finding.offset,
              finding.text, finding.kind.name, command(finding));
    }

    void write_end() override
    {
        std::string text = findings() == 0 ? "" : "\n";
        text += fmt::format("{:<8}", "table");
        for (const CountColumn &column : COLUMNS) {
            text += fmt::format(" {:>12}", column.title);
        }
        for (const auto &[table, counts] : counts()) {
            text += fmt::format("\n{:<8}", table);
            for (const CountColumn &column : COLUMNS) {
                text += fmt::format(" {:>12}", counts.*column.count);
            }
        }
        text += "\n\n";
        for (const auto &[kind, count] : kinds()) {
            text += fmt::format("{:<32} {:>12}\n", kind, count);
        }
        print("{}{:<32} {:>12}\n", text, "findings", findings());
    }

    /* Begins the line of each finding: on a terminal it wipes the progress bar. */
    const char *wipe_ = isatty(STDOUT_FILENO) != 0 ? "\r\x1b[K" : "";
};

class JsonReport : public Report {
public:
    JsonReport(const std::string &device, std::string_view layout) : Report(device)
    {
        print(R"({{"device":{},"layout":"{}","findings":[)", json_text(device), layout);
    }

private:
    void write(const Finding &finding) override
    {
        print(R"({}{{"kind":"{}","severity":"{}","table":"{}","unit":"{}","no":{},)"
              R"("offset":{},"command":{},"text":{}}})",
              delimiter_, finding.kind.name, severity_name(finding.kind.severity), finding.table,
              finding.unit, finding.no, finding.offset, json_text(command(finding)),
              json_text(finding.text));
        delimiter_ = ",\n";
    }

    void write_end() override
    {
        auto tables = nlohmann::ordered_json::object();
        for (const auto &[table, counts] : counts()) {
            for (const CountColumn &column : COLUMNS) {
                tables[std::string(table)][column.key] = counts.*column.count;
            }
        }
        print("],\n\"tables\":{},\n\"kinds\":{}}}\n", tables.dump(),
              nlohmann::json(kinds()).dump());
    }

    const char *delimiter_ = "\n";
};

} // namespace

Report::Report(const std::string &device) : shown_device_(shell_word(device)) {}

void Report::add(const Finding &finding)
{
    findings_++;
    kinds_[finding.kind.name]++;
    write(finding);
}

void Report::add_counts(std::string_view table, const Counts &counts)
{
    counts_.emplace_back(table, counts);
}

void Report::finish()
{
    write_end();
    finish_output();
}

std::string Report::command(const Finding &finding) const
{
    return fmt::format("zu_tier -p {} -c dump_{}", shown_device_, finding.table) +
           (finding.table == SUPER_TABLE ? "" : fmt::format(" -n {}", finding.slot));
}

std::unique_ptr<Report> make_text_report(const std::string &device)
{
    return std::make_unique<TextReport>(device);
}

std::unique_ptr<Report> make_json_report(const std::string &device, std::string_view layout)
{
    return std::make_unique<JsonReport>(device, layout);
}

} // namespace tierctl
