#pragma once

// Repairs of blocks of shards and of extents.

#include "block_repair.h"

#include <string_view>

namespace tier_test {

template <class T>
class PackedRepair : public BlockRepair<T> {
protected:
    using Packed = typename T::Packed;
    using Entry = typename T::Entry;
    using Field = PackedField<Entry>;

    // An entry in a repair file: of its number only the place in the block counts.
    struct Item {
        std::uint64_t no;
        Entry entry;
        std::vector<std::string> missing{}; // keys
    };

    const Entry sample = sample_entry(this->table, 5);

    Packed packed(const std::vector<Entry> &entries) const
    {
        Packed result;
        result.*this->table.entries = entries;
        return result;
    }

    static bool is_missing(const Item &item, const Field &field)
    {
        return field.in_repair == InRepair::UNREAD ||
               std::ranges::count(item.missing, field.name) != 0;
    }

    RepairFile file_of(const Item &item) const
    {
        RepairFile file;
        file.number(this->table.number_key, item.no);
        for (const Field &field : this->table.fields)
            if (!is_missing(item, field))
                file.number(field.name, item.entry.*field.value);
        return file;
    }

    // What the log says of the keys of an item, all or those in front of `end`.
    Log log_of(const Item &item, std::string_view end = {}) const
    {
        if (this->table.number_key == end)
            return {};
        Log log{this->value_line(this->table.number_key, item.no)};
        for (const Field &field : this->table.fields) {
            if (field.name == end)
                break;
            if (!is_missing(item, field))
                log.push_back(this->value_line(field.name, item.entry.*field.value));
        }
        return log;
    }

    RepairFile document(const std::vector<std::string> &items) const
    {
        RepairFile file;
        file.set("meta_offset", std::to_string(this->target));
        file.set(this->table.entries_key, joined(items));
        return file;
    }

    // A file with one entry, and what comes of it.
    RepairFile sample_file() const { return document({file_of({5, sample}).text()}); }
    Log sample_lines() const { return log_of({5, sample}); }
    Block sample_block() const { return encode(packed({sample})); }

    void expect_items(const std::vector<Item> &items, const Packed &result)
    {
        std::vector<std::string> files;
        Log lines;
        for (const Item &item : items) {
            files.push_back(file_of(item).text());
            std::ranges::copy(log_of(item), std::back_inserter(lines));
        }
        this->expect_block(document(files).text(), lines, encode(result));
    }

    // Two items, of which the second is refused where it is read as far as the key `end`.
    void expect_item_refused(const std::string &item, std::string_view end,
                             const std::string &message)
    {
        SCOPED_TRACE(item);
        const Item first{1, sample_entry(this->table, 1)};
        Log lines = log_of(first);
        std::ranges::copy(log_of({sample.slot, sample}, end), std::back_inserter(lines));
        this->expect_refused_behind(document({file_of(first).text(), item}).text(), lines, message);
    }
};

} // namespace tier_test
