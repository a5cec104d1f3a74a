#pragma once

#include "zu_tierctl/check/cause.h"
#include "zu_tierctl/check/finding.h"
#include "zu_tierctl/check/runs.h"
#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace tierctl {

/* What a check finds, reported while it runs. */

/* Numbers of a table's entries. Each entry counts as one of the last four; those of a damaged block
 * count as damaged. */
struct Counts {
    uint64_t entries = 0;
    uint64_t in_use = 0;
    uint64_t free = 0;
    uint64_t damaged = 0;
    uint64_t unreadable = 0;
};

/* The counts in the order in which they are shown. */
struct CountColumn {
    const char *key;
    const char *title;
    uint64_t Counts::*count;
};
inline constexpr CountColumn COUNT_COLUMNS[] = {
    {"entries", "entries", &Counts::entries},
    {"in_use", "in use", &Counts::in_use},
    {"free", "free", &Counts::free},
    {"damaged", "damaged", &Counts::damaged},
    {"unreadable", "unreadable", &Counts::unreadable},
};

/* Words of a sound slot: from `first` up to, but not at, `end`. Those in `used` are entries in use,
 * the others free. */
struct SlotWords {
    uint64_t slot;
    const uint8_t *data;
    uint32_t first;
    uint32_t end;
    std::span<const uint16_t> used;
};

/* Sees every entry of a device once while the device is checked: table by table, by number. */
class Watcher {
public:
    virtual ~Watcher() = default;

    /* The table that its entries refer to, if any, comes before it. */
    virtual void begin_table(const Table &table) = 0;

    /* Sees the entries of so many slots, all damaged or all unreadable, as which they count. */
    virtual void add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count) = 0;

    virtual void add_sound(const SlotWords &words) = 0;
};

/* How much of what is found is written. */
enum class Detail {
    each,    /* every finding by itself */
    runs,    /* findings that say the same of neighbouring entries as one */
    summary, /* only their numbers and ranges, by kind and table */
};

/* The findings of a kind in a table, wherever they are. */
struct KindRange {
    Severity severity;
    uint64_t first;
    uint64_t last;
    uint64_t count;
};

class SeenEntries;

/* Takes what a check finds. Throws when the report cannot be written. */
class Report {
public:
    explicit Report(const std::string &device, Detail detail = Detail::each);
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;
    virtual ~Report() = default;

    /* Drops findings about entries about which not each of these passes found something, but none
     * that says what cannot be read; null: drops nothing. */
    void keep_only(const std::vector<SeenEntries> *passes) { passes_ = passes; }

    /* Must be called first: what explains many of the findings. */
    void begin(const std::vector<Cause> &causes) { write_causes(causes); }

    void add(const Finding &finding);
    void add_counts(std::string_view table, const Counts &counts);

    /* Must be called last. */
    void finish();

    /* Ends the report of a check that could not be completed. */
    void fail(std::string_view error);

    /* The number of findings added. */
    uint64_t findings() const { return findings_; }
    /* They by kind, table and unit, and the counts by table. */
    using KindRanges =
        std::map<std::tuple<std::string, std::string_view, std::string_view>, KindRange>;
    const KindRanges &ranges() const { return ranges_; }
    const std::vector<std::pair<std::string_view, Counts>> &counts() const { return counts_; }

protected:
    Detail detail() const { return detail_; }
    /* Numbers of findings by kind. */
    std::map<std::string, uint64_t> kinds() const;

    /* The command that shows the entry of the finding. */
    std::string command(const Finding &finding) const;

private:
    virtual void write_causes(const std::vector<Cause> & /*causes*/) {}
    virtual void write(const Finding &finding) = 0;
    virtual void write_end() = 0;
    virtual void write_failure(std::string_view /*error*/) {} /* in place of the end */

    std::string tool_; /* how to call zu_tier for the device */
    Detail detail_;
    Runs runs_;
    const std::vector<SeenEntries> *passes_ = nullptr;
    uint64_t findings_ = 0;
    std::vector<std::pair<std::string_view, Counts>> counts_; /* by table */
    KindRanges ranges_;
};

/* Writes to standard output for people: a line for each finding, then tables of counts. */
std::unique_ptr<Report> make_text_report(const std::string &device, Detail detail);

/* Writes to standard output for programs: a single JSON document. */
std::unique_ptr<Report> make_json_report(const std::string &device, std::string_view layout,
                                         Detail detail);

/* Writes the JSON document of a check that could not begin. */
void print_json_error(const std::string &device, std::string_view error);

} // namespace tierctl
