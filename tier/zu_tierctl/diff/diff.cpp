#include "zu_tierctl/diff/diff.h"

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/given_super.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>

namespace tierctl {

namespace {

/* One of the two devices. */
struct Side {
    Side(const std::string &path, const std::string &super_file)
        : device(path, Access::read_only),
          metadata(has_super(device) ? read_metadata(device) : read_metadata(device, super_file))
    {
    }

    Device device;
    Metadata metadata;
};

/* Walks a table of a side, from its first entry to its last, in steps of any length. */
class TableCursor {
public:
    TableCursor(const Side &side, const Table &table)
        : side_(side), table_(table), reader_(side.device, table.regions, READ_BUFFERS / 2)
    {
    }

    /* The rest of the run that was read last; count 0 at the end of the table. */
    const Slots &run()
    {
        if (run_.count == 0) {
            reader_.next(&run_);
        }
        return run_;
    }

    /* Why the run's first slot cannot be read, as an error number; 0: it can. */
    int error() const { return run_.error; }

    Entry entry() const { return {side_.metadata, table_, run_.first_no, run_.data}; }

    void skip(uint64_t count)
    {
        const auto bytes = count * SIZE_4K;
        run_.first_no += count;
        run_.count -= count;
        run_.offset = zutr_advance(run_.offset, static_cast<int64_t>(bytes));
        run_.data = run_.data == nullptr ? nullptr : run_.data + bytes;
    }

private:
    const Side &side_;
    const Table &table_;
    TableReader reader_;
    Slots run_{};
};

/* Joins entries that follow one another and have the same errors. */
class UnreadableRange {
public:
    UnreadableRange(DiffReport &report, std::string_view table)
        : report_(report), range_{table, 0, 0}
    {
    }

    void add(uint64_t no, uint64_t count, int error_a, int error_b)
    {
        if (no != range_.first + range_.count || error_a != error_a_ || error_b != error_b_) {
            flush();
            range_.first = no;
            error_a_ = error_a;
            error_b_ = error_b;
        }
        range_.count += count;
    }

    void flush()
    {
        if (range_.count > 0) {
            report_.unreadable(range_, error_a_, error_b_);
            range_.count = 0;
        }
    }

private:
    DiffReport &report_;
    EntryRange range_;
    int error_a_ = 0;
    int error_b_ = 0;
};

SlotState state_of(const Entry &entry)
{
    if (is_zero(entry.slot)) {
        return SlotState::zero;
    }
    const bool sound = entry.table.fits() && entry.table.flaws(entry.no, entry.slot) == 0;
    return sound ? SlotState::sound : SlotState::damaged;
}

/* Joins entries that follow one another and differ alike. */
class EntryRuns {
public:
    EntryRuns(DiffReport &report, bool join) : report_(report), join_(join) {}

    void add(const Entry &a, const Entry &b)
    {
        const SlotState state_a = state_of(a);
        const SlotState state_b = state_of(b);
        const bool zero = state_a == SlotState::zero || state_b == SlotState::zero;
        bool joins = join_ && run_ && a.no == run_->range.first + run_->range.count &&
                     state_a == run_->a && state_b == run_->b;
        if (joins && zero) {
            run_->range.count++;
            return;
        }
        std::vector<Difference> differences = entry_differences(a, b);
        std::set<std::string> fields;
        for (const Difference &difference : differences) {
            fields.insert(text_shape(difference.key));
        }
        joins = joins && fields == fields_;
        if (joins) {
            run_->range.count++;
            return;
        }
        flush();
        run_ = {{a.table.name, a.no, 1}, state_a, state_b, a.table.slot(a.no), b.table.slot(b.no),
                std::move(differences)};
        fields_ = std::move(fields);
    }

    void flush()
    {
        if (run_) {
            report_.entries(*run_);
            run_.reset();
        }
    }

private:
    DiffReport &report_;
    bool join_;
    std::optional<EntryRun> run_;
    std::set<std::string> fields_; /* that differ in each entry of the run */
};

class TableComparison {
public:
    TableComparison(const Side &a, const Side &b, size_t table, DiffReport &report, bool join)
        : table_a_(a.metadata.tables[table]), table_b_(b.metadata.tables[table]), a_(a, table_a_),
          b_(b, table_b_), report_(report), unreadable_(report, table_a_.name),
          entries_(report, join)
    {
    }

    /* Returns whether the tables are equal. */
    bool run(Progress &progress)
    {
        const uint64_t count_a = table_a_.count();
        const uint64_t count_b = table_b_.count();
        const uint64_t both = std::min(count_a, count_b);
        for (uint64_t no = 0, step = 0; no < both; no += step) {
            step = compare(std::min({a_.run().count, b_.run().count, both - no}));
            a_.skip(step);
            b_.skip(step);
            progress.add(step);
        }
        flush();
        if (count_a != count_b) {
            equal_ = false;
            report_.only_in(count_a > count_b ? "a" : "b",
                            {table_a_.name, both, std::max(count_a, count_b) - both});
        }
        return equal_;
    }

private:
    void flush()
    {
        unreadable_.flush();
        entries_.flush();
    }

    /* Compares the next entries, at most `count`; returns how many it has compared. */
    uint64_t compare(uint64_t count)
    {
        const int error_a = a_.error();
        const int error_b = b_.error();
        const Entry a = a_.entry();
        const Entry b = b_.entry();
        if (error_a != 0 || error_b != 0) {
            equal_ = false;
            entries_.flush();
            const uint64_t lost = a.slot == nullptr && b.slot == nullptr ? count : 1;
            unreadable_.add(a.no, lost, error_a, error_b);
            return lost;
        }
        if (memcmp(a.slot, b.slot, SIZE_4K) != 0) {
            equal_ = false;
            unreadable_.flush();
            entries_.add(a, b);
        }
        return 1;
    }

    const Table &table_a_;
    const Table &table_b_;
    TableCursor a_;
    TableCursor b_;
    DiffReport &report_;
    UnreadableRange unreadable_;
    EntryRuns entries_;
    bool equal_ = true;
};

} // namespace

bool diff(const std::string &path_a, const std::string &path_b, DiffReport &report,
          const std::string &super_file, bool join)
{
    const Side a(path_a, super_file);
    const Side b(path_b, super_file);
    hint_in_use(path_a);
    hint_in_use(path_b);
    if (a.metadata.layout != b.metadata.layout) {
        report.layouts(a.metadata.layout->name, b.metadata.layout->name);
        return false;
    }
    const size_t tables =
        a.metadata.tables.size(); /* the same number in every device of a layout */
    uint64_t total = 0;
    for (const Table &table : a.metadata.tables) {
        total = add_limited(total, table.count());
    }
    Progress progress("diff", total);
    bool equal = true;
    for (size_t table = 0; table < tables; table++) {
        equal = TableComparison(a, b, table, report, join).run(progress) && equal;
    }
    return equal;
}

} // namespace tierctl
