#pragma once

// The entry tables of layout version 1: the commands, functions and texts of each, and the rules
// by which its entries are shown and repaired.

#include "entry_key.h"
#include "run.h"
#include "v1_device.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tier_test {

template <class Entry>
struct TableV1 {
    std::uint32_t SuperV1::*count;
    std::function<std::size_t(const SuperV1 &)> length;
    std::function<std::int64_t(const SuperV1 &, std::uint64_t no)> offset;
    std::function<Block(const SuperV1 &, const Entry &)> encode;
    std::function<std::string(const SuperV1 &, const Entry &, std::int64_t offset)> json;

    // Every field different from zero; the repairable one without those that no repair fills.
    std::function<Entry(std::uint32_t no, std::uint32_t owner)> used;
    std::function<Entry(std::uint32_t no, std::uint32_t owner)> repairable;

    std::string dump;
    std::string formatter;
    std::string number_key;
    std::string assertion_without_log;
    // What is said of a damaged entry, and of one that the filter hides.
    std::function<std::string(std::uint32_t slot, const Entry &, std::uint32_t stored,
                              std::uint32_t crc)>
        fault;
    std::function<std::string(std::uint32_t slot, const Entry &)> ignored;
    std::function<bool(const Settings &filter, const Entry &)> skips;
    std::function<std::string(const Entry &)> id;

    std::string repair;
    int repair_code;
    std::string parser;
    std::string assertion_without_super;
    std::vector<Key<Entry>> keys;
    std::vector<std::string> unread_keys;
    std::function<std::optional<std::string>(const SuperV1 &, const Entry &)> bounds_error;
    // The entry with what the tool has made up itself, taken from its output.
    std::function<Entry(const Entry &, const std::string &out)> completed;
};

template <class Entry>
const TableV1<Entry> &table_v1();
template <>
const TableV1<BrickV1> &table_v1();
template <>
const TableV1<InodeV1> &table_v1();
template <>
const TableV1<ExtentV1> &table_v1();

} // namespace tier_test
