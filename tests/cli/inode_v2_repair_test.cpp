// What is particular to repairs of the inode table of layout version 2: which numbers it admits,
// and where expansion inodes go.

#include "table.h"
#include "table_repair.h"

using namespace tier_test;

namespace {

class InodeV2Repair : public TableRepair<InodeTableV2> {
protected:
    void set_expansion_fields(std::uint16_t magic, std::uint8_t area, std::uint8_t in_use)
    {
        SuperV2 changed = super;
        changed.exp_magic = magic;
        changed.exp_area = area;
        changed.exp_inuse = in_use;
        set_super(changed);
    }

    InodeV2 numbered(std::uint32_t no) const
    {
        InodeV2 inode = sample;
        inode.no = no;
        return inode;
    }

    // A dry run: the slot may lie far past the end of the image.
    void expect_admitted(std::uint32_t no)
    {
        SCOPED_TRACE(no);
        const InodeV2 inode = numbered(no);
        expect_run(repair(file_text(inode)), {.status = 0,
                                              .out = json(inode, inode_offset(super, no)),
                                              .log = log_with(key_log(inode), {dry_run_line()})});
    }

    void expect_not_admitted(std::uint32_t no)
    {
        SCOPED_TRACE(no);
        EXPECT_EQ(table.bounds_errors(super, numbered(no)).size(), 2U);
        expect_entry_or_bounds_error(file_text(numbered(no)), numbered(no));
    }
};

TEST_F(InodeV2Repair, MessagesOfAnInodeThatIsNotAdmitted)
{
    set_expansion_fields(0x4558, 7, 0x52);
    Log lines = key_log(numbered(6));
    lines.push_back(error_line("inode_is_valid",
                               "invalid inode no 6 max inode_cnt:6 inode_max: 500000 "
                               "inode_sum:179206 exp_magic: 0x4558 exp_inuse: 0x52"));
    lines.push_back(error("repiar_file i_no 6 input ino: -1 or brick_no 1 is invalid, exp_magic "
                          ":0x4558 exp exp_inuse: 0x52max i_cnt:6, max b_cnt:5"));
    expect_refused(file_text(numbered(6)), lines);
}

TEST_F(InodeV2Repair, MessageNamesTheNumberOfTheCommandLine)
{
    const InodeV2 inode = numbered(6);
    const LoggedRun run = repair(file_text(inode), {"-n", "3", "-y"});
    Log lines = key_log(inode);
    std::ranges::copy(table.bounds_errors(super, inode, 3), std::back_inserter(lines));
    lines.push_back(parse_failure_line(22));
    expect_run(run, {.status = 22,
                     .out = "",
                     .log = log_head<SuperV2>(device, "repair_inode",
                                              {.meta_no = 3, .repair_conf = conf()}, lines)});
}

TEST_F(InodeV2Repair, BrickNumberIsLookedAtFirst)
{
    InodeV2 inode = numbered(6);
    inode.brick_no = super.brick_cnt;
    ASSERT_EQ(table.bounds_errors(super, inode).size(), 1U); // nothing about the inode's number
    expect_entry_or_bounds_error(file_text(inode), inode);
}

TEST_F(InodeV2Repair, TableWithoutAnExpansionArea)
{
    SuperV2 changed = super;
    changed.inode_cnt = 1000;
    set_super(changed);
    expect_admitted(999);
    for (const std::uint32_t no : {1000U, 1001U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU})
        expect_not_admitted(no);
}

TEST_F(InodeV2Repair, ExpansionInodesNeedAFormattedAreaInUse)
{
    constexpr std::uint32_t AREA = 153600;
    for (const std::uint16_t magic :
         std::initializer_list<std::uint16_t>{0, 0x4557, 0x4558, 0x4559, 0x5845}) {
        for (const std::uint8_t in_use :
             std::initializer_list<std::uint8_t>{0, 1, 0x52, 0x53, 0x54, 0xFF}) {
            SCOPED_TRACE(text("magic 0x%x, in use 0x%x", magic, in_use));
            set_expansion_fields(magic, AREA / EXPANSION_UNIT, in_use);
            expect_admitted(0);
            expect_admitted(5);
            for (const std::uint32_t no : {6U, 6U + AREA - 1}) {
                if (magic == 0x4558 && in_use == 0x53)
                    expect_admitted(no);
                else
                    expect_not_admitted(no);
            }
            expect_not_admitted(6 + AREA);
        }
    }
}

TEST_F(InodeV2Repair, AreaOfNoInodesAdmitsNone)
{
    set_expansion_fields(0x4558, 0, 0x53);
    expect_admitted(5);
    expect_not_admitted(6);
}

// Whatever the tables hold.
TEST_F(InodeV2Repair, NoNumberFrom500000OnIsAdmitted)
{
    set_expansion_fields(0x4558, 20, 0x53);
    expect_admitted(499'999);
    expect_not_admitted(500'000);
    expect_not_admitted(512'005);
    expect_not_admitted(512'006);

    SuperV2 changed = super;
    changed.inode_cnt = 600'000;
    for (const std::uint16_t magic : std::initializer_list<std::uint16_t>{0, 0x4558}) {
        changed.exp_magic = magic;
        set_super(changed);
        expect_admitted(499'999);
        expect_not_admitted(500'000);
        expect_not_admitted(599'999);
    }
}

// Small data blocks, and an image that ends after the first slots of the area.
class InodeV2RepairExpansion : public InodeV2Repair {
protected:
    void SetUp() override
    {
        SuperV2 changed = super;
        changed.block_size = 262144;
        set_expansion(changed, 153600, true);
        set_super(changed);
        device.truncate(static_cast<std::uint64_t>(expansion_offset(super, 4)));
    }
};

TEST_F(InodeV2RepairExpansion, IsWrittenBehindTheDataArea)
{
    ASSERT_EQ(inode_offset(super, 6), static_cast<std::int64_t>(super.data_offset) +
                                          std::int64_t{262144} * super.block_cnt + 1048576);
    for (const std::uint32_t no : {6U, 7U, 9U}) {
        expect_entry(file_text(numbered(no)), numbered(no));
        expect_entry(file_text(freed(numbered(no))), freed(numbered(no)));
    }
}

TEST_F(InodeV2RepairExpansion, IsShownWhereItWasWritten)
{
    EXPECT_EQ(run_logged(device, "dump_inode", {"-n", "6"}).status, 14);
    ASSERT_EQ(repair(file_text(numbered(6)), {"-y"}).status, 0);
    EXPECT_EQ(run_logged(device, "dump_inode", {"-n", "6"}).out,
              json(numbered(6), expansion_offset(super, 0)));
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(expansion_offset(super, 0))),
              encode(numbered(6)));
}

TEST_F(InodeV2RepairExpansion, BehindTheEndOfTheDeviceTheSlotIsStillTheRightOne)
{
    const std::uint32_t last = 6 + 153600 - 1;
    ASSERT_EQ(repair(file_text(numbered(last)), {"-y"}).status, 0); // the image grows
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(expansion_offset(super, 153599))),
              encode(numbered(last)));
    EXPECT_EQ(device.size(), static_cast<std::uint64_t>(expansion_offset(super, 153600)));
}

TEST_F(InodeV2RepairExpansion, OffsetBehind4GiB)
{
    SuperV2 changed = super;
    changed.block_size = 4194304;
    changed.block_cnt = 0x100000; // together 4 TiB
    set_super(changed);
    expect_admitted(6);
    expect_admitted(6 + 153599);
}

// A place before the start of the device is refused, whatever the cause.
TEST_F(InodeV2RepairExpansion, OffsetInFrontOfTheDevice)
{
    SuperV2 changed = super;
    const std::uint64_t behind_data = std::uint64_t{changed.block_size} * changed.block_cnt + MIB;
    changed.data_offset = std::uint64_t{0} - behind_data - BLOCK_SIZE;
    set_super(changed);
    Log lines = key_log(numbered(6));
    lines.push_back(error("entry offset -4096 is invalid"));
    expect_refused(file_text(numbered(6)), lines, 14);
    expect_admitted(7); // at the very start
    expect_admitted(5);
}

} // namespace
