#pragma once

// The tables of layout version 3 that are dumped and repaired by blocks: shards and extents, packed
// into words, and the hot table. What a test must know of each table.

#include "dump_text.h"
#include "run.h"
#include "v3_device.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

enum class InRepair {
    REQUIRED,
    OPTIONAL, // may be missing
    UNREAD,
};

// The bits of an entry that hold one number.
template <class Entry>
struct PackedField {
    std::string name;
    std::uint32_t Entry::*value;
    unsigned shift;
    unsigned width;
    InRepair in_repair = InRepair::REQUIRED;
};

template <class P, class E>
struct PackedTable {
    using Packed = P; // a block
    using Entry = E;
    static constexpr std::uint64_t PER_BLOCK = SLOTS_V3; // of what the super block counts

    const char *name;
    std::uint32_t first_slot; // that holds an entry
    std::vector<Entry> Packed::*entries;
    std::uint32_t Entry::*owner;
    std::vector<PackedField<Entry>> fields; // in the order of a repair

    std::uint64_t SuperV3::*start;
    std::uint64_t SuperV3::*end; // where the next area begins
    std::uint64_t SuperV3::*count;
    std::int64_t (*offset)(const SuperV3 &, std::uint64_t block);

    std::string dump;
    std::string formatter;
    std::string block_key;
    std::uint32_t (*stored_checksum)(const Block &);
    std::string (*block_text)(std::uint32_t checksum, std::int64_t offset,
                              const std::string &entries);
    std::string (*line)(const Entry &, std::uint64_t no);
    // The log lines of a damaged block, and of an entry that the filter hides.
    std::string (*fault)(std::uint64_t block_no, const Block &);
    std::string (*ignored)(std::uint64_t block_no, const Entry &);

    std::string repair;
    int repair_code;
    std::string parser;
    std::string without_super;
    std::string entries_key;
    std::string item; // an entry in the messages
    std::string number_key;
};

using ShardTable = PackedTable<ShardBlockV3, ShardV3>;
using ExtentTable = PackedTable<ExtentBlockV3, ExtentV3>;

// Its blocks have a place and no more.
struct HotTable {
    static constexpr std::uint64_t PER_BLOCK = BLOCK_SIZE;

    const char *name = "Hot";
    std::uint64_t SuperV3::*start = &SuperV3::hot_table_offset;
    std::uint64_t SuperV3::*end = &SuperV3::extent_table_offset;
    std::uint64_t SuperV3::*count = &SuperV3::hot_table_size;
    std::int64_t (*offset)(const SuperV3 &, std::uint64_t block) = hot_offset;

    std::string dump = "dump_hot";
    std::string formatter = "__dump_hot_v3";
    std::string block_key = "hot_no";

    std::string repair = "repair_hot";
    int repair_code = 14;
    std::string parser = "parse_hot_table_from_json_v3";
    std::string without_super = "params && params->sb && ext_cfg && m";
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

// Names the cases of a typed test.
struct BlockTableNames {
    template <class Table>
    static std::string GetName(int)
    {
        return block_table<Table>().name;
    }
};

// A super block with that many blocks in each of these tables.
SuperV3 packed_super(std::uint64_t blocks);

inline std::uint32_t low_bits(std::uint64_t value, unsigned width)
{
    return static_cast<std::uint32_t>(value & ((std::uint64_t{1} << width) - 1));
}

// The entry whose fields lie in this word.
template <class Entry, class Packed>
Entry entry_of(const PackedTable<Packed, Entry> &table, std::uint32_t slot, std::uint64_t word)
{
    Entry entry;
    entry.slot = slot;
    for (const PackedField<Entry> &field : table.fields)
        entry.*field.value = low_bits(word >> field.shift, field.width);
    return entry;
}

// One in use that differs from that of any other slot, in some field or in all.
template <class Entry, class Packed>
Entry sample_entry(const PackedTable<Packed, Entry> &table, std::uint32_t slot)
{
    Entry entry = entry_of(table, slot, (slot + 1) * 0x9E3779B97F4A7C15U);
    entry.in_use = 1;
    return entry;
}

// Of every slot, those that the block does not list included.
template <class Entry, class Packed>
std::vector<Entry> all_entries(const PackedTable<Packed, Entry> &table, const Packed &packed)
{
    std::vector<Entry> all;
    for (std::uint32_t slot = 0; slot < SLOTS_V3; ++slot)
        all.push_back(entry_of(table, slot, 0));
    for (const Entry &entry : packed.*table.entries)
        all[entry.slot] = entry;
    all.erase(all.begin(), all.begin() + table.first_slot);
    return all;
}

template <class Entry, class Packed>
bool passes(const PackedTable<Packed, Entry> &table, const Settings &filter, const Entry &entry)
{
    const auto equals = [](int wanted, std::uint32_t value) {
        return static_cast<std::uint32_t>(wanted) == value;
    };
    return filter.error != 1 && (filter.use < 0 || equals(filter.use, entry.in_use)) &&
           (filter.owner < 0 || (entry.in_use == 1 && equals(filter.owner, entry.*table.owner)));
}

// A block as a dump shows it, and its log lines.
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
        if (passes(table, filter, entry))
            lines.push_back(table.line(entry, no * SLOTS_V3 + entry.slot));
        else
            shown.log.push_back(debug_line(table.formatter, table.ignored(no, entry)));
    }
    shown.empty = lines.empty();
    shown.text = table.block_text(table.stored_checksum(encode(packed)), table.offset(super, no),
                                  joined(lines));
    return shown;
}

template <class Table>
std::string block_record(const Table &table, const SuperV3 &super, int error, std::uint64_t no)
{
    return error_record(error, table.block_key.c_str(), static_cast<std::int64_t>(no),
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
