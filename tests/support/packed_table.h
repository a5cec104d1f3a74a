#pragma once

// The tables of layout version 3 that are dumped and repaired by blocks, with their entries as
// structures: shards and extents, packed into words, and the hot table.

#include "dump_text.h"
#include "model.h"
#include "run.h"
#include "v3_device.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

// What the model says of the table, and the fields that place it.
struct BlockTable : TableModel {
    std::uint64_t SuperV3::*start_at;
    std::uint64_t SuperV3::*end_at; // where the next area begins
    std::uint64_t SuperV3::*count_at;

    std::int64_t offset(const SuperV3 &super, std::uint64_t no) const
    {
        return static_cast<std::int64_t>(super.*start_at + no * BLOCK_SIZE);
    }
};

template <class P, class E>
struct PackedTable : BlockTable {
    using Packed = P; // a block
    using Entry = E;
    static constexpr std::uint64_t PER_BLOCK = SLOTS_V3; // of what the super block counts

    std::vector<Entry> Packed::*entries;
    std::uint32_t Entry::*owner_at;
    std::vector<std::uint32_t Entry::*> members; // that the fields fill, in their order

    const std::string &entry_number() const { return items->keys.front().name; }

    // The entry whose fields lie in this word.
    Entry entry_of(std::uint32_t slot, std::uint64_t word) const
    {
        Block block{};
        put_u64(block, 0, word);
        Entry entry;
        entry.slot = slot;
        for (std::size_t i = 0; i < fields.size(); ++i)
            entry.*members[i] = static_cast<std::uint32_t>(get_number(block, fields[i]));
        return entry;
    }

    void put(Block &block, const Entry &entry, std::size_t base) const
    {
        for (std::size_t i = 0; i < fields.size(); ++i)
            put_number(block, fields[i], entry.*members[i], base);
    }
    Block word_of(const Entry &entry) const
    {
        Block block{};
        put(block, entry, 0);
        return block;
    }

    // The line of a dumped entry, whose number stands in front of the last field.
    std::string line(const Entry &entry, std::uint64_t no) const
    {
        std::string line;
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (i + 1 == fields.size())
                line += text(",\"%s\":%lu", entry_number().c_str(), no);
            line +=
                text("%c\"%s\":%u", i == 0 ? '{' : ',', fields[i].name.c_str(), entry.*members[i]);
        }
        return line + "}";
    }
    std::string block_text(const Block &block, std::int64_t offset, const std::string &lines) const
    {
        const std::string magic_text = magic == 0 ? "" : text("\"magic\":\"0x%x\",", magic);
        return text("{\"checksum\":\"0x%x\",%s\"meta_offset\": %ld,\"%s\":%s}",
                    stored_checksum(*this, block), magic_text.c_str(), offset, items->name.c_str(),
                    lines.c_str());
    }

    // What is said of a damaged block, and of an entry that the filter hides.
    LogLine faulty(std::uint64_t no, const Block &block) const
    {
        return error_line(formatter, fault(no, block, stored_checksum(*this, block),
                                           computed_checksum(*this, block, BLOCK_SIZE)));
    }
    LogLine hidden(std::uint64_t no, const Entry &entry) const
    {
        return debug_line(formatter, ignored(no, word_of(entry)));
    }
};

using ShardTable = PackedTable<ShardBlockV3, ShardV3>;
using ExtentTable = PackedTable<ExtentBlockV3, ExtentV3>;

// Its blocks have a place and no more.
struct HotTable : BlockTable {
    static constexpr std::uint64_t PER_BLOCK = BLOCK_SIZE;
};

template <class Table>
const Table &block_table();
template <>
const ShardTable &block_table();
template <>
const ExtentTable &block_table();
template <>
const HotTable &block_table();

using PackedTables = testing::Types<ShardTable, ExtentTable>;
using BlockTables = testing::Types<ShardTable, ExtentTable, HotTable>;

// Names the cases of a typed test, before the model can be asked.
struct BlockTableNames {
    template <class Table>
    static std::string GetName(int index)
    {
        return std::vector<std::string>{"Shards", "Extents", "Hot"}.at(std::size_t(index));
    }
};

// A super block with that many blocks in each of these tables.
SuperV3 packed_super(std::uint64_t blocks);

// One in use that differs from that of any other slot, in some field or in all.
template <class Entry, class Packed>
Entry sample_entry(const PackedTable<Packed, Entry> &table, std::uint32_t slot)
{
    Entry entry = table.entry_of(slot, (slot + 1) * 0x9E3779B97F4A7C15U);
    entry.in_use = 1;
    return entry;
}

// Of every slot, those that the block does not list included.
template <class Entry, class Packed>
std::vector<Entry> all_entries(const PackedTable<Packed, Entry> &table, const Packed &packed)
{
    std::vector<Entry> all;
    for (std::uint32_t slot = 0; slot < SLOTS_V3; ++slot)
        all.push_back(Entry{.slot = slot, .in_use = 0});
    for (const Entry &entry : packed.*table.entries)
        all[entry.slot] = entry;
    all.erase(all.begin(), all.begin() + table.first_slot);
    return all;
}

// A block as a dump shows it, and what the log says meanwhile.
struct ShownBlock {
    std::string text;
    Log log{};
    bool empty = true;
};

template <class Entry, class Packed>
ShownBlock shown_block(const PackedTable<Packed, Entry> &table, const SuperV3 &super,
                       std::uint64_t no, const Packed &packed, const Settings &filter = {})
{
    ShownBlock shown;
    std::vector<std::string> lines;
    for (const Entry &entry : all_entries(table, packed)) {
        if (filter_hides(table, filter, table.word_of(entry)))
            shown.log.push_back(table.hidden(no, entry));
        else
            lines.push_back(table.line(entry, no * SLOTS_V3 + entry.slot));
    }
    shown.empty = lines.empty();
    shown.text = table.block_text(encode(packed), table.offset(super, no), joined(lines));
    return shown;
}

inline std::string block_record(const BlockTable &table, const SuperV3 &super, int error,
                                std::uint64_t no)
{
    return error_record(error, table.number_key.c_str(), static_cast<std::int64_t>(no),
                        table.offset(super, no));
}

// A block of a new device as a dump shows it.
template <class Packed, class Entry>
std::string new_block_text(const PackedTable<Packed, Entry> &table, const SuperV3 &super,
                           std::uint64_t no)
{
    return shown_block(table, super, no, Packed{}).text;
}
inline std::string new_block_text(const HotTable &table, const SuperV3 &super, std::uint64_t no)
{
    return text("{\"meta_offset\":%ld}", table.offset(super, no));
}

} // namespace tier_test
