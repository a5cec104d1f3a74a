// Restoring an inode of layout V1, through the handler in the registry.

#include "restore_v1.h"

#include <limits>

using namespace tier_test;

namespace {

TEST_F(RestoreV1, NumberMustNameAnInode)
{
    make_device(damaged_slot(), {free_extent(0)});
    for (const std::int32_t no : {-1, 8, 9, std::numeric_limits<std::int32_t>::min(),
                                  std::numeric_limits<std::int32_t>::max()}) {
        SCOPED_TRACE(no);
        meta_no = no;
        expect_restore(refused(-22, text("invalid inode no %d max inode cnt:8", no)), {}, false);
    }
}

TEST_F(RestoreV1, FirstAndLastInodeCanBeRestored)
{
    make_device(damaged_slot(), {free_extent(0)});
    for (const std::uint32_t no : {0U, 7U}) {
        meta_no = static_cast<std::int32_t>(no);
        device->write(inode_at(no), damaged_slot());
        EXPECT_EQ(restore(), (Call{.out = text("mark inode no:%u unused success\n", no)}));
        EXPECT_EQ(device->block(inode_at(no)), restored(damaged_slot(), no));
    }
}

TEST_F(RestoreV1, HealthyInodeIsLeftAlone)
{
    InodeV1 misplaced = inode_used(NO, 1);
    misplaced.no = 6; // the number has no part in it
    const Call readable =
        refused(0, text("inode:%u is readable. offset: %ld", NO, inode_offset(super, NO)));
    for (const InodeV1 &inode : {inode_used(NO, 1), InodeV1{.no = NO}, misplaced}) {
        // Whatever the extents say: they are not looked at.
        for (const Block &extent : {free_extent(0), Block{}, owned(0, 1)}) {
            make_device(encode(inode), {extent});
            for (const bool forced : {false, true}) {
                force = forced;
                expect_restore(readable, {}, false);
            }
        }
    }
}

TEST_F(RestoreV1, EveryKindOfDamageIsRepaired)
{
    std::vector<Block> slots{damaged_slot(), Block{}};
    for (const std::size_t flipped : {0U, 4U, 8U, 95U}) {
        slots.push_back(encode(inode_used(NO, 1)));
        slots.back()[flipped] ^= 1;
    }
    InodeV1 other_magic = inode_used(NO, 1);
    other_magic.magic ^= 0x100; // with the right checksum
    slots.push_back(encode(other_magic));
    for (std::size_t i = 0; i < slots.size(); ++i) {
        SCOPED_TRACE(i);
        make_device(slots[i], {free_extent(0)});
        expect_restore({.out = success_line()}, slots[i], true);
        // Now it is healthy.
        EXPECT_EQ(restore(), refused(0, text("inode:%u is readable. offset: %ld", NO,
                                             inode_offset(super, NO))));
    }
}

TEST_F(RestoreV1, OnlyIdentityAndChecksumOfTheSlotChange)
{
    make_device(damaged_slot(), {free_extent(0)});
    EXPECT_EQ(restore().result, 0);
    const Block before = damaged_slot();
    const Block after = device->block(inode_at(NO));
    for (std::size_t i = 0; i < BLOCK_SIZE; ++i)
        if (i >= 8 && (i < 68 || i >= 72)) {
            ASSERT_EQ(after[i], before[i]) << i;
        }
    EXPECT_EQ(get_u32(after, 0), record_crc(after, 96));
    EXPECT_EQ(get_u32(after, 4), MAGIC);
    EXPECT_EQ(get_u32(after, 68), NO);
}

TEST_F(RestoreV1, CommitFlagHasNoSay)
{
    for (const std::int32_t commit : {0, 1}) {
        make_device(damaged_slot(), {free_extent(0)});
        EXPECT_EQ(restore(commit), (Call{.out = success_line()}));
        EXPECT_EQ(device->block(inode_at(NO)), restored(damaged_slot()));
    }
}

TEST_F(RestoreV1, InodeThatCannotBeWritten)
{
    make_device(damaged_slot(), {free_extent(0)});
    flags = O_RDONLY | O_DIRECT;
    expect_restore(refused(-5, text("inode no:%u write failed. offset:%ld ret:-1", NO,
                                    inode_offset(super, NO))),
                   {}, false);
}

// Super blocks that are sealed and yet do not fit.
class RestoreV1Geometry : public RestoreV1 {
protected:
    void SetUp() override { make_device(damaged_slot(), {free_extent(0), free_extent(1)}); }
};

TEST_F(RestoreV1Geometry, ExtentSizeMustFitASlot)
{
    for (const std::uint32_t size : {0U, 4U, 55U, 4097U, 0xFFFFFFFFU}) {
        super.extent_size = size;
        expect_restore(refused(-14, text("sb_extent_size %u is invalid, expect:[56-4096]", size)),
                       {}, false);
    }
}

TEST_F(RestoreV1Geometry, ExtentTableMustHoldItsSlots)
{
    for (const std::uint64_t size : {0U, 1U, 4096U, 8191U}) {
        super.extent_table_size = size;
        expect_restore(
            refused(-14, text("sb_extent_table_size %lu is invalid, expect at least:8192", size)),
            {}, false);
    }
    super.extent_table_size = 8192 + 1;
    expect_restore({.out = success_line()}, damaged_slot(), true);
}

// An inode so far into its table that the distance, a signed 32-bit product, is negative.
class RestoreV1FarInode : public RestoreV1Geometry {
protected:
    static constexpr std::uint32_t FAR_NO = 600'000;
    static constexpr std::int64_t DISTANCE = FAR_NO * 4096LL - 0x1'0000'0000;

    void SetUp() override
    {
        RestoreV1Geometry::SetUp();
        meta_no = FAR_NO;
        super.inode_cnt = FAR_NO + 1;
    }

    std::int64_t far_offset() const { return inode_offset(super, 0) + DISTANCE; }
};

TEST_F(RestoreV1FarInode, LiesInFrontOfTheTable)
{
    super.brick_table_size = 0x1'0000'0000;
    super.inode_table_size = MIB;
    const auto offset = static_cast<std::uint64_t>(far_offset());
    device->truncate(static_cast<std::uint64_t>(extent_offset(super, 2)));
    for (std::uint64_t no = 0; no < 2; ++no)
        device->write(static_cast<std::uint64_t>(extent_offset(super, no)), free_extent(no));
    device->write(offset, damaged_slot());
    EXPECT_EQ(restore(), (Call{.out = text("mark inode no:%u unused success\n", FAR_NO)}));
    EXPECT_EQ(device->block(offset), restored(damaged_slot(), FAR_NO));
    EXPECT_EQ(restore(), refused(0, text("inode:%u is readable. offset: %lu", FAR_NO, offset)));
}

TEST_F(RestoreV1FarInode, InFrontOfTheDeviceCannotBeWritten)
{
    ASSERT_LT(far_offset(), 0);
    expect_restore(
        refused(-5, text("inode no:%u write failed. offset:%ld ret:-1", FAR_NO, far_offset())), {},
        false);
}

using RestoreV1DeathTest = RestoreV1Geometry;

TEST_F(RestoreV1DeathTest, ProgrammingErrorsAbort)
{
    alignas(4096) Block sb = encode(super);
    const zutr_cmd_func_t restore_inode = handler(nullptr);
    const OpenDevice open(*device);
    zutr_params_t good = params_on(*device, open);
    good.sb = sb.data();
    zutr_params_t blind = good;
    blind.sb = nullptr;
    zutr_params_t closed = good;
    closed.fd = -1;
    const char *const arguments = "params && params->sb && params->fd >= 0";
    EXPECT_ABORT(restore_inode(nullptr), arguments);
    EXPECT_ABORT(restore_inode(&blind), arguments);
    EXPECT_ABORT(restore_inode(&closed), arguments);
    sb[0] ^= 1;
    EXPECT_ABORT(restore_inode(&good), "!__check_super_v1(params->sb)");
}

} // namespace
