#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What is wrong with a slot. */
struct Trouble {
    std::string text{};              /* the errors of a check, as a sentence */
    uint64_t left_out = 0;           /* errors that the text does not name */
    uint64_t slots = 1;              /* the same is wrong with so many slots from this one on */
    std::vector<uint64_t> orphans{}; /* entries whose owner does not exist, or will not */
    bool other = false;              /* not all errors are about such entries */
    std::string doubt{};             /* why others without an owner are none of them; or empty */
};

/* Collects the errors of a check by slot. It must be the check's report and its watcher. */
class Troubles : public Report, public Watcher {
public:
    /* `free_orphans`: entries that are worth nothing without their owner become free, and so do
     * those that refer to them. */
    Troubles(const Device &device, const Metadata &metadata, bool free_orphans)
        : Report(device.path()), device_(device), metadata_(metadata), free_orphans_(free_orphans)
    {
    }

    /* Of a table, by slot. */
    const std::map<uint64_t, Trouble> &of(const Table &table) { return slots_[table.name]; }

    /* What explains many of the errors. */
    const std::vector<Cause> &causes() const { return causes_; }

    void begin_table(const Table &table) override { table_ = &table; }
    void add_lost(uint64_t, uint64_t, uint64_t Counts::*) override {}
    void add_sound(const SlotWords &words) override;

private:
    void write_causes(const std::vector<Cause> &causes) override { causes_ = causes; }
    void write(const Finding &finding) override;
    void write_end() override {} /* GCOVR_EXCL_LINE: is not finished */

    void add_orphan(const Table &table, uint64_t no, const std::string &text);

    /* Why nothing may become free that refers to an entry which the super block does not count, as
     * a sentence; empty: it may. */
    std::string doubt_about(const Table &owners, uint64_t no);
    bool is_past_end(const Table &owners, uint64_t no) const;

    const Device &device_;
    const Metadata &metadata_;
    bool free_orphans_;
    const Table *table_ = nullptr; /* that is being read */
    std::vector<Cause> causes_;
    std::map<std::string_view, std::map<uint64_t, Trouble>> slots_;
    std::map<std::string_view, std::set<uint64_t>> freed_; /* entries that will be free */

    /* Whether owners that the super block does not count are there; by table and number. */
    std::map<std::pair<std::string_view, uint64_t>, bool> past_end_;
};

} // namespace tierctl
