// The place that a repair file gives to its block: where it may lie, and how a run ends when no
// block can be written there.

#include "hot_repair.h"
#include "json_number.h"
#include "loop_device.h"
#include "packed_repair.h"

using namespace tier_test;

namespace {

template <class Fixture>
class RepairOffset : public Fixture {
protected:
    std::string at(const std::string &offset) const
    {
        return this->sample_file().set("meta_offset", offset).text();
    }

    std::uint64_t start() const { return this->super.*this->table.start; }
    std::uint64_t end() const { return this->super.*this->table.end; }

    void set_bounds(std::uint64_t start, std::uint64_t end)
    {
        SuperV3 changed = this->super;
        changed.*this->table.start = start;
        changed.*this->table.end = end;
        this->set_super(changed);
    }

    void expect_written(const std::string &number, std::uint64_t value)
    {
        SCOPED_TRACE(number);
        this->target = static_cast<std::int64_t>(value);
        this->expect_block(at(number), this->sample_block());
    }

    void expect_out_of_bounds(const std::string &number, std::uint64_t value)
    {
        SCOPED_TRACE(number);
        this->expect_refused_with(
            at(number), text("meta_offset: %ld invalid", static_cast<std::int64_t>(value)));
    }
    void expect_out_of_bounds(std::uint64_t value)
    {
        expect_out_of_bounds(std::to_string(value), value);
    }

    // The file is accepted, but the block cannot be written.
    void expect_unwritable(std::uint64_t value)
    {
        SCOPED_TRACE(value);
        const std::string file = at(std::to_string(value));
        this->target = static_cast<std::int64_t>(value);
        const Log parsed = this->lines_of(file);
        const std::vector<std::uint8_t> before = this->device.bytes();
        expect_run(this->repair(file),
                   {.status = 0, .out = "", .log = this->log_with(parsed, {this->dry_run_line()})});
        const LogLine failure = error_line(
            "zutr_repair_common",
            text("write meta on offset %ld failed:-1, cmd:%d, dev:%s, conf:%s", this->target,
                 this->table.repair_code, this->device.path().c_str(), this->conf().c_str()));
        expect_run(this->repair(file, {"-y"}),
                   {.status = 5, .out = "", .log = this->log_with(parsed, {failure})});
        EXPECT_EQ(this->device.bytes(), before);
    }
};

using Repairs = testing::Types<PackedRepair<ShardTable>, PackedRepair<ExtentTable>, HotRepair>;

struct RepairNames {
    template <class Fixture>
    static std::string GetName(int index)
    {
        return BlockTableNames::GetName<typename Fixture::Table>(index);
    }
};

TYPED_TEST_SUITE(RepairOffset, Repairs, RepairNames);

TYPED_TEST(RepairOffset, FromTheTableUpToTheNextArea)
{
    const std::uint64_t table_end = this->start() + 4 * 4096;
    ASSERT_LT(table_end + 4096, this->end()); // there is a gap after the table
    for (const std::uint64_t offset :
         {this->start(), this->start() + 4096, table_end - 4096, table_end, this->end() - 4096})
        this->expect_written(std::to_string(offset), offset);
}

TYPED_TEST(RepairOffset, OutsideIsRefused)
{
    for (const std::uint64_t offset :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{4096}, this->start() - 4096,
          this->start() - 1, this->end(), this->end() + 1, this->end() + 4096,
          std::uint64_t{1} << 63, (std::uint64_t{1} << 63) + this->start(), ~std::uint64_t{0},
          this->start() + (std::uint64_t{1} << 32)})
        this->expect_out_of_bounds(offset);
}

TYPED_TEST(RepairOffset, NumbersOfEveryKind)
{
    const std::string start = std::to_string(this->start());
    const std::string before = std::to_string(this->start() - 1);
    this->expect_written(start + ".999", this->start());
    this->expect_written(start + "0e-1", this->start());
    this->expect_out_of_bounds(before + ".999", this->start() - 1);
    for (const JsonNumber &number : boundary_numbers())
        this->expect_out_of_bounds(number.text, convert(Conversion::UNSIGNED_64, number.value));
}

TYPED_TEST(RepairOffset, TableBehindTheNextAreaTakesNothing)
{
    const std::uint64_t start = this->start();
    for (const std::uint64_t end : {start, start - 4096, std::uint64_t{0}}) {
        this->set_bounds(start, end);
        for (const std::uint64_t offset : {start, start - 4096, start + 4096})
            this->expect_out_of_bounds(offset);
    }
}

TYPED_TEST(RepairOffset, OnlyTheTwoBoundsCount)
{
    SuperV3 changed = this->super;
    changed.*this->table.count = 0;
    changed.shard_table_size = changed.extent_table_size = 0;
    this->set_super(changed);
    this->expect_written(std::to_string(this->start() + 4096), this->start() + 4096);
}

// Direct I/O takes whole sectors only.
TYPED_TEST(RepairOffset, OffTheBlockBoundaryNothingIsWritten)
{
    for (const std::uint64_t offset : {this->start() + 1, this->start() + 4095, this->end() - 1})
        this->expect_unwritable(offset);
}

TYPED_TEST(RepairOffset, OffTheBlockBoundaryNothingIsWrittenToABlockDevice)
{
    const auto loop = LoopDevice::attach(this->device.path());
    if (!loop)
        GTEST_SKIP() << "no loop devices";
    const std::vector<std::uint8_t> before = this->device.bytes();
    const std::uint64_t offset = this->start() + 100;
    this->device.directory().write("conf.json", this->at(std::to_string(offset)));
    const std::vector<std::string> dry{"-p", loop->path(), "-c", this->table.repair,
                                       "-f", this->conf()};
    EXPECT_EQ(run_with_log(this->device.directory(), dry).status, 0);
    std::vector<std::string> commit = dry;
    commit.push_back("-y");
    const LoggedRun run = run_with_log(this->device.directory(), commit);
    EXPECT_EQ(run.status, 5);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.errors,
              (Log{error_line("zutr_repair_common",
                              text("write meta on offset %lu failed:-1, cmd:%d, dev:%s, conf:%s",
                                   offset, this->table.repair_code, loop->path().c_str(),
                                   this->conf().c_str()))}));
    EXPECT_EQ(this->device.bytes(), before);
}

TYPED_TEST(RepairOffset, BehindAllOffsetsOfADevice)
{
    constexpr std::uint64_t TWO_TO_63 = std::uint64_t{1} << 63;
    this->set_bounds(0, ~std::uint64_t{0});
    for (const std::uint64_t offset : {TWO_TO_63, TWO_TO_63 + 4096, ~std::uint64_t{0} - 1}) {
        SCOPED_TRACE(offset);
        this->expect_refused_with(
            this->at(std::to_string(offset)),
            text("entry offset %ld is invalid", static_cast<std::int64_t>(offset)), 14);
    }
    this->expect_out_of_bounds(~std::uint64_t{0});
    this->expect_unwritable(TWO_TO_63 - 4096);
}

TYPED_TEST(RepairOffset, DocumentThatIsNoObject)
{
    const std::vector<LogLine> failure{this->error("parse meta_offset failed")};
    for (const std::string document :
         {"[]", "17", "\"meta_offset\"", "null", "true", "[{\"meta_offset\":0}]"}) {
        SCOPED_TRACE(document);
        this->expect_refused(document, failure);
    }
}

TYPED_TEST(RepairOffset, ForcedVersionAborts)
{
    const std::vector<std::uint8_t> before = this->device.bytes();
    expect_abort(this->repair(this->sample_file().text(), {"-v", "3", "-y"}),
                 this->table.without_super);
    EXPECT_EQ(this->device.bytes(), before);
}

TYPED_TEST(RepairOffset, NothingIsPrintedAnywhere)
{
    const std::string out = this->device.directory().path("out");
    const LoggedRun run = this->repair(this->sample_file().text(), {"-o", out, "-y"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(read_file(out), "");
}

TYPED_TEST(RepairOffset, NumberAndFilterOfTheCommandLinePlayNoPart)
{
    std::vector<std::uint8_t> expected = this->device.bytes();
    put_bytes(expected, static_cast<std::size_t>(this->target), this->sample_block());
    const LoggedRun run = this->repair(this->sample_file().text(),
                                       {"-n", "3", "-g", "use=0,owner=9,error=1", "-F", "-y"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(this->device.bytes(), expected);
}

// A block may be put anywhere between the bounds, over another table as well.
TYPED_TEST(RepairOffset, OverWhateverLiesThere)
{
    this->set_bounds(0, this->super.data_offset);
    this->expect_written("0", 0);
    const auto bricks = this->super.brick_table_offset;
    this->expect_written(std::to_string(bricks), bricks);
}

} // namespace
