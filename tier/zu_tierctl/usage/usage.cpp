#include "zu_tierctl/usage/usage.h"

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/entry/given_super.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <stdexcept>
#include <utility>

namespace tierctl {

namespace {

/* Bricks with higher numbers have no path. No layout has so many. */
constexpr uint64_t PATHS_MAX = 4096;

constexpr std::string_view NOT_DESCRIBED =
    "not described: the super block does not tell where their pieces are";

/* The tables from the one that refers to no other to the one with data: brick, inode, shard,
 * extent. Throws when the layout has none like this. */
std::vector<const Table *> data_chain(const Metadata &metadata)
{
    std::vector<const Table *> chain;
    const auto data = std::ranges::find_if(
        metadata.tables, [](const Table &table) { return table.row->data != nullptr; });
    if (data != metadata.tables.end()) {
        chain.push_back(&*data);
        while (!chain.back()->row->owner.table.empty()) {
            chain.push_back(&find_table(metadata.tables, chain.back()->row->owner.table));
        }
    }
    if (chain.size() < 3) {
        throw std::runtime_error(
            fmt::format("layout {} does not tell what is cached of files", metadata.layout->name));
    }
    std::ranges::reverse(chain);
    return chain;
}

/* The first column that is as described; null when there is none. */
template <class Is>
const tier_column *find_column(const tier_columns &columns, const Is &is)
{
    const auto column = std::ranges::find_if(columns, is);
    return column != columns.end() ? &*column : nullptr;
}

const tier_column *column_of_key(const tier_columns &columns, std::string_view key)
{
    return find_column(columns, [key](const tier_column &column) { return column.key == key; });
}

const tier_column *column_of_type(const tier_columns &columns, tier_column_type type)
{
    return find_column(columns, [type](const tier_column &column) { return column.type == type; });
}

class UsageReader {
public:
    UsageReader(const Device &device, const Metadata &metadata)
        : device_(device), metadata_(metadata), chain_(data_chain(metadata)), owners_(*chain_[0]),
          files_(*chain_[1]), data_(*chain_.back()), file_columns_(files_.row->fields()),
          owner_columns_(owners_.row->fields()), size_(column_of_key(file_columns_, "size")),
          changed_(column_of_key(file_columns_, "mtime")),
          identity_(column_of_type(file_columns_, tier_column_type::uuid)),
          path_(column_of_type(owner_columns_, tier_column_type::text))
    {
    }

    Usage read()
    {
        const tier_data &data = *data_.row->data;
        usage_.device = device_.path();
        usage_.layout = metadata_.layout->name;
        const tier_columns super = metadata_.tables.front().row->fields();
        if (const tier_column *uuid = column_of_type(super, tier_column_type::uuid)) {
            usage_.identity = zutr_uuid_utoa(metadata_.super_block.data() + uuid->at);
        }
        usage_.owner_table = owners_.name;
        usage_.file_table = files_.name;
        usage_.data_table = data_.name;
        usage_.block_size = data.block_size(metadata_.super());
        usage_.is_bound = data.bounded;
        usage_.file_count = files_.entries();
        for (const Table *table : chain_) {
            read(*table);
        }
        finish();
        return std::move(usage_);
    }

private:
    void read(const Table &table)
    {
        if (&table == &owners_) {
            walk(table, [this](uint64_t no, const uint8_t *entry) { add_owner(no, entry); });
        } else if (&table == &files_) {
            walk(table, [this](uint64_t no, const uint8_t *entry) { add_file(no, entry); });
        } else if (&table == &data_) {
            walk_data();
        } else {
            std::vector<uint64_t> file_of;
            walk(table, [this, &table, &file_of](uint64_t no, const uint8_t *entry) {
                if (no < Usage::FILES_MAX) {
                    file_of.resize(std::max<size_t>(file_of.size(), no + 1), NO_FILE);
                    file_of[no] = file_of_owner(table.row->owner.no.get(entry));
                }
            });
            file_of_ = std::move(file_of);
            is_direct_ = false;
        }
    }

    /* Gives every entry in use to `use`, and notes what cannot be known. */
    template <class Use>
    void walk(const Table &table, const Use &use)
    {
        if (!table.identifies()) {
            lose(table, 0, table.count(), "damaged");
            return;
        }
        uint64_t present = 0;
        for (const tier_region &region : table.regions) {
            present += slots_on_device(region, device_.size());
        }
        Progress progress(fmt::format("reading {}", table.name), present);
        read_table(device_, table.regions, [&](const Slots &slots) {
            if (slots.data == nullptr) {
                lose(table, slots.first_no, slots.count, "unreadable");
                return;
            }
            for (uint64_t i = 0; i < slots.count; i++) {
                walk_slot(table, slots.first_no + i, slots.slot(i), use);
            }
            progress.add(slots.count);
        });
    }

    template <class Use>
    void walk_slot(const Table &table, uint64_t no, const uint8_t *slot, const Use &use)
    {
        if (table.flaws(no, slot) != 0) {
            lose(table, no, 1, "damaged");
            return;
        }
        for (uint32_t k = table.first_word; k < table.end_word; k++) {
            const uint8_t *entry = Table::entry(slot, k);
            if (table.in_use(entry)) {
                use(no * table.end_word + k, entry);
            } else if (&table == &files_) {
                set_state(no * table.end_word + k, State::free);
            }
        }
    }

    void lose(const Table &table, uint64_t first_slot, uint64_t slots, std::string_view why)
    {
        const uint64_t a_slot = table.entries_a_slot();
        const uint64_t count = slots * a_slot;
        if (count == 0) {
            return;
        }
        const uint64_t first = table.number(first_slot * a_slot);
        add_unknown(table, why, first, table.number(first_slot * a_slot + count - 1), count);
        const State state = why == "damaged" ? State::damaged : State::unreadable;
        const uint64_t end = std::min(first + count, Usage::FILES_MAX);
        for (uint64_t no = first; &table == &files_ && state == State::damaged && no < end; no++) {
            set_state(no, state);
        }
    }

    void add_unknown(const Table &table, std::string_view why, uint64_t first, uint64_t last,
                     uint64_t count)
    {
        if (&table == &data_) {
            usage_.unknown_data = add_limited(usage_.unknown_data, count);
        }
        const bool is_next = last_lost_.table == table.name && last_lost_.why == why &&
                             table.index(last_lost_.last) + 1 == table.index(first);
        if (is_next) {
            last_lost_.last = last;
            last_lost_.count += count;
            if (usage_.unknown_more == 0) {
                usage_.unknown.back() = last_lost_;
            }
            return;
        }
        last_lost_ = {table.name, why, first, last, count};
        if (usage_.unknown.size() < Usage::RUNS_MAX) {
            usage_.unknown.push_back(last_lost_);
        } else {
            usage_.unknown_more++;
        }
    }

    void add_owner(uint64_t no, const uint8_t *entry)
    {
        if (no >= PATHS_MAX) {
            return;
        }
        OwnerUse &owner = owner_of(no);
        owner.state = State::in_use;
        if (path_ != nullptr) {
            const auto *text = reinterpret_cast<const char *>(entry) + path_->at;
            owner.path = shown_text(std::string(zutr_bounded(text, path_->size)));
        }
    }

    OwnerUse &owner_of(uint64_t no)
    {
        OwnerUse &owner = by_no_[no];
        owner.no = no;
        return owner;
    }

    /* The file of that number, if it is told apart from others. */
    FileUse *file(uint64_t no)
    {
        if (no >= std::min(usage_.file_count, Usage::FILES_MAX)) {
            return nullptr;
        }
        for (uint64_t next = usage_.files.size(); next <= no; next++) {
            usage_.files.push_back({.no = next});
        }
        return &usage_.files[no];
    }

    void set_state(uint64_t no, State state)
    {
        if (FileUse *use = file(no)) {
            use->state = state;
        }
    }

    void add_file(uint64_t no, const uint8_t *entry)
    {
        FileUse *use = file(no);
        if (use == nullptr) {
            return;
        }
        use->state = State::in_use;
        use->owner = files_.row->owner.no.get(entry);
        use->size = size_ != nullptr ? column_number(*size_, entry) : 0;
        use->changed = changed_ != nullptr ? column_number(*changed_, entry) : 0;
        if (identity_ != nullptr) {
            memcpy(use->identity, entry + identity_->at, sizeof(use->identity));
        }
    }

    /* The number of the file of an entry that refers to `owner`. */
    uint64_t file_of_owner(uint64_t owner) const
    {
        if (is_direct_) {
            return owner;
        }
        return owner < file_of_.size() ? file_of_[owner] : NO_FILE;
    }

    void walk_data()
    {
        const tier_data &data = *data_.row->data;
        const void *sb = metadata_.super();
        const bool is_known = data.is_known == nullptr || data.is_known(sb);
        walk(data_, [&](uint64_t no, const uint8_t *entry) {
            if (!is_known) {
                add_unknown(data_, NOT_DESCRIBED, no, no, 1);
                return;
            }
            const uint32_t count = data.pieces(sb, entry, no, pieces_.data());
            const uint64_t file_no = file_of_owner(data_.row->owner.no.get(entry));
            FileUse *use = file(file_no);
            DataSum &sum = use != nullptr ? use->data : usage_.orphans;
            for (uint32_t i = 0; i < count; i++) {
                sum.add(pieces_[i]);
            }
        });
    }

    void finish()
    {
        OwnerUse unknown{.is_known = false, .path = "not known"};
        std::vector<uint64_t> changes;
        for (const FileUse &file : usage_.files) {
            if (file.state == State::in_use) {
                changes.push_back(file.changed);
                owner_of(file.owner).sum.add(file);
            } else {
                unknown.sum.add(file);
            }
            usage_.total.add(file);
        }
        usage_.newest = find_newest(std::move(changes));
        for (auto &[no, owner] : by_no_) {
            if (owner.state == State::in_use || owner.sum.data.pieces != 0) {
                usage_.owners.push_back(std::move(owner));
            }
        }
        if (unknown.sum.data.pieces != 0) {
            usage_.owners.push_back(std::move(unknown));
        }
    }

    static constexpr uint64_t NO_FILE = ~uint64_t{0};

    const Device &device_;
    const Metadata &metadata_;
    std::vector<const Table *> chain_;
    const Table &owners_;
    const Table &files_;
    const Table &data_;
    tier_columns file_columns_;
    tier_columns owner_columns_;
    const tier_column *size_; /* columns, null: there is none */
    const tier_column *changed_;
    const tier_column *identity_;
    const tier_column *path_;

    Usage usage_;
    std::map<uint64_t, OwnerUse> by_no_;
    /* For the entries of the table read before, the numbers of their files; unless that table is
     * the one of files. */
    std::vector<uint64_t> file_of_;
    bool is_direct_ = true;
    UnknownRun last_lost_{};
    std::array<tier_piece, TIER_PIECES_MAX> pieces_{};
};

/* The entry of `usage.owners`, which are sorted, for a file with data. */
OwnerUse &owner_of(Usage &usage, const FileUse &file)
{
    if (file.state != State::in_use) {
        return usage.owners.back();
    }
    return *std::ranges::lower_bound(
        usage.owners, std::pair(false, file.owner), {},
        [](const OwnerUse &owner) { return std::pair(!owner.is_known, owner.no); });
}

} // namespace

void DataSum::add(const tier_piece &piece)
{
    const uint64_t dirty_length = piece.clean ? 0 : piece.length;
    cached = add_limited(cached, piece.length);
    dirty = add_limited(dirty, dirty_length);
    pieces++;
    dirty_pieces += piece.clean ? 0 : 1;
}

void DataSum::add(const DataSum &sum)
{
    cached = add_limited(cached, sum.cached);
    dirty = add_limited(dirty, sum.dirty);
    pieces += sum.pieces;
    dirty_pieces += sum.dirty_pieces;
}

void FilesSum::add(const FileUse &file)
{
    if (file.data.pieces == 0) {
        return;
    }
    files++;
    dirty_files += file.data.dirty_pieces != 0 ? 1 : 0;
    changed = std::max(changed, file.changed);
    data.add(file.data);
}

void FilesSum::add(const FilesSum &sum)
{
    files += sum.files;
    dirty_files += sum.dirty_files;
    changed = std::max(changed, sum.changed);
    data.add(sum.data);
}

Usage read_usage(const std::string &device_path, const std::string &super_file,
                 const std::string &mapfile)
{
    const Device device(device_path, Access::read_only, mapfile);
    hint_in_use(device_path);
    const Metadata metadata = read_metadata(device, super_file);
    Usage usage = UsageReader(device, metadata).read();
    for (const uint64_t no : rank_files(usage)) {
        owner_of(usage, usage.files[no]).files.push_back(no);
    }
    return usage;
}

std::vector<uint64_t> rank_files(const Usage &usage)
{
    std::vector<uint64_t> ranked;
    for (const FileUse &file : usage.files) {
        if (file.data.pieces != 0) {
            ranked.push_back(file.no);
        }
    }
    std::ranges::stable_sort(ranked, std::ranges::greater(), [&usage](uint64_t no) {
        const DataSum &data = usage.files[no].data;
        return std::pair(data.dirty, data.cached);
    });
    return ranked;
}

FileUse get_file(const Usage &usage, uint64_t no)
{
    if (no >= usage.file_count) {
        throw UsageError(
            fmt::format("there is no {} {} in {}", usage.file_table, no, usage.device));
    }
    return no < usage.files.size() ? usage.files[no] : FileUse{.no = no};
}

std::vector<FilesSum> sum_ages(const Usage &usage)
{
    std::vector<FilesSum> sums(std::size(AGE_GROUPS) + 1);
    for (const FileUse &file : usage.files) {
        const bool is_timed = file.state == State::in_use && file.changed <= usage.newest.time;
        sums[is_timed ? age_group(usage.newest, file.changed) : std::size(AGE_GROUPS)].add(file);
    }
    return sums;
}

void UsageTotal::add(const Usage &usage, const UsageView &view)
{
    if (view.file) {
        files.add(get_file(usage, *view.file));
    } else {
        files.add(usage.total);
        orphans.add(usage.orphans);
    }
    is_bound = is_bound || usage.is_bound;
    unknown_data = add_limited(unknown_data, usage.unknown_data);
    unknown_bytes = add_limited(unknown_bytes, usage.unknown_bytes());
    is_complete = is_complete && usage.is_complete();
}

} // namespace tierctl
