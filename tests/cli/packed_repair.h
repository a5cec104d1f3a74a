#pragma once

// Repairs of blocks of shards and of extents.

#include "block_repair.h"

#include <algorithm>
#include <string>
#include <vector>

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

    RepairFile document(const std::vector<std::string> &items) const
    {
        RepairFile file;
        file.set("meta_offset", std::to_string(this->target));
        file.set(this->table.entries_key, joined(items));
        return file;
    }

    // A file with one entry, and its result.
    RepairFile sample_file() const { return document({file_of({5, sample}).text()}); }
    Block sample_block() const { return encode(packed({sample})); }

    void expect_items(const std::vector<Item> &items, const Packed &result)
    {
        std::vector<std::string> files;
        for (const Item &item : items)
            files.push_back(file_of(item).text());
        this->expect_block(document(files).text(), encode(result));
    }
};

} // namespace tier_test
