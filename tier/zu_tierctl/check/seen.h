#pragma once

#include "zu_tierctl/check/report.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

namespace tierctl {

/* A set of numbers. Its memory grows only with its runs, when these come in their order. */
class NumberRuns {
public:
    void add(uint64_t first, uint64_t last);
    bool contains(uint64_t number) const;

private:
    std::map<uint64_t, uint64_t> runs_; /* first number of a run: its last */
};

/* The findings of a check, by kind and entry. */
class Seen {
public:
    void add(const Finding &finding);
    bool contains(const Finding &finding) const;

private:
    using Key = std::tuple<std::string, std::string_view, std::string_view>; /* kind, table, unit */

    std::map<Key, NumberRuns> runs_;
};

/* The entries about which a check finds something, whatever it is. */
class SeenEntries {
public:
    void add(const Finding &finding);

    /* Whether something was found about the entry that the finding is about. With a block go the
     * entries packed into it, and with such an entry its block. */
    bool contains(const Finding &finding) const;

    bool empty() const { return tables_.empty(); }

private:
    struct OfTable {
        NumberRuns slots;       /* with any finding */
        NumberRuns whole_slots; /* with one about all of the slot */
        NumberRuns entries;     /* packed entries with one of their own */
    };

    std::map<std::string_view, OfTable> tables_;
};

/* Remembers what a check finds, as one of the two, and writes nothing. */
template <class Kept>
class SeenReport : public Report {
public:
    explicit SeenReport(const std::string &device) : Report(device) {}

    const Kept &seen() const { return seen_; }

private:
    void write(const Finding &finding) override { seen_.add(finding); }
    void write_end() override {} /* GCOVR_EXCL_LINE: is not finished */

    Kept seen_;
};

} // namespace tierctl
