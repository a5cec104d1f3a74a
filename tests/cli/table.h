#pragma once

// The tables of slots with their entries as structures.

#include "layout.h"
#include "parsed.h"
#include "probe_log.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

// The extent without what no repair fills: block, size, clean flag, time stamp, heat, bitmap and
// hot area.
inline ExtentV2 repairable(ExtentV2 extent)
{
    extent.block = 0;
    extent.size = 0;
    extent.clean = 0;
    extent.ntime = 0;
    extent.hot = 0;
    extent.bitmap.clear();
    extent.hot_area.clear();
    return extent;
}

// What the model says of the table, and entries of it.
template <class S, class E>
struct Table : TableModel {
    using Super = S;
    using Entry = E;

    decltype(Super::brick_cnt) Super::*counter;
    // An entry of that owner with every field different from zero.
    std::function<Entry(std::uint32_t no, std::uint32_t of)> used;
    std::uint32_t largest_no = 0xFFFFFFFE; // of a table as large as can be

    static Block encoded(const Super &sb, const Entry &entry)
    {
        if constexpr (requires { encode(entry); })
            return encode(entry);
        else if constexpr (requires { encode(entry, sb); })
            return encode(entry, sb);
        else
            return encode(entry, sb.extent_size);
    }

    std::size_t record_length(const Super &sb) const { return length(encode(sb)); }
    std::int64_t offset(const Super &sb, std::uint64_t no) const
    {
        return slot_offset(*this, encode(sb), no);
    }
    std::string json(const Super &sb, const Entry &entry, std::int64_t offset) const
    {
        return entry_text(*this, encode(sb), encoded(sb, entry), offset);
    }

    // One without what no repair fills.
    Entry repairable(std::uint32_t no, std::uint32_t of) const
    {
        Entry entry = used(no, of);
        if constexpr (requires { entry.reserved; })
            entry.reserved = 0;
        if constexpr (requires { entry.reserved1; })
            entry.reserved1 = entry.reserved2 = 0;
        if constexpr (requires { entry.maps; })
            entry = tier_test::repairable(entry);
        return entry;
    }

    RepairFile file_of(const Super &sb, const Entry &entry) const
    {
        return repair_file(*this, encode(sb), encoded(sb, entry));
    }

    // What is said of an entry that does not belong on the device: nothing if it does.
    Log bounds_errors(const Super &sb, const Entry &entry, int meta_no = -1) const
    {
        return bounds(encode(sb), encoded(sb, entry), meta_no);
    }

    bool hides(const Settings &filter, const Super &sb, const Entry &entry) const
    {
        return filter_hides(*this, filter, encoded(sb, entry));
    }
    LogLine hidden(std::uint32_t slot, const Super &sb, const Entry &entry) const
    {
        return debug_line(formatter, ignored(slot, encoded(sb, entry)));
    }
    LogLine faulty(std::uint32_t slot, const Super &sb, const Entry &entry) const
    {
        const Block block = encoded(sb, entry);
        return error_line(formatter, fault(slot, block, stored_checksum(*this, block),
                                           computed_checksum(*this, block, record_length(sb))));
    }

    // The refusal of a number that no entry of the table has.
    LogLine no_such_entry(std::uint32_t no, std::uint32_t of) const
    {
        if (version == 2 && name == "inode")
            return error_line("zutr_dump_inode_v2",
                              text("exp inode not format, invalid inode %u", no));
        return error_line("zutr_dump_common",
                          text("invalid %s %u, max cnt:%u", number_key.c_str(), no, of));
    }
};

using BrickTableV1 = Table<SuperV1, BrickV1>;
using InodeTableV1 = Table<SuperV1, InodeV1>;
using ExtentTableV1 = Table<SuperV1, ExtentV1>;
using BrickTableV2 = Table<SuperV2, BrickV2>;
using InodeTableV2 = Table<SuperV2, InodeV2>;
using ExtentTableV2 = Table<SuperV2, ExtentV2>;
using BrickTableV3 = Table<SuperV3, BrickV3>;
using InodeTableV3 = Table<SuperV3, InodeV3>;

inline BrickTableV1 make_table(const BrickTableV1 *)
{
    return {model(1, "brick"), &SuperV1::brick_cnt,
            [](std::uint32_t no, std::uint32_t) { return brick_used(no); }};
}
inline InodeTableV1 make_table(const InodeTableV1 *)
{
    return {model(1, "inode"), &SuperV1::inode_cnt, inode_used};
}
inline ExtentTableV1 make_table(const ExtentTableV1 *)
{
    return {model(1, "extent"), &SuperV1::block_cnt, extent_used};
}
inline BrickTableV2 make_table(const BrickTableV2 *)
{
    return {model(2, "brick"), &SuperV2::brick_cnt,
            [](std::uint32_t no, std::uint32_t) { return brick_used(no); }};
}
inline InodeTableV2 make_table(const InodeTableV2 *)
{
    return {model(2, "inode"), &SuperV2::inode_cnt, inode_v2_used, 499'999};
}
inline ExtentTableV2 make_table(const ExtentTableV2 *)
{
    return {model(2, "extent"), &SuperV2::block_cnt, extent_v2_used};
}
inline BrickTableV3 make_table(const BrickTableV3 *)
{
    return {model(3, "brick"), &SuperV3::brick_cnt,
            [](std::uint32_t no, std::uint32_t) { return brick_v3_used(no); }};
}
inline InodeTableV3 make_table(const InodeTableV3 *)
{
    return {model(3, "inode"), &SuperV3::inode_cnt, inode_v3_used, 0x7FFFFFFE};
}

template <class Super, class Entry>
const Table<Super, Entry> &table()
{
    static const auto TABLE = make_table(static_cast<const Table<Super, Entry> *>(nullptr));
    return TABLE;
}

// The tables of each kind, for the rules that hold in all layouts.
using BrickTables = testing::Types<BrickTableV1, BrickTableV2, BrickTableV3>;
using InodeTables = testing::Types<InodeTableV1, InodeTableV2, InodeTableV3>;
using ExtentTables = testing::Types<ExtentTableV1, ExtentTableV2>;

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

// Names the cases of a typed test after the layouts of their tables.
struct LayoutNames {
    template <class AnyTable>
    static std::string GetName(int)
    {
        return Layout<typename AnyTable::Super>::NAME;
    }
};

} // namespace tier_test
