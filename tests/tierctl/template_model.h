#pragma once

// What a template must say of an entry, computed from the tables of the layouts: the repair file
// that names all that is stored, and what a repair with it leaves of the block.

#include "packed_table.h"
#include "v2_device.h"
#include "v3_device.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tier_test {

enum class Form {
    NUMBER,
    HEX,          // "0x1f"
    TIME,         // a number, and behind it the time
    HEX_AND_TIME, // hexadecimal, which a dump follows with the time
    TEXT,
    UUID,
    REVERSED,  // four bytes, as a hexadecimal text from the first to the last
    EXPANSION, // a number of units of expansion inodes
};

struct StoredField {
    std::string name;
    std::size_t at;
    std::size_t width;
    Form form = Form::NUMBER;
};

// Bytes behind the fields, up to `end`.
struct StoredArea {
    std::string name; // may be empty
    std::size_t end;
};

// What a template says: the file, the notes of what a repair changes, and the block that it makes.
struct ExpectedTemplate {
    std::string file{};
    std::vector<std::string> changes{};
    Block repaired{};
    bool random_uuid = false; // the repaired brick has an identity that nobody knows
};

// A table of slots.
struct SlotTable {
    std::string name;
    std::size_t length;             // of the record
    std::vector<StoredField> shown; // all fields in the order of a dump
    std::vector<StoredField> keys;  // in the order of a repair file
    std::size_t always;             // that many keys count even when the entry is free
    std::vector<StoredArea> areas;  // behind the fields
    StoredField use{};              // width 0: it has none
    StoredField number{};           // width 0: it has none
    std::vector<std::pair<std::size_t, std::uint32_t>> constants{}; // what a repair puts where
    std::function<std::int64_t(std::uint64_t no)> offset{};

    // Gives the last members of the file, and copies what they hold.
    std::function<std::string(const Block &from, bool in_use, Block &to)> rest{};
    // Puts what the repair derives.
    std::function<void(const Block &from, Block &to)> derive{};

    ExpectedTemplate expect(std::uint64_t no, const Block &block) const;
};

SlotTable super_slots(const SuperV1 &sb);
SlotTable super_slots(const SuperV2 &sb);
SlotTable super_slots(const SuperV3 &sb);

// Bricks, inodes and, but for V3, extents.
std::vector<SlotTable> slot_tables(const SuperV1 &sb);
std::vector<SlotTable> slot_tables(const SuperV2 &sb);
std::vector<SlotTable> slot_tables(const SuperV3 &sb);

// One line of a note.
std::string change_note(const std::string &what, const std::string &before,
                        const std::string &after);

// Notes of what is not zero in the areas behind byte `begin` and differs in the repaired block.
void add_cleared(std::vector<std::string> &notes, const Block &before, const Block &after,
                 std::size_t begin, const std::vector<StoredArea> &areas);

// The blocks of V3.

ExpectedTemplate expect_hot(const SuperV3 &sb, std::uint64_t no, const Block &block);

std::string packed_document(std::int64_t offset, const std::string &entries_key,
                            const std::vector<std::string> &entries);
void seal_packed(const ShardTable &table, Block &block);
void seal_packed(const ExtentTable &table, Block &block);

// What the block has outside its entries, as a dump shows it.
inline std::vector<std::pair<std::string, std::string>>
packed_head(const ShardTable &table, const Block &block, std::uint64_t)
{
    return {{"checksum", text("0x%x", table.stored_checksum(block))},
            {"magic", text("0x%x", get_u32(block, 4))}};
}
inline std::vector<std::pair<std::string, std::string>>
packed_head(const ExtentTable &table, const Block &block, std::uint64_t first_no)
{
    std::vector<std::pair<std::string, std::string>> head{
        {"checksum", text("0x%x", table.stored_checksum(block))}};
    for (std::uint64_t slot = 32; slot < SLOTS_V3; ++slot)
        head.emplace_back(text("eno %lu, checksum", first_no + slot),
                          std::to_string(block[8 * slot] & 1));
    return head;
}

template <class Packed, class Entry>
ExpectedTemplate expect_packed(const PackedTable<Packed, Entry> &table, const SuperV3 &sb,
                               std::uint64_t no, const Block &block)
{
    ExpectedTemplate expected;
    std::vector<std::string> entries;
    for (std::uint64_t slot = table.first_slot; slot < SLOTS_V3; ++slot) {
        const auto entry =
            entry_of(table, static_cast<std::uint32_t>(slot), get_u64(block, 8 * slot));
        const std::string name = text("%s %lu", table.number_key.c_str(), no * SLOTS_V3 + slot);
        std::string item =
            text("    {\n      \"%s\": %lu", table.number_key.c_str(), no * SLOTS_V3 + slot);
        std::uint64_t word = 0;
        for (const PackedField<Entry> &field : table.fields) {
            const std::uint64_t value = entry.*field.value;
            if (entry.in_use != 0)
                word |= value << field.shift;
            else if (value != 0)
                expected.changes.push_back(
                    change_note(name + ", " + field.name, std::to_string(value), "0"));
            if (field.in_repair != InRepair::UNREAD)
                item += text(",\n      \"%s\": %lu", field.name.c_str(), value);
        }
        put_u64(expected.repaired, 8 * slot, word);
        if (entry.in_use != 0)
            entries.push_back(item + "\n    }");
    }
    seal_packed(table, expected.repaired);
    expected.file = packed_document(table.offset(sb, no), table.entries_key, entries);
    const auto before = packed_head(table, block, no * SLOTS_V3);
    const auto after = packed_head(table, expected.repaired, no * SLOTS_V3);
    for (std::size_t i = 0; i < before.size(); ++i)
        if (before[i] != after[i])
            expected.changes.push_back(
                change_note(before[i].first, before[i].second, after[i].second));
    return expected;
}

} // namespace tier_test
