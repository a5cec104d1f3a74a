#pragma once

#include "zu_tierctl/entry/entry.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/* Entries of a table that follow one another. */
struct tierctl_entry_range {
    std::string_view table;
    uint64_t first;
    uint64_t count;
};

/* Takes what a comparison of A and B finds, in the order of the tables. */
class tierctl_diff_report {
public:
    tierctl_diff_report() = default;
    tierctl_diff_report(const tierctl_diff_report &) = delete;
    tierctl_diff_report &operator=(const tierctl_diff_report &) = delete;
    virtual ~tierctl_diff_report() = default;

    virtual void layouts(std::string_view a, std::string_view b) = 0;
    virtual void entry(const tierctl_entry &a, const tierctl_entry &b) = 0;

    /* The error number with which each of them could not be read; 0: it could be. */
    virtual void unreadable(const tierctl_entry_range &range, int error_a, int error_b) = 0;

    /* `side`: "a" or "b". */
    virtual void only_in(std::string_view side, const tierctl_entry_range &range) = 0;
};

/* Compares two devices or saved files entry by entry; gives whether they are equal. */
bool tierctl_diff(const std::string &path_a, const std::string &path_b,
                  tierctl_diff_report &report);
