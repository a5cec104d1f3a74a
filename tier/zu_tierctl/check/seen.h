#pragma once

#include "zu_tierctl/check/report.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

namespace tierctl {

/* The findings of a pass, by kind and entry: runs of numbers. */
class Seen {
public:
    void add(const Finding &finding);
    bool contains(const Finding &finding) const;
    bool empty() const { return runs_.empty(); }

private:
    using Key = std::tuple<std::string, std::string_view, std::string_view>; /* kind, table, unit */
    using Numbers = std::map<uint64_t, uint64_t>; /* first number of a run: its last */

    std::map<Key, Numbers> runs_;
};

/* Remembers what a check finds, and writes nothing. */
class SeenReport : public Report {
public:
    explicit SeenReport(const std::string &device) : Report(device) {}

    const Seen &seen() const { return seen_; }

private:
    void write(const Finding &finding) override { seen_.add(finding); }
    void write_end() override {} /* GCOVR_EXCL_LINE: is not finished */

    Seen seen_;
};

} // namespace tierctl
