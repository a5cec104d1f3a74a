#pragma once

// The entry tables of the layouts: the commands, functions and texts of each, and the rules by
// which its entries are shown and repaired.

#include "entry_key.h"
#include "layout.h"
#include "probe_log.h"

#include <functional>
#include <string>
#include <vector>

namespace tier_test {

template <class S, class E>
struct Table {
    using Super = S;
    using Entry = E;

    decltype(Super::brick_cnt) Super::*count;
    std::function<std::size_t(const Super &)> length;
    std::function<std::int64_t(const Super &, std::uint64_t no)> offset;
    std::function<Block(const Super &, const Entry &)> encode;
    std::function<std::string(const Super &, const Entry &, std::int64_t offset)> json;

    // Every field different from zero; the repairable one without those that no repair fills.
    std::function<Entry(std::uint32_t no, std::uint32_t owner)> used;
    std::function<Entry(std::uint32_t no, std::uint32_t owner)> repairable;

    std::string dump;
    std::string formatter;
    std::string number_key;
    std::string assertion_without_log;
    // What is said of a damaged entry, of one that the filter hides, and of a number that no entry
    // of the table has.
    std::function<std::string(std::uint32_t slot, const Entry &, std::uint32_t stored,
                              std::uint32_t crc)>
        fault;
    std::function<std::string(std::uint32_t slot, const Entry &)> ignored;
    std::function<LogLine(std::uint32_t no, std::uint32_t count)> no_such_entry;
    std::function<bool(const Settings &filter, const Entry &)> skips;
    std::function<std::string(const Entry &)> id;
    // What stands around the array of a walk.
    std::string before_walk{};
    std::string behind_walk{};

    std::string repair;
    int repair_code;
    std::string parser;
    std::string assertion_without_super;
    std::vector<Key<Entry>> keys;
    std::vector<std::string> unread_keys;
    // What is said of an entry that does not belong on the device: nothing if it does.
    std::function<Log(const Super &, const Entry &)> bounds_errors;
    std::uint32_t largest_no = 0xFFFFFFFE; // of a table as large as can be
    // The entry with what the tool has made up itself, taken from its output.
    std::function<Entry(const Entry &, const std::string &out)> completed =
        [](const Entry &entry, const std::string &) { return entry; };
};

template <class Super, class Entry>
const Table<Super, Entry> &table();

// The head of the log of a command that finds this layout.
template <class Super>
Log log_head(const Device &device, const std::string &command, const Settings &settings = {},
             const Log &rest = {})
{
    return probe_log(device, command, std::stoi(Layout<Super>::VERSION), settings, rest);
}

template <class Entry>
Entry free_entry(std::uint32_t no)
{
    Entry entry;
    entry.no = no;
    return entry;
}

using BrickTableV1 = Table<SuperV1, BrickV1>;
using InodeTableV1 = Table<SuperV1, InodeV1>;
using ExtentTableV1 = Table<SuperV1, ExtentV1>;

template <>
const BrickTableV1 &table();
template <>
const InodeTableV1 &table();
template <>
const ExtentTableV1 &table();

// Names the cases of a typed test after the layouts of their tables.
struct LayoutNames {
    template <class AnyTable>
    static std::string GetName(int)
    {
        return Layout<typename AnyTable::Super>::NAME;
    }
};

} // namespace tier_test
