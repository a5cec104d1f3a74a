#pragma once

#include "zu_tierctl/entry/entry.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tierctl {

/* Entries of a table that follow one another. */
struct EntryRange {
    std::string_view table;
    uint64_t first;
    uint64_t count;
};

/* Takes the differences of A and B, table by table. */
class DiffReport {
public:
    virtual ~DiffReport() = default;

    virtual void layouts(std::string_view a, std::string_view b) = 0;
    virtual void entry(const Entry &a, const Entry &b) = 0;

    /* The error numbers say why the entries cannot be read in A and in B; 0: they can. */
    virtual void unreadable(const EntryRange &range, int error_a, int error_b) = 0;

    /* `side`: "a" or "b". */
    virtual void only_in(std::string_view side, const EntryRange &range) = 0;
};

/* Reports on standard output: as text for people, or as JSON, a line for each difference. */
std::unique_ptr<DiffReport> make_text_report();
std::unique_ptr<DiffReport> make_json_report();

/* Compares two devices or saved files entry by entry; returns whether they are equal. */
bool diff(const std::string &path_a, const std::string &path_b, DiffReport &report);

} // namespace tierctl
