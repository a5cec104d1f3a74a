// Where the tables that are dumped by blocks lie, and how many blocks they have.

#include "expect.h"
#include "packed_table.h"
#include "probe_log.h"

#include <limits>

using namespace tier_test;

namespace {

template <class T>
class BlockGeometry : public testing::Test {
protected:
    const T &table = block_table<T>();
    SuperV3 super = packed_super(4);
    Device device = make_v3_device(super);

    void set_super(const SuperV3 &changed)
    {
        super = changed;
        device.write(SUPER_OFFSET, encode(changed));
    }

    void set_start(std::uint64_t start)
    {
        SuperV3 changed = super;
        changed.*table.start_at = start;
        set_super(changed);
    }

    // So many shards, extents or bytes.
    void set_count(std::uint64_t count)
    {
        SuperV3 changed = super;
        changed.*table.count_at = count;
        set_super(changed);
    }

    LoggedRun run(const std::vector<std::string> &args = {}) const
    {
        return run_logged(device, table.dump, args);
    }

    // The table has this number of blocks. It is walked only if that is right: the walk of a table
    // that is too large would not end.
    void expect_blocks(std::uint64_t count) const
    {
        const LogLine refusal =
            error_line("zutr_dump_common",
                       text("invalid %s %lu, max cnt:%lu", table.number_key.c_str(), count, count));
        expect_run(run({"-n", std::to_string(count)}),
                   {.status = 22,
                    .out = "",
                    .log = probe_log(device, table.dump, 3, {.meta_no = static_cast<int>(count)},
                                     {refusal})});
        if (this->HasFailure())
            return;

        std::vector<std::string> items;
        for (std::uint64_t no = 0; no < count; ++no)
            items.push_back(new_block_text(table, super, no));
        expect_run(run(),
                   {.status = 0, .out = joined(items), .log = probe_log(device, table.dump, 3)});
        EXPECT_EQ(run({"-n", std::to_string(count - 1)}).out, items.back());
    }

    // A single block is asked for first: a walk that does not abort would not end.
    void expect_abort_of_every_dump(const std::string &condition) const
    {
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{"-n", "0"}, std::vector<std::string>{},
              std::vector<std::string>{"-g", "error=1"}}) {
            expect_abort(run(args), condition);
            if (this->HasFailure())
                return;
        }
    }
};

TYPED_TEST_SUITE(BlockGeometry, BlockTables, BlockTableNames);

TYPED_TEST(BlockGeometry, BlockThatIsNotFullIsLeftOut)
{
    constexpr std::uint64_t UNIT = TypeParam::PER_BLOCK;
    for (const std::uint64_t count :
         {UNIT, UNIT + 1, 2 * UNIT - 1, 2 * UNIT, 4 * UNIT - 1, 4 * UNIT}) {
        SCOPED_TRACE(count);
        this->set_count(count);
        this->expect_blocks(count / UNIT);
    }
}

// The driver counts blocks with a signed number of 32 bits.
TYPED_TEST(BlockGeometry, NumberOfBlocksIsCutTo32Bits)
{
    constexpr std::uint64_t TWO_TO_32 = std::uint64_t{1} << 32;
    this->set_count(TypeParam::PER_BLOCK * (TWO_TO_32 + 1));
    this->expect_blocks(1);
    this->set_count(TypeParam::PER_BLOCK * (5 * TWO_TO_32 + 3) + TypeParam::PER_BLOCK - 1);
    this->expect_blocks(3);
}

TYPED_TEST(BlockGeometry, NoBlocksOrTooManyAbort)
{
    constexpr std::uint64_t TWO_TO_31 = std::uint64_t{1} << 31;
    constexpr std::uint64_t UNIT = TypeParam::PER_BLOCK;
    for (const std::uint64_t count :
         {std::uint64_t{0}, UNIT - 1, UNIT * TWO_TO_31, UNIT * (2 * TWO_TO_31 - 1),
          UNIT * 2 * TWO_TO_31, UNIT * 2 * TWO_TO_31 + UNIT - 1, UNIT * 3 * TWO_TO_31}) {
        SCOPED_TRACE(count);
        this->set_count(count);
        this->expect_abort_of_every_dump("params && meta_type && max_cnt > 0 && format_func");
    }
}

TYPED_TEST(BlockGeometry, StartFollowsTheSuperBlock)
{
    this->set_start(this->super.*this->table.start_at + 4096);
    this->set_count(3 * TypeParam::PER_BLOCK);
    this->expect_blocks(3);
}

TYPED_TEST(BlockGeometry, SizesAndPlacesOfTheOtherAreasDoNotMatter)
{
    SuperV3 changed = this->super;
    changed.shard_table_size = changed.extent_table_size = 1;
    changed.*this->table.end_at = 0;
    this->set_super(changed);
    this->expect_blocks(4);
}

TYPED_TEST(BlockGeometry, StartOffTheBlockBoundaryAborts)
{
    const std::uint64_t start = this->super.*this->table.start_at;
    for (const std::uint64_t by : {1U, 512U, 4095U}) {
        SCOPED_TRACE(by);
        this->set_start(start + by);
        this->expect_abort_of_every_dump("meta_start % SIZE_4K == 0");
    }
}

// Offsets of the device are signed.
TYPED_TEST(BlockGeometry, BlocksBehindAllOffsetsCannotBeRead)
{
    this->set_start(std::uint64_t{1} << 63);
    std::vector<std::string> records;
    for (const int no : {0, 1, 2, 3})
        records.push_back(error_record(5, this->table.number_key.c_str(), no,
                                       std::numeric_limits<std::int64_t>::min() + no * 4096));
    const LoggedRun walk = this->run();
    EXPECT_EQ(walk.status, 0);
    EXPECT_EQ(walk.out, joined(records));
    EXPECT_EQ(this->run({"-n", "0"}).status, 5);
}

// Those past the end of the device. The filter by use does not hide unreadable blocks.
TYPED_TEST(BlockGeometry, BlocksThatCannotBeRead)
{
    const char *key = this->table.number_key.c_str();
    const auto offset = [&](std::uint64_t no) { return this->table.offset(this->super, no); };
    this->device.truncate(static_cast<std::uint64_t>(offset(2)));
    Log log{debug_line("zutr_dump_common",
                       text("read %s failed:-1, offset:%ld, len:%d", key, offset(0), 4 * 4096))};
    std::vector<std::string> records;
    for (const std::uint64_t no : {2U, 3U}) {
        records.push_back(block_record(this->table, this->super, 5, no));
        log.push_back(debug_line("zutr_dump_common",
                                 text("read %s %lu failed:-1, offset:%ld", key, no, offset(0))));
    }
    std::vector<std::string> items = records;
    items.insert(items.begin(), {new_block_text(this->table, this->super, 0),
                                 new_block_text(this->table, this->super, 1)});
    expect_run(this->run(), {.status = 0,
                             .out = joined(items),
                             .log = probe_log(this->device, this->table.dump, 3, {}, log)});
    EXPECT_EQ(this->run({"-g", "use=7,error=1"}).out, joined(records));

    const LogLine failure =
        error_line("zutr_dump_common", text("read %s 2 failed:-1, offset:%ld", key, offset(2)));
    expect_run(this->run({"-n", "2"}),
               {.status = 5,
                .out = "",
                .log = probe_log(this->device, this->table.dump, 3, {.meta_no = 2}, {failure})});
}

} // namespace
