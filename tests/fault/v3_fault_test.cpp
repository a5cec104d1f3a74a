// Tables of layout version 3 on devices that cannot be read or written everywhere, and short of
// memory.

#include "faulty_run.h"
#include "large_table.h"
#include "probe_log.h"

using namespace tier_test;

namespace {

constexpr const char *DUMP_DRIVER = "zutr_dump_common";

template <class T>
class BlockFaults : public testing::Test {
protected:
    const T &table = block_table<T>();
    const SuperV3 super = packed_super(4);
    const Device device = make_v3_device(super);

    std::int64_t offset(std::uint64_t no) const { return table.offset(super, no); }
    std::string item(std::uint64_t no) const { return new_block_text(table, super, no); }
    std::string record(int error, std::uint64_t no) const
    {
        return block_record(table, super, error, no);
    }

    FaultyRun dump(const std::string &faults, const std::vector<std::string> &args = {}) const
    {
        return run_faulty(device, table.dump, faults, args);
    }

    Log log(const Log &lines, const Settings &settings = {}) const
    {
        return probe_log(device, table.dump, 3, settings, lines);
    }
};

TYPED_TEST_SUITE(BlockFaults, BlockTables, BlockTableNames);

TYPED_TEST(BlockFaults, TableIsReadWithOneCall)
{
    const FaultyRun run = this->dump("pread=pass;pwrite=pass");
    EXPECT_EQ(run.out, joined({this->item(0), this->item(1), this->item(2), this->item(3)}));
    EXPECT_EQ(run.taken, (std::vector{traced("pread", 4096, 4096, "pass"),
                                      traced("pread", 4 * 4096, this->offset(0), "pass")}));
}

TYPED_TEST(BlockFaults, UnreadableBlockBecomesAnErrorRecord)
{
    const char *key = this->table.number_key.c_str();
    const std::string fault = text("pread@%ld+1=EIO", this->offset(2));
    expect_run(
        this->dump(fault),
        {.status = 0,
         .out = joined({this->item(0), this->item(1), this->record(5, 2), this->item(3)}),
         .log = this->log({debug_line(DUMP_DRIVER, text("read %s failed:-1, offset:%ld, len:16384",
                                                        key, this->offset(0))),
                           debug_line(DUMP_DRIVER, text("read %s 2 failed:-1, offset:%ld", key,
                                                        this->offset(0)))})});
    EXPECT_EQ(this->dump(fault, {"-g", "error=1"}).out, joined({this->record(5, 2)}));
    EXPECT_EQ(this->dump(fault, {"-g", "error=0"}).out,
              joined({this->item(0), this->item(1), this->item(3)}));
    expect_run(this->dump(fault, {"-n", "2"}),
               {.status = 5,
                .out = "",
                .log = this->log({error_line(DUMP_DRIVER, text("read %s 2 failed:-1, offset:%ld",
                                                               key, this->offset(2)))},
                                 {.meta_no = 2})});
}

TYPED_TEST(BlockFaults, NoMemoryForTheBuffer)
{
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{}, std::vector<std::string>{"-n", "3"}}) {
        const int no = args.empty() ? -1 : 3;
        expect_run(
            this->dump("posix_memalign(1048576)=ENOMEM", args),
            {.status = 12,
             .out = "",
             .log = this->log({error_line(DUMP_DRIVER, text("posix memalign failed:12, %s:%d",
                                                            this->table.number_key.c_str(), no))},
                              {.meta_no = no})});
    }
}

std::string empty_entries(const HotTable &) { return ""; }
template <class Packed, class Entry>
std::string empty_entries(const PackedTable<Packed, Entry> &table)
{
    return ",\"" + table.items->name + "\":[]";
}

// A repair reads nothing but the super block, and writes one block or nothing.
TYPED_TEST(BlockFaults, Repairs)
{
    const std::string document =
        text("{\"meta_offset\":%ld%s}", this->offset(1), empty_entries(this->table).c_str());
    const std::string conf = this->device.directory().write("conf", document);
    const std::string super_read = traced("pread", 4096, 4096, "pass");
    const auto repair = [&](const std::string &faults) {
        return run_faulty(this->device, this->table.repair, faults, {"-f", conf, "-y"});
    };
    const FaultyRun good = repair("pread=pass;pwrite=pass");
    EXPECT_EQ(good.status, 0) << good;
    EXPECT_EQ(good.taken,
              (std::vector{super_read, traced("pwrite", 4096, this->offset(1), "pass")}));

    const std::vector<std::uint8_t> before = this->device.bytes();
    const auto failure = [&](const std::string &what) {
        return Log{
            error_line("zutr_repair_common",
                       text("%s, cmd:%d, dev:%s, conf:%s", what.c_str(), this->table.repair_code,
                            this->device.path().c_str(), conf.c_str()))};
    };
    const FaultyRun unwritten = repair("pread=pass;pwrite=EIO");
    EXPECT_EQ(unwritten.status, 5);
    EXPECT_EQ(unwritten.out, "");
    EXPECT_EQ(unwritten.errors,
              failure(text("write meta on offset %ld failed:-1", this->offset(1))));
    EXPECT_EQ(unwritten.taken,
              (std::vector{super_read, traced("pwrite", 4096, this->offset(1), "EIO")}));

    const FaultyRun without_memory = repair("posix_memalign(4096)#2=ENOMEM;pwrite=pass");
    EXPECT_EQ(without_memory.status, 12);
    EXPECT_EQ(without_memory.errors,
              (Log{error_line("zutr_repair_common", "posix memalign failed:12")}));
    EXPECT_EQ(without_memory.taken, (std::vector<std::string>{"posix_memalign(4096)=ENOMEM"}));
    EXPECT_EQ(this->device.bytes(), before);
}

// Each block of extents is copied to find its checksum: the second allocation of that size and all
// after it.
class ExtentCopyFaults : public BlockFaults<ExtentTable> {
protected:
    // What is said of a block whose copy was refused.
    Log refused(std::uint64_t no) const
    {
        const std::uint32_t crc = crc32(Block{}); // a block without any extent in use
        return {error_line("get_extent_crc", "failed to alloc extent_4K"),
                error_line("__dump_extent_v3",
                           text("extent no: %lu, crc_ondisk: 0xffffffff crc: 0x%x", no, crc))};
    }
};

TEST_F(ExtentCopyFaults, OneBlockOfAWalk)
{
    for (std::uint64_t no = 0; no < 4; ++no) {
        std::vector<std::string> items{item(0), item(1), item(2), item(3)};
        items[no] = record(14, no);
        const FaultyRun run = dump(text("posix_memalign(4096)#%lu=ENOMEM", no + 2));
        expect_run(run, {.status = 0, .out = joined(items), .log = log(refused(no))});
        EXPECT_EQ(run.taken.size(), 1U);
    }
}

TEST_F(ExtentCopyFaults, EveryBlockOfAWalk)
{
    Log lines;
    std::vector<std::string> records;
    for (std::uint64_t no = 0; no < 4; ++no) {
        records.push_back(record(14, no));
        std::ranges::copy(refused(no), std::back_inserter(lines));
    }
    const FaultyRun run = dump("posix_memalign(4096)#2-=ENOMEM");
    expect_run(run, {.status = 0, .out = joined(records), .log = log(lines)});
    EXPECT_EQ(run.taken.size(), 4U); // one allocation a block
    EXPECT_EQ(dump("posix_memalign(4096)#2-=ENOMEM", {"-g", "error=0"}).out, "[]");
}

TEST_F(ExtentCopyFaults, SingleBlock)
{
    expect_run(dump("posix_memalign(4096)#2=ENOMEM", {"-n", "3"}),
               {.status = 14, .out = "", .log = log(refused(3), {.meta_no = 3})});
}

template <class T>
class LargeTableFaults : public LargeTable<T> {
};

TYPED_TEST_SUITE(LargeTableFaults, PackedTables, BlockTableNames);

// Runs of one to four blocks that cannot be read, the first and the last block among them.
TYPED_TEST(LargeTableFaults, UnreadableBlocksAmongDamagedOnes)
{
    constexpr std::uint64_t RUNS = 12;
    const std::uint64_t distance = this->count / RUNS;
    const auto unreadable = [&](std::uint64_t no) {
        return no % distance <= no / distance % 4 || no == this->count - 1;
    };
    std::string faults = text("pread@%ld+4096=EIO", this->offset(this->count - 1));
    for (std::uint64_t run = 0; run * distance < this->count; ++run) {
        const std::uint64_t length = std::min(run % 4 + 1, this->count - run * distance);
        faults += text(";pread@%ld+%lu=EIO", this->offset(run * distance), length * BLOCK_SIZE);
    }
    for (const int error_filter : {-1, 0, 1})
        this->expect_walked(
            run_faulty(this->device, this->table.dump, faults, this->arguments(error_filter)),
            error_filter, unreadable);
}

} // namespace
