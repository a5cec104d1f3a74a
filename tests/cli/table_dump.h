#pragma once

// The rules that the dumps of all tables share. The test file of each kind of table instantiates
// them with its tables.

#include "dump_text.h"
#include "expect.h"
#include "filter_args.h"
#include "table.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace tier_test {

template <class T>
class TableDump : public testing::Test {
protected:
    using Super = typename T::Super;
    using Entry = typename T::Entry;

    struct Slot {
        Entry entry;
        bool faulty;
    };

    const T &table = tier_test::table<Super, Entry>();
    Super super = Layout<Super>::super(6, 6, 6);
    Device device = Layout<Super>::device(super);
    std::vector<Slot> slots;

    TableDump()
    {
        for (std::uint32_t no = 0; no < 6; ++no)
            slots.push_back({free_entry<Entry>(no), false});
    }

    void put(std::uint32_t slot, const Entry &entry, bool faulty = false)
    {
        slots[slot] = {entry, faulty};
        device.write(static_cast<std::uint64_t>(table.offset(super, slot)),
                     table.encoded(super, entry));
    }

    std::string item(std::uint32_t slot) const
    {
        return table.json(super, slots[slot].entry, table.offset(super, slot));
    }

    std::string error_record(std::uint32_t slot, std::int64_t offset) const
    {
        return text("{\"error\":14, \"%s\":%u, \"meta_offset\":%ld}", table.number_key.c_str(),
                    slot, offset);
    }

    // A message, then the entry at offset 0 without a line end.
    Log fault_log(std::uint32_t slot) const
    {
        return {table.faulty(slot, super, slots[slot].entry),
                raw_text(table.json(super, slots[slot].entry, 0))};
    }

    LogLine ignored(std::uint32_t slot) const
    {
        return table.hidden(slot, super, slots[slot].entry);
    }

    std::string walked(const std::vector<std::string> &items) const
    {
        return table.before_walk + joined(items) + table.after_walk;
    }

    Expected walk(const Settings &filter = {}) const
    {
        Expected expected{.log = log_head<Super>(device, table.dump, filter)};
        std::vector<std::string> items;
        for (std::uint32_t slot = 0; slot < slots.size(); ++slot) {
            if (slots[slot].faulty) {
                std::ranges::copy(fault_log(slot), std::back_inserter(expected.log));
                if (filter.error != 0)
                    items.push_back(error_record(slot, table.offset(super, slot)));
            } else if (table.hides(filter, super, slots[slot].entry)) {
                expected.log.push_back(ignored(slot));
            } else {
                items.push_back(item(slot));
            }
        }
        expected.out = walked(items);
        return expected;
    }

    void expect_walk(const Settings &filter = {})
    {
        expect_run(run_logged(device, table.dump, filter_args(filter_pairs(filter))), walk(filter));
    }

    void expect_single(std::uint32_t slot)
    {
        const Settings settings{.meta_no = static_cast<int>(slot)};
        Expected expected{
            .status = 0, .out = "", .log = log_head<Super>(device, table.dump, settings)};
        if (slots[slot].faulty) {
            expected.status = 14;
            std::ranges::copy(fault_log(slot), std::back_inserter(expected.log));
        } else {
            expected.out = item(slot);
        }
        expect_run(run_logged(device, table.dump, {"-n", std::to_string(slot)}), expected);
    }

    std::uint32_t good_checksum(const Entry &entry) const
    {
        return record_crc(table.encoded(super, entry), table.record_length(super));
    }

    // Entries that must not stand in this slot, each wrong in one respect.
    std::vector<std::pair<std::string, Entry>> faulty_entries(std::uint32_t slot) const
    {
        const Entry good = table.used(slot, 1);
        std::vector<std::pair<std::string, Entry>> faulty;
        for (const int bit : {0, 31}) {
            faulty.emplace_back("checksum", good);
            faulty.back().second.checksum = good_checksum(good) ^ (1U << bit);
        }
        faulty.emplace_back("number", table.used(slot + 1, 1));
        faulty.emplace_back("free with another number", free_entry<Entry>(slot + 1));
        faulty.emplace_back("all zero", Entry{});
        faulty.back().second.checksum = 0;
        if constexpr (requires(Entry entry) { entry.magic; }) {
            faulty.back().second.magic = 0;
            faulty.emplace_back("magic", good);
            faulty.back().second.magic ^= 1U;
        }
        return faulty;
    }
};

TYPED_TEST_SUITE_P(TableDump);

TYPED_TEST_P(TableDump, EntriesInUseAndFreeOnes)
{
    this->expect_walk();
    this->put(0, this->table.used(0, 5));
    this->put(3, this->table.used(3, 0));
    this->put(5, this->table.used(5, 2));
    this->expect_walk();
    for (std::uint32_t slot = 0; slot < 6; ++slot) {
        SCOPED_TRACE(slot);
        this->expect_single(slot);
    }
}

TYPED_TEST_P(TableDump, FaultyEntries)
{
    for (const std::uint32_t slot : {0U, 2U, 5U}) {
        for (const auto &[fault, entry] : this->faulty_entries(slot)) {
            SCOPED_TRACE(fault + " in slot " + std::to_string(slot));
            this->put(slot, entry, true);
            this->expect_walk();
            this->expect_walk({.error = 0});
            this->expect_walk({.error = 1});
            this->expect_single(slot);
        }
        this->put(slot, free_entry<typename TypeParam::Entry>(slot));
    }
}

TYPED_TEST_P(TableDump, FaultyEntryWithoutALogFileAborts)
{
    if (!default_log_is_missing())
        return;
    auto faulty = free_entry<typename TypeParam::Entry>(1);
    faulty.checksum = 1;
    this->put(1, faulty, true);
    const std::vector<std::string> args{"-p", this->device.path(), "-c", this->table.dump};
    expect_abort(run_tool(args), this->table.without_log);

    std::vector<std::string> single = args;
    single.insert(single.end(), {"-n", "1"});
    expect_abort(run_tool(single), this->table.without_log);

    single.back() = "0";
    EXPECT_EQ(run_tool(single).out, this->item(0));
}

// One bit flipped in every byte of the record, then in the bytes after it.
TYPED_TEST_P(TableDump, ChecksumCoversTheRecordAndNothingBehindIt)
{
    const auto length = static_cast<std::uint32_t>(this->table.record_length(this->super));
    const auto large = Layout<typename TypeParam::Super>::super(length + 2, length + 2, length + 2);
    Device flipped = Layout<typename TypeParam::Super>::device(large);
    std::vector<std::string> items;
    for (std::uint32_t slot = 0; slot < length + 2; ++slot) {
        const auto entry = this->table.used(slot, slot);
        const std::int64_t offset = this->table.offset(large, slot);
        Block block = this->table.encoded(large, entry);
        block[slot <= length ? slot : BLOCK_SIZE - 1] ^= 0x10;
        flipped.write(static_cast<std::uint64_t>(offset), block);
        items.push_back(slot >= length ? this->table.json(large, entry, offset)
                                       : this->error_record(slot, offset));
    }
    const LoggedRun run = run_logged(flipped, this->table.dump);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, this->walked(items));
}

// Every combination of filters, with the pairs in both orders.
TYPED_TEST_P(TableDump, FiltersAloneAndCombined)
{
    this->put(0, this->table.used(0, 0));
    this->put(1, this->table.used(1, 1));
    auto used_twice = this->table.used(2, 1);
    used_twice.use = 2;
    this->put(2, used_twice);
    this->put(3, this->faulty_entries(3).front().second, true);
    this->put(5, this->table.used(5, 0));
    const std::string id =
        this->table.id.empty()
            ? "anything"
            : id_of(this->table, this->table.encoded(this->super, this->slots[1].entry));

    std::vector<Settings> filters;
    for (const int use : {-1, 0, 1, 2})
        for (const int owner : {-1, 0, 1})
            for (const int error : {-1, 0, 1})
                for (const std::string &text : {std::string(), id, id.substr(1)})
                    filters.push_back({.use = use, .error = error, .owner = owner, .id = text});
    for (const Settings &filter : filters) {
        std::vector<std::string> pairs = filter_pairs(filter);
        SCOPED_TRACE(testing::PrintToString(pairs));
        this->expect_walk(filter);
        std::ranges::reverse(pairs);
        expect_run(run_logged(this->device, this->table.dump, filter_args(pairs)),
                   this->walk(filter));
    }
}

TYPED_TEST_P(TableDump, ValuesFromLargeFieldsInTheLineOfAHiddenEntry)
{
    auto entry = this->table.used(2, 0xFFFFFFFE);
    entry.use = static_cast<decltype(entry.use)>(-2);
    this->put(2, entry);
    this->expect_walk({.use = 1});
}

TYPED_TEST_P(TableDump, TableStartFollowsTheSuperBlock)
{
    for (const auto &moved : Layout<typename TypeParam::Super>::displaced(this->super)) {
        this->device.write(SUPER_OFFSET, encode(moved));
        for (const std::uint32_t no : {0U, 2U, 5U}) {
            const auto entry = this->table.used(no, 0);
            const std::int64_t offset = this->table.offset(moved, no);
            SCOPED_TRACE(offset);
            this->device.write(static_cast<std::uint64_t>(offset),
                               this->table.encoded(moved, entry));
            EXPECT_EQ(run_logged(this->device, this->table.dump, {"-n", std::to_string(no)}).out,
                      this->table.json(moved, entry, offset));
        }
    }
}

TYPED_TEST_P(TableDump, EntryNumberMustBeBelowTheCount)
{
    expect_run(
        run_logged(this->device, this->table.dump, {"-n", "6"}),
        {.status = 22,
         .out = "",
         .log = log_head<typename TypeParam::Super>(this->device, this->table.dump, {.meta_no = 6},
                                                    {this->table.no_such_entry(6, 6)})});
}

TYPED_TEST_P(TableDump, EntryBehind4GiB)
{
    constexpr std::uint32_t NO = 0x180000;
    auto changed = this->super;
    changed.*this->table.counter = NO + 1;
    const auto entry = this->table.used(NO, 1);
    const std::int64_t offset = this->table.offset(changed, NO);
    this->device.write(SUPER_OFFSET, encode(changed));
    this->device.write(static_cast<std::uint64_t>(offset), this->table.encoded(changed, entry));
    EXPECT_EQ(run_logged(this->device, this->table.dump, {"-n", std::to_string(NO)}).out,
              this->table.json(changed, entry, offset));
}

// The driver counts entries with a signed number of 32 bits.
TYPED_TEST_P(TableDump, EmptyOrOverlargeTableAborts)
{
    for (const std::uint32_t count : {0U, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(count);
        auto changed = this->super;
        changed.*this->table.counter = count;
        this->device.write(SUPER_OFFSET, encode(changed));
        expect_abort(run_logged(this->device, this->table.dump),
                     "params && meta_type && max_cnt > 0 && format_func");
    }
}

REGISTER_TYPED_TEST_SUITE_P(TableDump, EntriesInUseAndFreeOnes, FaultyEntries,
                            FaultyEntryWithoutALogFileAborts,
                            ChecksumCoversTheRecordAndNothingBehindIt, FiltersAloneAndCombined,
                            ValuesFromLargeFieldsInTheLineOfAHiddenEntry,
                            TableStartFollowsTheSuperBlock, EntryNumberMustBeBelowTheCount,
                            EntryBehind4GiB, EmptyOrOverlargeTableAborts);

} // namespace tier_test
