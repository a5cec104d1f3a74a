// Inode tables of layout version 2 of which one region cannot be read, or finds no memory.

#include "dump_text.h"
#include "expect.h"
#include "faulty_run.h"
#include "probe_log.h"
#include "v2_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class InodeV2Faults : public testing::Test {
protected:
    static constexpr std::uint32_t REGULAR = 3;
    static constexpr std::uint32_t COUNT = EXPANSION_UNIT;

    const SuperV2 super = expanded();
    const Device device = make_v2_device(super, {}, {}, {}, Expansion::FORMATTED);
    const std::int64_t table = inode_offset(super, 0U);
    const std::int64_t area = expansion_offset(super, 0);

    static SuperV2 expanded()
    {
        SuperV2 sb = super_v2(1, REGULAR, 1);
        sb.block_size = 262144;
        set_expansion(sb, COUNT, true);
        return sb;
    }

    std::string items(std::uint32_t first, std::uint32_t count, std::uint32_t unreadable) const
    {
        std::vector<std::string> all;
        for (std::uint32_t no = first; no < first + count; ++no) {
            const std::int64_t offset = inode_offset(super, no);
            all.push_back(no == unreadable ? error_record(5, "no", no, offset)
                                           : json(inode_v2(no), offset));
        }
        return joined(all);
    }

    // What a walk prints when this inode cannot be read.
    std::string walk_without(std::uint32_t unreadable) const
    {
        return "{ \"inode\":" + items(0, REGULAR, unreadable) +
               ", \"exp_inode\":" + items(REGULAR, COUNT, unreadable) + "}";
    }

    Log log(const Log &lines, const Settings &settings = {}) const
    {
        return probe_log(device, "dump_inode", 2, settings, lines);
    }

    // The chunk in which the inode lies begins at `chunk`.
    void expect_walk_without(std::uint32_t no, std::int64_t chunk, std::uint64_t length) const
    {
        const std::int64_t offset = inode_offset(super, no);
        const FaultyRun run = run_faulty(device, "dump_inode", text("pread@%ld+4096=EIO", offset));
        expect_run(
            run, {.status = 0,
                  .out = walk_without(no),
                  .log = log({debug_line(DUMP_DRIVER, text("read no failed:-1, offset:%ld, len:%lu",
                                                           chunk, length)),
                              debug_line(DUMP_DRIVER,
                                         text("read no %u failed:-1, offset:%ld", no, chunk))})});
        EXPECT_EQ(run.taken, (std::vector{traced("pread", length, chunk, "EIO"),
                                          traced("pread", 4096, offset, "EIO")}));
    }

    void expect_single_unreadable(std::uint32_t no) const
    {
        const std::int64_t offset = inode_offset(super, no);
        const FaultyRun run = run_faulty(device, "dump_inode", text("pread@%ld+4096=EIO", offset),
                                         {"-n", std::to_string(no)});
        const LogLine failure =
            error_line(DUMP_DRIVER, text("read no %u failed:-1, offset:%ld", no, offset));
        expect_run(
            run,
            {.status = 5, .out = "", .log = log({failure}, {.meta_no = static_cast<int>(no)})});
        EXPECT_EQ(run.taken, (std::vector{traced("pread", 4096, offset, "EIO")}));
    }

    // The buffer of the n-th region's walk is refused.
    void expect_without_memory(int region, const std::string &out) const
    {
        const FaultyRun run =
            run_faulty(device, "dump_inode", text("posix_memalign(1048576)#%d=ENOMEM", region));
        expect_run(run, {.status = 12,
                         .out = out,
                         .log = log({error_line(DUMP_DRIVER, "posix memalign failed:12, no:-1")})});
        EXPECT_EQ(run.taken.size(), 1U);
    }
};

TEST_F(InodeV2Faults, UnreadableInodeOfTheRegularTable)
{
    expect_walk_without(1, table, REGULAR * BLOCK_SIZE);
}

TEST_F(InodeV2Faults, UnreadableInodeOfTheExpansionArea)
{
    expect_walk_without(REGULAR, area, MIB);
    expect_walk_without(REGULAR + 300, area + static_cast<std::int64_t>(MIB), MIB);
    expect_walk_without(REGULAR + COUNT - 1, area + static_cast<std::int64_t>(99 * MIB), MIB);
}

TEST_F(InodeV2Faults, SingleInodesOfBothRegions)
{
    for (const std::uint32_t no : {0U, REGULAR - 1, REGULAR, REGULAR + COUNT - 1})
        expect_single_unreadable(no);
}

TEST_F(InodeV2Faults, NoMemoryForTheRegularTableLeavesTheAreaOut)
{
    expect_without_memory(1, "{ \"inode\":}");
}

TEST_F(InodeV2Faults, NoMemoryForTheArea)
{
    expect_without_memory(2, "{ \"inode\":" + items(0, REGULAR, ~0U) + ", \"exp_inode\":}");
}

// The first and the last slot of an area that a repair of the super block sets up.
class ExpansionCheckFaults : public testing::Test {
protected:
    static constexpr std::uint32_t COUNT = 6 * EXPANSION_UNIT;
    static constexpr const char *CHECK = "__check_exp_inode";

    SuperV2 super = expanded();
    Device device = make_v2_device(
        super, {}, {inode_v2(super.inode_cnt), inode_v2(super.inode_cnt + COUNT - 1)});
    const std::int64_t first = expansion_offset(super, 0);
    const std::int64_t last = expansion_offset(super, COUNT - 1);
    const std::string conf = device.directory().path("conf.json");

    static SuperV2 expanded()
    {
        SuperV2 sb = super_v2(1, 2, 1);
        sb.block_size = 262144;
        set_expansion(sb, COUNT, true);
        return sb;
    }

    FaultyRun repair(const std::string &faults) const
    {
        // The printed line is a repair file.
        device.directory().write("conf.json", json(super));
        return run_faulty(device, "repair_super", faults, {"-f", conf, "-y"});
    }

    // The repair fails in the check with this line, and writes nothing.
    void expect_failure(const std::string &faults, const std::string &message,
                        const std::vector<std::string> &taken) const
    {
        SCOPED_TRACE(faults);
        const Block before = device.block(SUPER_OFFSET);
        const FaultyRun run = repair(faults);
        EXPECT_EQ(run.status, 22) << run;
        EXPECT_EQ(run.out, "");
        const Log expected{
            error_line(CHECK, message),
            error_line("__repair_super_exp_inode",
                       text("exp check inode format failed, exp_inode_size: %u cmd: 9", COUNT)),
            error_line("parse_sb_from_json_v2", "repair super exp inode failed, cmd: 9"),
            error_line("zutr_repair_common",
                       text("parse meta info failed:-22, cmd:9, dev:%s, conf:%s",
                            device.path().c_str(), conf.c_str()))};
        EXPECT_EQ(run.errors, expected);
        EXPECT_EQ(run.taken, taken);
        EXPECT_EQ(device.block(SUPER_OFFSET), before);
    }

    std::string read_failure(std::int64_t offset, std::uint32_t slot) const
    {
        return text("check exp inode first failed, exp_off: %ld, ino: %u ret: -1", offset,
                    super.inode_cnt + slot);
    }
};

TEST_F(ExpansionCheckFaults, ReadsTheFirstAndTheLastSlotOnly)
{
    const FaultyRun run =
        repair(text("pread@%ld+%ld=pass;pwrite=pass", first, last + 4096 - first));
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, json(super));
    EXPECT_EQ(run.taken, (std::vector{traced("pread", 4096, first, "pass"),
                                      traced("pread", 4096, last, "pass"),
                                      traced("pwrite", 4096, SUPER_OFFSET, "pass")}));
}

TEST_F(ExpansionCheckFaults, UnreadableSlot)
{
    for (const std::string effect : {"EIO", "short:0"}) {
        expect_failure(text("pread@%ld+4096=%s;pwrite=pass", first, effect.c_str()),
                       read_failure(first, 0), {traced("pread", 4096, first, effect)});
        expect_failure(text("pread@%ld+4096=%s;pwrite=pass", last, effect.c_str()),
                       read_failure(last, COUNT - 1), {traced("pread", 4096, last, effect)});
    }
}

// After the buffers of the super block and of the repair.
TEST_F(ExpansionCheckFaults, MemoryIsRefused)
{
    for (const int slot : {1, 2})
        expect_failure(text("posix_memalign(4096)#%d=ENOMEM;pwrite=pass", 2 + slot),
                       "posix memalign failed: 12", {"posix_memalign(4096)=ENOMEM"});
}

} // namespace
