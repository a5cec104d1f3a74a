#pragma once

// The keys of repair files, each tied to the field of the entry that it fills.

#include "bytes.h"
#include "json_number.h"
#include "repair_file.h"
#include "v3_device.h"

#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tier_test {

enum class Reading {
    ALWAYS,   // required, of a free entry too
    OF_USED,  // required of an entry in use, not read of a free one
    OPTIONAL, // as OF_USED, but may be missing
};

// The mapped pieces of an extent by their map numbers.
using Pieces = std::map<std::uint32_t, MappedMeta>;

template <class Entry>
using Field = std::variant<std::uint16_t Entry::*, std::uint32_t Entry::*, std::uint64_t Entry::*,
                           Uuid Entry::*, std::string Entry::*, std::vector<std::uint64_t> Entry::*,
                           Pieces Entry::*>;

template <class Entry>
struct Key {
    std::string name;
    Reading reading;
    Field<Entry> field;
    Conversion conversion = Conversion::SIGNED_64; // of a number
    bool is_signed = false;                        // 32 bits that the log shows as 64
    // What the field holds without the key: zero where there is no rule.
    std::uint64_t (*fallback)(const Entry &) = nullptr;

    bool required() const { return reading != Reading::OPTIONAL; }
    bool read_of(const Entry &entry) const { return reading == Reading::ALWAYS || entry.use != 0; }

    bool is_number() const { return field.index() < 3; }
    bool is_array() const { return field.index() >= 5; }
};

// What a repair file says of one piece, in reading order.
inline std::vector<std::pair<std::string, std::uint64_t>> piece_keys(std::uint32_t mapno,
                                                                     const MappedMeta &piece)
{
    return {{"mapno", mapno},        {"offset", piece.offset}, {"clean", piece.clean},
            {"len", piece.orig_len}, {"begin", piece.begin},   {"cnt", piece.cnt}};
}
inline RepairFile piece_file(std::uint32_t mapno, const MappedMeta &piece)
{
    RepairFile file;
    for (const auto &[name, value] : piece_keys(mapno, piece))
        file.number(name, value);
    return file;
}

// A value as the log shows it, key by key; an array has no line of its own.
inline std::vector<std::string> logged(const std::string &name, std::uint64_t value)
{
    return {name + ": " + std::to_string(value)};
}
inline std::vector<std::string> logged(const std::string &name, const std::string &value)
{
    return {name + ": " + value};
}
inline std::vector<std::string> logged(const std::string &name, const Uuid &value)
{
    return logged(name, uuid_text(value));
}
inline std::vector<std::string> logged(const std::string &, const std::vector<std::uint64_t> &)
{
    return {};
}
inline std::vector<std::string> logged(const std::string &, const Pieces &pieces)
{
    std::vector<std::string> lines;
    for (const auto &[mapno, piece] : pieces)
        for (const auto &[name, value] : piece_keys(mapno, piece))
            lines.push_back(name + ": " + std::to_string(value));
    return lines;
}

inline std::string json_array(const std::vector<std::string> &items)
{
    std::string array;
    for (const std::string &item : items)
        array.append(array.empty() ? "" : ",").append(item);
    return '[' + array + ']';
}

inline std::string json_value(std::uint64_t value)
{
    return std::to_string(value);
}
inline std::string json_value(const Uuid &value)
{
    return json_string(uuid_text(value));
}
inline std::string json_value(const std::string &value)
{
    return json_string(value);
}
inline std::string json_value(const std::vector<std::uint64_t> &values)
{
    std::vector<std::string> items;
    for (const std::uint64_t value : values)
        items.push_back(std::to_string(value));
    return json_array(items);
}
inline std::string json_value(const Pieces &pieces)
{
    std::vector<std::string> items;
    for (const auto &[mapno, piece] : pieces)
        items.push_back(piece_file(mapno, piece).text());
    return json_array(items);
}

template <class Entry>
std::vector<std::string> logged(const Key<Entry> &key, const Entry &entry)
{
    return std::visit(
        [&](const auto field) {
            if constexpr (std::is_same_v<decltype(field), std::uint32_t Entry::*const>)
                if (key.is_signed)
                    return logged(key.name, static_cast<std::uint64_t>(
                                                static_cast<std::int32_t>(entry.*field)));
            return logged(key.name, entry.*field);
        },
        key.field);
}

template <class Entry>
std::string json_value(const Key<Entry> &key, const Entry &entry)
{
    return std::visit([&](const auto field) { return json_value(entry.*field); }, key.field);
}

// Stores what the tool makes of a number: the low bits of the converted value.
template <class Entry>
void store(Entry &entry, const Key<Entry> &key, long double value)
{
    std::visit(
        [&](const auto field) {
            using Value = std::remove_reference_t<decltype(entry.*field)>;
            if constexpr (std::is_integral_v<Value>)
                entry.*field = static_cast<Value>(convert(key.conversion, value));
        },
        key.field);
}

// Gives the field of a key that is not in the file its value.
template <class Entry>
void clear(Entry &entry, const Key<Entry> &key)
{
    std::visit([&](const auto field) { entry.*field = {}; }, key.field);
    if (key.fallback)
        store(entry, key, static_cast<long double>(key.fallback(entry)));
}

// A file with the keys that are read of the entry.
template <class Entry>
RepairFile repair_file(const std::vector<Key<Entry>> &keys, const Entry &entry)
{
    RepairFile file;
    for (const Key<Entry> &key : keys)
        if (key.read_of(entry))
            file.set(key.name, json_value(key, entry));
    return file;
}

} // namespace tier_test
