#include "zu_tierctl/check/check.h"

#include "zu_tierctl/check/table.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/entry/metadata.h"

#include <algorithm>
#include <map>

namespace tierctl {

namespace {

/* The check of a device. */
class Check {
public:
    Check(const CheckOptions &options, const Device &device, const Metadata &metadata,
          Report &report, Watcher *watcher)
        : options_(options), device_(device), metadata_(metadata), report_(report),
          watcher_(watcher)
    {
    }

    void run()
    {
        check_super_block(metadata_.tables.front());
        for (auto table = metadata_.tables.begin() + 1; table != metadata_.tables.end(); ++table) {
            if (wanted(*table) || wanted_refer_to(*table)) {
                check_table(*table);
            }
        }
    }

private:
    bool wanted(const Table &table) const
    {
        return options_.tables.empty() ||
               std::ranges::find(options_.tables, table.name) != options_.tables.end();
    }

    bool wanted_refer_to(const Table &table) const
    {
        return std::ranges::any_of(metadata_.tables, [this, &table](const Table &other) {
            return wanted(other) && other.row->owner.table == table.name;
        });
    }

    void check_super_block(const Table &table)
    {
        begin_table(table);
        if (watcher_ != nullptr) {
            watcher_->add_in_use(0, metadata_.super_block.data());
        }
        if (wanted(table)) {
            check_super(metadata_, device_, TableFindings(&report_, table));
            report_.add_counts(table.name, {.entries = 1, .in_use = 1});
        }
    }

    void check_table(const Table &table)
    {
        const TableFindings findings(wanted(table) ? &report_ : nullptr, table);
        begin_table(table);
        if (!table.identifies()) {
            findings.add_unfit();
            add_counts(table, {.entries = table.count(), .damaged = table.count()});
            if (watcher_ != nullptr) {
                watcher_->add_lost(0, table.count(), &Counts::damaged);
            }
            return;
        }
        const TableContext context = {
            device_, metadata_, table, findings, states_[table.row->owner.table], watcher_};
        TableOutcome outcome = check_entries(context, options_.claims_memory);
        add_counts(table, outcome.counts);
        states_[table.name] = std::move(outcome.states);
    }

    void begin_table(const Table &table) const
    {
        if (watcher_ != nullptr) {
            watcher_->begin_table(table);
        }
    }

    void add_counts(const Table &table, const Counts &counts)
    {
        if (wanted(table)) {
            report_.add_counts(table.name, counts);
        }
    }

    const CheckOptions &options_;
    const Device &device_;
    const Metadata &metadata_;
    Report &report_;
    Watcher *watcher_;
    std::map<std::string_view, States> states_; /* by table */
};

} // namespace

bool check(const CheckOptions &options)
{
    const Device device(options.device, Access::read_only);
    const Metadata metadata = read_metadata(device);
    hint_in_use(options.device);
    for (const std::string &name : options.tables) {
        find_table(metadata.tables, name);
    }
    const std::unique_ptr<Report> report =
        options.json ? make_json_report(options.device, metadata.layout->name)
                     : make_text_report(options.device);
    check_metadata(options, device, metadata, *report, nullptr);
    report->finish();
    return report->findings() == 0;
}

void check_metadata(const CheckOptions &options, const Device &device, const Metadata &metadata,
                    Report &report, Watcher *watcher)
{
    Check(options, device, metadata, report, watcher).run();
}

} // namespace tierctl
