#include "zu_tierctl/check/check.h"

#include "zu_tierctl/check/seen.h"
#include "zu_tierctl/check/table.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/entry/given_super.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <thread>

namespace tierctl {

namespace {

/* The check of a device. */
class Check {
public:
    Check(const CheckOptions &options, const Device &device, const Metadata &metadata,
          Report &report, Watcher *watcher)
        : options_(options), device_(device), metadata_(metadata), report_(report),
          watcher_(watcher), conversion_(find_conversion(device, metadata))
    {
    }

    void run()
    {
        report_.begin(causes());
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

    std::vector<Cause> causes() const
    {
        if (conversion_) {
            return {*conversion_};
        }
        std::vector<Cause> found;
        for (auto table = metadata_.tables.begin() + 1; table != metadata_.tables.end(); ++table) {
            const size_t regions =
                wanted(*table) && table->identifies() ? table->regions.size() : 0;
            for (size_t region = 0; region < regions; region++) {
                if (auto cause = find_cause(device_, metadata_, *table, region)) {
                    found.push_back(*std::move(cause));
                }
            }
        }
        return found;
    }

    void check_super_block(const Table &table)
    {
        const TableFindings findings(wanted(table) ? &report_ : nullptr, table);
        begin_table(table);
        check_super(metadata_, conversion_, device_.size(), findings);
        const Counts counts = options_.super_file.empty() ? Counts{.entries = 1, .in_use = 1}
                                                          : check_own_super(table, findings);
        add_counts(table, counts);
        if (watcher_ != nullptr && counts.in_use != 0) {
            constexpr uint16_t WORD = 0;
            watcher_->add_sound({0, metadata_.super_block.data(), 0, 1, {&WORD, 1}});
        } else if (watcher_ != nullptr) {
            watcher_->add_lost(0, 1, counts.damaged != 0 ? &Counts::damaged : &Counts::unreadable);
        }
    }

    /* The device's own super block, when another describes the tables. */
    Counts check_own_super(const Table &table, const TableFindings &findings) const
    {
        Counts counts{.entries = 1};
        read_table(device_, table.regions, [&](const Slots &slots) {
            if (slots.data == nullptr) {
                findings.add_unread(slots, device_.size());
                counts.unreadable++;
                return;
            }
            const uint32_t flaws = table.flaws(0, slots.data);
            findings.add_flaws(metadata_, flaws, 0, slots.offset, slots.data);
            (flaws != 0 ? counts.damaged : counts.in_use)++;
        });
        return counts;
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
            device_,  metadata_,    table, findings, states_[table.row->owner.table],
            watcher_, options_.live};
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
    std::optional<Cause> conversion_;
    std::map<std::string_view, States> states_; /* by table */
};

/* A device, open, and its metadata as they are now. */
struct Subject {
    explicit Subject(const CheckOptions &options)
        : device(options.device, Access::read_only, options.mapfile),
          metadata(read_metadata(device, options.super_file))
    {
    }

    Device device;
    Metadata metadata;
};

/* What each pass but the last finds, followed by a pause; fewer passes when one finds nothing. */
std::vector<SeenEntries> find_before(const CheckOptions &options)
{
    constexpr int PASSES = 3;
    const Subject subject(options);
    std::vector<SeenEntries> passes;
    while (passes.size() < PASSES - 1) {
        SeenReport<SeenEntries> report(options.device);
        check_metadata(options, subject.device, subject.metadata, report, nullptr);
        passes.push_back(report.seen());
        if (report.seen().empty()) {
            break;
        }
        options.pause();
    }
    return passes;
}

/* Standard output gets a whole document whatever happens. `report` is null when none was begun. */
void report_failure(const CheckOptions &options, Report *report, const char *error)
{
    try {
        if (report != nullptr) {
            report->fail(error);
        } else {
            print_json_error(options.device, error);
        }
    } catch (const std::exception &) {
        return; /* the first failure is the one to tell */
    }
}

} // namespace

void wait_for_writers() { std::this_thread::sleep_for(std::chrono::seconds(2)); }

bool check(const CheckOptions &options, const std::function<void(const Report &)> &done)
{
    std::unique_ptr<Report> report;
    try {
        hint_in_use(options.device);
        std::vector<SeenEntries> passes;
        if (options.live) {
            passes = find_before(options);
        }
        const Subject subject(options); /* it may be cut short, or gone, by now */
        const auto &[device, metadata] = subject;
        for (const std::string &name : options.tables) {
            find_table(metadata.tables, name);
        }
        report = options.json
                     ? make_json_report(options.device, metadata.layout->name, options.detail)
                     : make_text_report(options.device, options.detail);
        report->keep_only(options.live ? &passes : nullptr);
        check_metadata(options, device, metadata, *report, nullptr);
        report->finish();
        if (done) {
            done(*report);
        }
        return report->findings() == 0;
    } catch (const std::exception &error) {
        if (options.json) {
            report_failure(options, report.get(), error.what());
        }
        throw;
    }
}

void check_metadata(const CheckOptions &options, const Device &device, const Metadata &metadata,
                    Report &report, Watcher *watcher)
{
    Check(options, device, metadata, report, watcher).run();
}

} // namespace tierctl
