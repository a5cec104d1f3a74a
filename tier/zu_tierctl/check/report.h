#pragma once

#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tierctl {

/* What a check finds, reported while it runs. */

using Severity = tier_severity;

struct Kind {
    std::string name;
    Severity severity = Severity::error;
};

struct Finding {
    Kind kind;
    std::string_view table;
    std::string_view unit; /* what `no` numbers: "entry", or "block" of packed entries */
    uint64_t no;
    int64_t offset; /* on the device */
    uint64_t slot;  /* number with which zu_tier shows it; no meaning for the super block */
    std::string text;
};

/* Numbers of a table's entries. Each entry counts as one of the last four; those of a damaged block
 * count as damaged. */
struct Counts {
    uint64_t entries = 0;
    uint64_t in_use = 0;
    uint64_t free = 0;
    uint64_t damaged = 0;
    uint64_t unreadable = 0;
};

/* Sees every entry of a device once while the device is checked: table by table, by number. */
class Watcher {
public:
    virtual ~Watcher() = default;

    /* The table that its entries refer to, if any, comes before it. */
    virtual void begin_table(const Table &table) = 0;

    /* Sees the entries of so many slots, all damaged or all unreadable, as which they count. */
    virtual void add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count) = 0;

    virtual void add_free(uint64_t no) = 0;
    virtual void add_in_use(uint64_t no, const uint8_t *entry) = 0;
};

/* Takes what a check finds. Throws when the report cannot be written. */
class Report {
public:
    explicit Report(const std::string &device);
    virtual ~Report() = default;

    void add(const Finding &finding);
    void add_counts(std::string_view table, const Counts &counts);

    /* Must be called last. */
    void finish();

    /* The number of findings added. */
    uint64_t findings() const { return findings_; }

protected:
    const std::vector<std::pair<std::string_view, Counts>> &counts() const { return counts_; }
    const std::map<std::string, uint64_t> &kinds() const { return kinds_; }

    /* The command that shows the entry of the finding. */
    std::string command(const Finding &finding) const;

private:
    virtual void write(const Finding &finding) = 0;
    virtual void write_end() = 0;

    std::string shown_device_; /* as one word of a command line */
    uint64_t findings_ = 0;
    std::vector<std::pair<std::string_view, Counts>> counts_; /* by table */
    std::map<std::string, uint64_t> kinds_;                   /* number of findings by kind */
};

/* Writes to standard output for people: a line for each finding, then tables of counts. */
std::unique_ptr<Report> make_text_report(const std::string &device);

/* Writes to standard output for programs: a single JSON document. */
std::unique_ptr<Report> make_json_report(const std::string &device, std::string_view layout);

} // namespace tierctl
