// Places and counts of the brick and inode tables of V3 that only a sealed super block can give.

#include "table.h"
#include "table_dump.h"
#include "table_repair.h"

using namespace tier_test;

namespace {

constexpr std::uint64_t BIT_31 = std::uint64_t{1} << 31;

using TablesV3 = testing::Types<BrickTableV3, InodeTableV3>;

struct KindNames {
    template <class AnyTable>
    static std::string GetName(int)
    {
        return std::is_same_v<AnyTable, BrickTableV3> ? "Brick" : "Inode";
    }
};

template <class T>
constexpr std::uint64_t SuperV3::*TABLE_OFFSET =
    std::is_same_v<T, BrickTableV3> ? &SuperV3::brick_table_offset : &SuperV3::inode_table_offset;

template <class T>
class TableDumpV3 : public TableDump<T> {
protected:
    void set_super(const SuperV3 &changed)
    {
        this->super = changed;
        this->device.write(SUPER_OFFSET, encode(changed));
    }
    void set_count(std::uint64_t count)
    {
        SuperV3 changed = this->super;
        changed.*this->table.counter = count;
        set_super(changed);
    }
    void set_start(std::uint64_t offset)
    {
        SuperV3 changed = this->super;
        changed.*TABLE_OFFSET<T> = offset;
        set_super(changed);
    }

    Log log_of(const Settings &settings, const Log &rest) const
    {
        return log_head<SuperV3>(this->device, this->table.dump, settings, rest);
    }
};

TYPED_TEST_SUITE(TableDumpV3, TablesV3, KindNames);

TYPED_TEST(TableDumpV3, CountIsCutTo32Bits)
{
    const auto used = this->table.used(0, 1);
    this->put(0, used);
    this->slots.resize(1);
    for (const std::uint64_t count : {BIT_32 + 1, BIT_63 + 1}) {
        SCOPED_TRACE(count);
        this->set_count(count);
        this->expect_walk();
        this->expect_single(0);
        expect_run(run_logged(this->device, this->table.dump, {"-n", "1"}),
                   {.status = 22,
                    .out = "",
                    .log = this->log_of({.meta_no = 1}, {this->table.no_such_entry(1, 1)})});
    }
}

TYPED_TEST(TableDumpV3, CountThatIsNotPositiveIn32BitsAborts)
{
    for (const std::uint64_t count : {std::uint64_t{0}, BIT_31, BIT_32 - 1, BIT_32, BIT_63,
                                      BIT_32 + BIT_31, ~std::uint64_t{0}}) {
        this->set_count(count);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-n", "0"}}) {
            SCOPED_TRACE(count);
            const LoggedRun run = run_logged(this->device, this->table.dump, args);
            expect_abort(run, "params && meta_type && max_cnt > 0 && format_func");
            EXPECT_EQ(run.out, "");
        }
    }
}

TYPED_TEST(TableDumpV3, StartOffTheBlockAborts)
{
    for (const std::uint64_t offset :
         {std::uint64_t{1}, std::uint64_t{512}, std::uint64_t{4095}, BIT_63 + 2048}) {
        this->set_start(offset);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-n", "0"},
              std::vector<std::string>{"-n", "6"}}) {
            SCOPED_TRACE(offset);
            expect_abort(run_logged(this->device, this->table.dump, args),
                         "meta_start % SIZE_4K == 0");
        }
    }
}

// A count that is not positive is found first.
TYPED_TEST(TableDumpV3, NumberOfEntriesIsLookedAtBeforeTheStart)
{
    this->set_start(1);
    this->set_count(0);
    expect_abort(run_logged(this->device, this->table.dump),
                 "params && meta_type && max_cnt > 0 && format_func");
}

TYPED_TEST(TableDumpV3, StartThatIsNegativeAsASignedOffsetCannotBeRead)
{
    this->set_start(BIT_63 + 4096);
    const auto start = static_cast<std::int64_t>(BIT_63 + 4096);
    const std::string &key = this->table.number_key;

    Log log{debug_line("zutr_dump_common",
                       text("read %s failed:-1, offset:%ld, len:24576", key.c_str(), start))};
    std::vector<std::string> items;
    for (std::uint32_t no = 0; no < 6; ++no) {
        // The line names the chunk's offset.
        log.push_back(debug_line("zutr_dump_common",
                                 text("read %s %u failed:-1, offset:%ld", key.c_str(), no, start)));
        items.push_back(text("{\"error\":5, \"%s\":%u, \"meta_offset\":%ld}", key.c_str(), no,
                             start + std::int64_t{no} * 4096));
    }
    expect_run(run_logged(this->device, this->table.dump),
               {.status = 0, .out = joined(items), .log = this->log_of({}, log)});

    const LogLine failure =
        error_line("zutr_dump_common", text("read %s 2 failed:-1, offset:%ld", key.c_str(),
                                            start + std::int64_t{2} * 4096));
    expect_run(run_logged(this->device, this->table.dump, {"-n", "2"}),
               {.status = 5, .out = "", .log = this->log_of({.meta_no = 2}, {failure})});
}

TYPED_TEST(TableDumpV3, WholeTableAtAnotherPlace)
{
    this->set_start(this->super.data_offset + 10 * BLOCK_SIZE);
    for (std::uint32_t no = 0; no < 6; ++no)
        this->put(no, no % 2 == 0 ? this->table.used(no, no)
                                  : free_entry<typename TypeParam::Entry>(no));
    this->expect_walk();
    this->expect_single(5);
}

template <class T>
class TableRepairV3 : public TableRepair<T> {
protected:
    SuperV3 changed = this->super;

    // The entry lies so far past the end of the device that it is not written.
    void expect_dry_run(const typename T::Entry &entry)
    {
        this->set_super(changed);
        const std::vector<std::uint8_t> before = this->device.bytes();
        const LoggedRun run = this->repair(this->file_text(entry));
        expect_run(run, {.status = 0,
                         .out = this->repaired(entry, run.out).json,
                         .log = this->log_with(this->key_log(entry), {this->dry_run_line()})});
        EXPECT_EQ(this->device.bytes(), before);
    }

    void expect_no_such_offset(const typename T::Entry &entry)
    {
        this->set_super(changed);
        Log lines = this->key_log(entry);
        lines.push_back(this->error(
            text("entry offset %ld is invalid", this->table.offset(this->super, entry.no))));
        this->expect_refused(this->file_text(entry), lines, 14);
    }
};

TYPED_TEST_SUITE(TableRepairV3, TablesV3, KindNames);

TYPED_TEST(TableRepairV3, NumberIsComparedWithAllBitsOfTheCount)
{
    for (const std::uint64_t count : {BIT_32, BIT_32 + 1, BIT_63, ~std::uint64_t{0} - BIT_32}) {
        SCOPED_TRACE(count);
        this->changed.*this->table.counter = count;
        this->expect_dry_run(this->sample);
        auto entry = this->sample;
        entry.no = 0x7FFFFFFF;
        this->expect_dry_run(entry);
    }
}

TYPED_TEST(TableRepairV3, EntryOffTheBlockIsShownAtItsOffset)
{
    this->changed.*TABLE_OFFSET<TypeParam> = 0x101001;
    this->expect_dry_run(this->sample);
}

TYPED_TEST(TableRepairV3, LargestOffsetIsShown)
{
    this->changed.*TABLE_OFFSET<TypeParam> = BIT_63 - 3 * BLOCK_SIZE;
    this->expect_dry_run(this->sample); // number 2
}

TYPED_TEST(TableRepairV3, NegativeOffsetIsRefused)
{
    for (const std::uint64_t offset :
         {BIT_63 - 2 * BLOCK_SIZE, BIT_63, ~std::uint64_t{0} - 2 * BLOCK_SIZE}) {
        SCOPED_TRACE(offset);
        this->changed.*TABLE_OFFSET<TypeParam> = offset;
        this->expect_no_such_offset(this->sample);
    }
}

// The sum of start and number is formed in 64 bits.
TYPED_TEST(TableRepairV3, OffsetThatWrapsIsShown)
{
    this->changed.*TABLE_OFFSET<TypeParam> = ~std::uint64_t{0} - 2 * BLOCK_SIZE + 1;
    this->expect_dry_run(this->sample);
}

TYPED_TEST(TableRepairV3, NumberIsCheckedBeforeTheOffset)
{
    this->changed.*TABLE_OFFSET<TypeParam> = BIT_63;
    this->set_super(this->changed);
    auto entry = this->sample;
    entry.no = this->count();
    this->expect_entry_or_bounds_error(this->file_text(entry), entry);
}

} // namespace
