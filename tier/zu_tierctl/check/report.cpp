#include "zu_tierctl/check/report.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/json.h"
#include "zu_tierctl/device/text.h"

#include <array>
#include <cstdio>
#include <unistd.h>

namespace tierctl {

namespace {

struct count_column {
    const char *key;
    const char *title;
    uint64_t Counts::*count;
};

constexpr std::array<count_column, 5> COLUMNS = {{
    {"entries", "entries", &Counts::entries},
    {"in_use", "in use", &Counts::in_use},
    {"free", "free", &Counts::free},
    {"damaged", "damaged", &Counts::damaged},
    {"unreadable", "unreadable", &Counts::unreadable},
}};

const char *severity_name(Severity severity)
{
    return severity == Severity::error ? "error" : "warning";
}

void put(const std::string &text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        throw_errno("cannot write to standard output");
    }
}

class text_report : public Report {
public:
    explicit text_report(const std::string &device) : Report(device) {}

private:
    void write(const Finding &finding) override;
    void write_end() override;

    /* Before a line: on a terminal a progress bar may stand in its place. */
    const char *wipe_ = isatty(STDOUT_FILENO) != 0 ? "\r\x1b[K" : "";
};

void text_report::write(const Finding &finding)
{
    const std::string table(finding.table);
    const std::string kind(finding.kind.name);
    put(format_text("%s%s: %s%s %lu at %ld: %s (%s): %s\n", wipe_,
                    severity_name(finding.kind.severity), table.c_str(),
                    finding.unit == "block" ? " block" : "", finding.no, finding.offset,
                    finding.text.c_str(), kind.c_str(), command(finding).c_str()));
}

void text_report::write_end()
{
    std::string text = findings() == 0 ? "" : "\n";
    text += format_text("%-8s", "table");
    for (const count_column &column : COLUMNS) {
        text += format_text(" %12s", column.title);
    }
    text += "\n";
    for (const table_counts &table : counts()) {
        text += format_text("%-8s", std::string(table.table).c_str());
        for (const count_column &column : COLUMNS) {
            text += format_text(" %12lu", table.counts.*column.count);
        }
        text += "\n";
    }
    text += "\n";
    for (const auto &[kind, count] : kinds()) {
        text += format_text("%-32s %12lu\n", std::string(kind).c_str(), count);
    }
    put(text + format_text("%-32s %12lu\n", "findings", findings()));
}

class json_report : public Report {
public:
    json_report(const std::string &device, std::string_view layout);

private:
    void write(const Finding &finding) override;
    void write_end() override;

    const char *delimiter_ = "\n";
};

json_report::json_report(const std::string &device, std::string_view layout) : Report(device)
{
    put(format_text(R"({"device":%s,"layout":%s,"findings":[)", json_text(device).c_str(),
                    json_text(layout).c_str()));
}

void json_report::write(const Finding &finding)
{
    put(format_text("%s{\"kind\":%s,\"severity\":\"%s\",\"table\":%s,\"unit\":%s,\"no\":%lu,"
                    "\"offset\":%ld,\"command\":%s,\"text\":%s}",
                    delimiter_, json_text(finding.kind.name).c_str(),
                    severity_name(finding.kind.severity), json_text(finding.table).c_str(),
                    json_text(finding.unit).c_str(), finding.no, finding.offset,
                    json_text(command(finding)).c_str(), json_text(finding.text).c_str()));
    delimiter_ = ",\n";
}

void json_report::write_end()
{
    std::string text = "],\n\"tables\":{";
    const char *between = "";
    for (const table_counts &table : counts()) {
        text += between;
        text += json_text(table.table);
        between = ":{";
        for (const count_column &column : COLUMNS) {
            text += format_text("%s\"%s\":%lu", between, column.key, table.counts.*column.count);
            between = ",";
        }
        text += "}";
    }
    text += "},\n\"kinds\":{";
    between = "";
    for (const auto &[kind, count] : kinds()) {
        text += between;
        text += json_text(kind) + format_text(":%lu", count);
        between = ",";
    }
    put(text + "}}\n");
}

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
    counts_.push_back({table, counts});
}

void Report::finish()
{
    write_end();
    if (fflush(stdout) != 0) {
        throw_errno("cannot write to standard output");
    }
}

std::string Report::command(const Finding &finding) const
{
    std::string command = "zu_tier -p " + shown_device_ + " -c dump_" + std::string(finding.table);
    if (finding.table != SUPER_TABLE) {
        command += format_text(" -n %lu", finding.slot);
    }
    return command;
}

std::unique_ptr<Report> make_text_report(const std::string &device)
{
    return std::make_unique<text_report>(device);
}

std::unique_ptr<Report> make_json_report(const std::string &device, std::string_view layout)
{
    return std::make_unique<json_report>(device, layout);
}

} // namespace tierctl
