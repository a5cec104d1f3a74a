#include "zu_tierctl/check/report.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/json.h"
#include "zu_tierctl/device/text.h"

#include <array>
#include <cstdio>
#include <unistd.h>

namespace {

struct count_column {
    const char *key;
    const char *title;
    uint64_t tierctl_counts::*count;
};

constexpr std::array<count_column, 5> COLUMNS = {{
    {"entries", "entries", &tierctl_counts::entries},
    {"in_use", "in use", &tierctl_counts::in_use},
    {"free", "free", &tierctl_counts::free},
    {"damaged", "damaged", &tierctl_counts::damaged},
    {"unreadable", "unreadable", &tierctl_counts::unreadable},
}};

const char *severity_name(tierctl_severity severity)
{
    return severity == tierctl_severity::error ? "error" : "warning";
}

void put(const std::string &text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        tierctl_throw_errno("cannot write to standard output");
    }
}

class text_report : public tierctl_report {
public:
    explicit text_report(const std::string &device) : tierctl_report(device) {}

private:
    void write(const tierctl_finding &finding) override;
    void write_end() override;

    /* Before a line: on a terminal a progress bar may stand in its place. */
    const char *wipe_ = isatty(STDOUT_FILENO) != 0 ? "\r\x1b[K" : "";
};

void text_report::write(const tierctl_finding &finding)
{
    const std::string table(finding.table);
    const std::string kind(finding.kind.name);
    put(tierctl_text("%s%s: %s%s %lu at %ld: %s (%s): %s\n", wipe_,
                     severity_name(finding.kind.severity), table.c_str(),
                     finding.unit == "block" ? " block" : "", finding.no, finding.offset,
                     finding.text.c_str(), kind.c_str(), command(finding).c_str()));
}

void text_report::write_end()
{
    std::string text = findings() == 0 ? "" : "\n";
    text += tierctl_text("%-8s", "table");
    for (const count_column &column : COLUMNS) {
        text += tierctl_text(" %12s", column.title);
    }
    text += "\n";
    for (const table_counts &table : counts()) {
        text += tierctl_text("%-8s", std::string(table.table).c_str());
        for (const count_column &column : COLUMNS) {
            text += tierctl_text(" %12lu", table.counts.*column.count);
        }
        text += "\n";
    }
    text += "\n";
    for (const auto &[kind, count] : kinds()) {
        text += tierctl_text("%-32s %12lu\n", std::string(kind).c_str(), count);
    }
    put(text + tierctl_text("%-32s %12lu\n", "findings", findings()));
}

class json_report : public tierctl_report {
public:
    json_report(const std::string &device, std::string_view layout);

private:
    void write(const tierctl_finding &finding) override;
    void write_end() override;

    const char *delimiter_ = "\n";
};

json_report::json_report(const std::string &device, std::string_view layout)
    : tierctl_report(device)
{
    put(tierctl_text(R"({"device":%s,"layout":%s,"findings":[)", tierctl_json_text(device).c_str(),
                     tierctl_json_text(layout).c_str()));
}

void json_report::write(const tierctl_finding &finding)
{
    put(tierctl_text("%s{\"kind\":%s,\"severity\":\"%s\",\"table\":%s,\"unit\":%s,\"no\":%lu,"
                     "\"offset\":%ld,\"command\":%s,\"text\":%s}",
                     delimiter_, tierctl_json_text(finding.kind.name).c_str(),
                     severity_name(finding.kind.severity), tierctl_json_text(finding.table).c_str(),
                     tierctl_json_text(finding.unit).c_str(), finding.no, finding.offset,
                     tierctl_json_text(command(finding)).c_str(),
                     tierctl_json_text(finding.text).c_str()));
    delimiter_ = ",\n";
}

void json_report::write_end()
{
    std::string text = "],\n\"tables\":{";
    const char *between = "";
    for (const table_counts &table : counts()) {
        text += between;
        text += tierctl_json_text(table.table);
        between = ":{";
        for (const count_column &column : COLUMNS) {
            text += tierctl_text("%s\"%s\":%lu", between, column.key, table.counts.*column.count);
            between = ",";
        }
        text += "}";
    }
    text += "},\n\"kinds\":{";
    between = "";
    for (const auto &[kind, count] : kinds()) {
        text += between;
        text += tierctl_json_text(kind) + tierctl_text(":%lu", count);
        between = ",";
    }
    put(text + "}}\n");
}

} // namespace

tierctl_report::tierctl_report(const std::string &device)
    : shown_device_(tierctl_shell_word(device))
{
}

void tierctl_report::add(const tierctl_finding &finding)
{
    findings_++;
    kinds_[finding.kind.name]++;
    write(finding);
}

void tierctl_report::add_counts(std::string_view table, const tierctl_counts &counts)
{
    counts_.push_back({table, counts});
}

void tierctl_report::finish()
{
    write_end();
    if (fflush(stdout) != 0) {
        tierctl_throw_errno("cannot write to standard output");
    }
}

std::string tierctl_report::command(const tierctl_finding &finding) const
{
    std::string command = "zu_tier -p " + shown_device_ + " -c dump_" + std::string(finding.table);
    if (finding.table != TIERCTL_SUPER) {
        command += tierctl_text(" -n %lu", finding.slot);
    }
    return command;
}

std::unique_ptr<tierctl_report> tierctl_text_report(const std::string &device)
{
    return std::make_unique<text_report>(device);
}

std::unique_ptr<tierctl_report> tierctl_json_report(const std::string &device,
                                                    std::string_view layout)
{
    return std::make_unique<json_report>(device, layout);
}
