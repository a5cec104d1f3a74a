#pragma once

#include "zu_tierctl/entry/entry.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* Entries of a table that follow one another. */
struct EntryRange {
    std::string_view table;
    uint64_t first;
    uint64_t count;
};

/* What the slot of an entry holds. */
enum class SlotState { sound, damaged, zero };

/* Entries that follow one another and differ alike: all are zero in A or in B, or the same fields
 * differ. */
struct EntryRun {
    EntryRange range;
    SlotState a;
    SlotState b;
    int64_t offset_a; /* of the first on A and on B */
    int64_t offset_b;
    std::vector<Difference> differences; /* of the first */
};

/* Takes the differences of A and B, table by table. */
class DiffReport {
public:
    virtual ~DiffReport() = default;

    virtual void layouts(std::string_view a, std::string_view b) = 0;
    virtual void entries(const EntryRun &run) = 0;

    /* The error numbers say why the entries cannot be read in A and in B; 0: they can. */
    virtual void unreadable(const EntryRange &range, int error_a, int error_b) = 0;

    /* `side`: "a" or "b". */
    virtual void only_in(std::string_view side, const EntryRange &range) = 0;

    /* Must be called last. */
    virtual void finish() {}
};

/* Reports on standard output: as text for people, or as JSON, a line for each difference. */
std::unique_ptr<DiffReport> make_text_report();
std::unique_ptr<DiffReport> make_json_report();

/* The same, but only how many entries differ in each table and way, and from where to where. */
std::unique_ptr<DiffReport> make_summary_report(bool json);

/* Compares two devices or saved files entry by entry; returns whether they are equal. One without a
 * sound super block is read by that in `super_file`, unless that is empty. Without `join` each
 * entry is a run by itself. */
bool diff(const std::string &path_a, const std::string &path_b, DiffReport &report,
          const std::string &super_file = "", bool join = true);

} // namespace tierctl
