#include "zu_tierctl/check/check.h"

#include "zu_tierctl/check/entries.h"
#include "zu_tierctl/check/super.h"
#include "zu_tierctl/check/table.h"
#include "zu_tierctl/entry/metadata.h"

#include <algorithm>
#include <map>

namespace tierctl {

namespace {

/* Gives `use` the entries of the table, which is not the super block. */
template <class Use>
void with_entries(const Metadata &metadata, std::string_view table, const Use &use)
{
    if (table == "brick") {
        use(BrickEntries());
    } else if (table == "inode") {
        use(InodeEntries());
    } else if (table == "shard") {
        use(ShardEntries());
    } else if (table == "hot") {
        use(HotEntries());
    } else if (metadata.version == Version::v1) {
        use(ExtentEntries());
    } else if (metadata.version == Version::v2) {
        use(ExtentEntriesV2(metadata.super<tier_super_block_v2_t>()));
    } else {
        use(ExtentEntriesV3());
    }
}

/* The table that entries of this one name, if they name any. */
std::string_view owner_of(const Metadata &metadata, std::string_view table)
{
    std::string_view owner;
    with_entries(metadata, table, [&owner]<class Entries>(const Entries &) {
        if constexpr (requires { Entries::OWNER; }) {
            owner = Entries::OWNER.table;
        }
    });
    return owner;
}

/* Inodes that the rules of V2 let nobody name. */
void close_inodes(const Metadata &metadata, States &states)
{
    const auto super = metadata.super<tier_super_block_v2_t>();
    if (super.sb_inode_exp_inuse != TIER_EXP_INUSE_V2) {
        states.set_from(super.sb_inode_cnt, State::closed);
    }
    states.set_from(TIER_INODE_NO_BOUND_V2, State::missing);
}

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
            if (wanted(*table) || named_by_wanted(*table)) {
                with_entries(metadata_, table->name,
                             [this, table](const auto &entries) { check_table(*table, entries); });
            }
        }
    }

private:
    bool wanted(const Table &table) const
    {
        return options_.tables.empty() ||
               std::ranges::find(options_.tables, table.name) != options_.tables.end();
    }

    bool named_by_wanted(const Table &table) const
    {
        return std::any_of(metadata_.tables.begin() + 1, metadata_.tables.end(),
                           [this, &table](const Table &other) {
                               return wanted(other) &&
                                      owner_of(metadata_, other.name) == table.name;
                           });
    }

    void check_super_block(const Table &table)
    {
        begin_table(table, {table.count(), 0, 1}, {});
        if (watcher_ != nullptr) {
            watcher_->add_in_use({0, metadata_.super_block.data(), std::nullopt});
        }
        if (wanted(table)) {
            check_super(metadata_, device_.size(), report_);
            report_.add_counts(table.name, {.entries = 1, .in_use = 1});
        }
    }

    template <class Entries>
    void check_table(const Table &table, const Entries &entries)
    {
        const TableFindings findings(wanted(table) ? &report_ : nullptr, table,
                                     Entries::BEHIND != 1);
        begin_table(table, {table.count(), Entries::FIRST, Entries::BEHIND},
                    owner_of(metadata_, table.name));
        if (table.record_length < entries.LENGTH_MIN || !table.fits()) {
            findings.add_unfit();
            add_counts(table, {.entries = table.count(), .damaged = table.count()});
            if (watcher_ != nullptr) {
                watcher_->add_lost(0, table.count(), State::damaged);
            }
            return;
        }
        TableCheck<Entries> entries_check(device_, table, entries, findings,
                                          states_[owner_of(metadata_, table.name)], watcher_);
        entries_check.run(options_.claims_memory);
        add_counts(table, entries_check.counts());
        if (metadata_.version == Version::v2 && table.name == "inode") {
            close_inodes(metadata_, entries_check.states());
        }
        states_[table.name] = std::move(entries_check.states());
    }

    void begin_table(const Table &table, const Numbering &numbering, std::string_view owner) const
    {
        if (watcher_ != nullptr) {
            watcher_->begin_table(table.name, numbering, owner);
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
    for (const std::string &name : options.tables) {
        find_table(metadata.tables, name);
    }
    const std::unique_ptr<Report> report =
        options.json ? make_json_report(options.device, metadata.layout_name)
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
