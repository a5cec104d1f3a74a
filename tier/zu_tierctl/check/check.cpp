#include "zu_tierctl/check/check.h"

#include "zu_tierctl/check/entries.h"
#include "zu_tierctl/check/super.h"
#include "zu_tierctl/check/table.h"
#include "zu_tierctl/entry/metadata.h"

#include <algorithm>
#include <map>

namespace {

/* Gives `use` the entries of the table, which is not the super block. */
template <class Use>
void with_entries(const tierctl_metadata &metadata, std::string_view table, const Use &use)
{
    if (table == "brick") {
        use(tierctl_brick_entries());
    } else if (table == "inode") {
        use(tierctl_inode_entries());
    } else if (table == "shard") {
        use(tierctl_shard_entries());
    } else if (table == "hot") {
        use(tierctl_hot_entries());
    } else if (metadata.version == tierctl_version::v1) {
        use(tierctl_extent_entries());
    } else if (metadata.version == tierctl_version::v2) {
        use(tierctl_extent_entries_v2(metadata.super<tier_super_block_v2_t>()));
    } else {
        use(tierctl_extent_entries_v3());
    }
}

/* The table that entries of this one name, if they name any. */
std::string_view owner_of(const tierctl_metadata &metadata, std::string_view table)
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
void close_inodes(const tierctl_metadata &metadata, tierctl_states &states)
{
    const auto super = metadata.super<tier_super_block_v2_t>();
    if (super.sb_inode_exp_inuse != TIER_EXP_INUSE_V2) {
        states.set_from(super.sb_inode_cnt, tierctl_state::closed);
    }
    states.set_from(TIER_INODE_NO_BOUND_V2, tierctl_state::missing);
}

/* The check of a device. */
class check {
public:
    check(const tierctl_check_options &options, const tierctl_device &device,
          const tierctl_metadata &metadata, tierctl_report &report, tierctl_watcher *watcher)
        : options_(options), device_(device), metadata_(metadata), report_(report),
          watcher_(watcher)
    {
    }

    void run()
    {
        check_super(metadata_.tables.front());
        for (auto table = metadata_.tables.begin() + 1; table != metadata_.tables.end(); ++table) {
            if (wanted(*table) || named_by_wanted(*table)) {
                with_entries(metadata_, table->name,
                             [this, table](const auto &entries) { check_table(*table, entries); });
            }
        }
    }

private:
    bool wanted(const tierctl_table &table) const
    {
        return options_.tables.empty() ||
               std::ranges::find(options_.tables, table.name) != options_.tables.end();
    }

    bool named_by_wanted(const tierctl_table &table) const
    {
        return std::any_of(metadata_.tables.begin() + 1, metadata_.tables.end(),
                           [this, &table](const tierctl_table &other) {
                               return wanted(other) &&
                                      owner_of(metadata_, other.name) == table.name;
                           });
    }

    void check_super(const tierctl_table &table)
    {
        begin_table(table, {table.count(), 0, 1}, {});
        if (watcher_ != nullptr) {
            watcher_->add_in_use({0, metadata_.super_block.data(), std::nullopt});
        }
        if (wanted(table)) {
            tierctl_check_super(metadata_, device_.size(), report_);
            report_.add_counts(table.name, {.entries = 1, .in_use = 1});
        }
    }

    template <class Entries>
    void check_table(const tierctl_table &table, const Entries &entries)
    {
        const tierctl_table_findings findings(wanted(table) ? &report_ : nullptr, table,
                                              Entries::BEHIND != 1);
        begin_table(table, {table.count(), Entries::FIRST, Entries::BEHIND},
                    owner_of(metadata_, table.name));
        if (table.record_length < entries.LENGTH_MIN || !table.fits()) {
            findings.add_unfit();
            add_counts(table, {.entries = table.count(), .damaged = table.count()});
            if (watcher_ != nullptr) {
                watcher_->add_lost(0, table.count(), tierctl_state::damaged);
            }
            return;
        }
        tierctl_table_check<Entries> entries_check(
            device_, table, entries, findings, states_[owner_of(metadata_, table.name)], watcher_);
        entries_check.run(options_.claims_memory);
        add_counts(table, entries_check.counts());
        if (metadata_.version == tierctl_version::v2 && table.name == "inode") {
            close_inodes(metadata_, entries_check.states());
        }
        states_[table.name] = std::move(entries_check.states());
    }

    void begin_table(const tierctl_table &table, const tierctl_numbering &numbering,
                     std::string_view owner) const
    {
        if (watcher_ != nullptr) {
            watcher_->begin_table(table.name, numbering, owner);
        }
    }

    void add_counts(const tierctl_table &table, const tierctl_counts &counts)
    {
        if (wanted(table)) {
            report_.add_counts(table.name, counts);
        }
    }

    const tierctl_check_options &options_;
    const tierctl_device &device_;
    const tierctl_metadata &metadata_;
    tierctl_report &report_;
    tierctl_watcher *watcher_;
    std::map<std::string_view, tierctl_states> states_; /* by table */
};

} // namespace

bool tierctl_check(const tierctl_check_options &options)
{
    const tierctl_device device(options.device, tierctl_access::read_only);
    const tierctl_metadata metadata = tierctl_read_metadata(device);
    for (const std::string &name : options.tables) {
        tierctl_find_table(metadata.tables, name);
    }
    const std::unique_ptr<tierctl_report> report =
        options.json ? tierctl_json_report(options.device, metadata.layout_name)
                     : tierctl_text_report(options.device);
    tierctl_check_metadata(options, device, metadata, *report, nullptr);
    report->finish();
    return report->findings() == 0;
}

void tierctl_check_metadata(const tierctl_check_options &options, const tierctl_device &device,
                            const tierctl_metadata &metadata, tierctl_report &report,
                            tierctl_watcher *watcher)
{
    check(options, device, metadata, report, watcher).run();
}
