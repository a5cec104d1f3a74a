// Restoring an inode of layout V1, through the handler in the registry.

#include "in_process.h"
#include "v1_device.h"

#include <limits>
#include <optional>

using namespace tier_test;

namespace {

constexpr const char *FUNC = "zutr_restore_inode_v1";
constexpr std::uint32_t NO = 5; // the inode that most tests restore
constexpr std::uint32_t MAGIC = 0x494E4F44;

// A slot whose bytes all differ from what a restore writes there.
Block damaged_slot()
{
    Block block;
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(0x80 | (i * 13));
    return block;
}

// The slot as a restore leaves it: identity and checksum are new.
Block restored(Block slot, std::uint32_t no = NO)
{
    put_u32(slot, 4, MAGIC);
    put_u32(slot, 68, no);
    seal(slot, InodeV1::LENGTH);
    return slot;
}

class RestoreV1 : public testing::Test {
protected:
    SuperV1 super = super_v1(2, 8, 0);
    std::optional<Device> device;
    std::int32_t meta_no = NO;
    bool force = false;
    int flags = O_RDWR | O_DIRECT;

    // A device whose inode NO is `slot` and whose extent table holds `extents`.
    void make_device(const Block &slot, const std::vector<Block> &extents)
    {
        super.block_cnt = static_cast<std::uint32_t>(extents.size());
        set_geometry(super);
        device.emplace(make_v1_device(super));
        device->write(inode_at(NO), slot);
        for (std::size_t i = 0; i < extents.size(); ++i)
            device->write(static_cast<std::uint64_t>(extent_offset(super, i)), extents[i]);
    }

    Call restore(std::int32_t commit = 0) const
    {
        alignas(4096) Block sb = encode(super);
        const OpenDevice open(*device, flags);
        zutr_params_t params = params_on(*device, open);
        params.sb = sb.data();
        params.meta_no = meta_no;
        params.force = force ? 1 : 0;
        params.commit = commit;
        return captured([&] { return handler(sb.data())(&params); });
    }

    static zutr_cmd_func_t handler(const void *sb)
    {
        zutr_cmd_func_t handler = nullptr;
        EXPECT_EQ(zutr_get_selector(ZUTR_VER_CODE_V1)(ZUTR_CMD_RESTORE_INODE, sb, &handler), 0);
        return handler;
    }

    std::uint64_t inode_at(std::uint64_t no) const
    {
        return static_cast<std::uint64_t>(inode_offset(super, no));
    }

    // Restores and compares everything, the device included: `slot` changes only when `written`.
    void expect_restore(const Call &expected, const Block &slot, bool written)
    {
        std::vector<std::uint8_t> bytes = device->bytes();
        if (written)
            put_bytes(bytes, inode_at(NO), restored(slot));
        EXPECT_EQ(restore(), expected);
        EXPECT_EQ(device->bytes(), bytes);
    }

    Call refused(std::int64_t result, const std::string &message) const
    {
        return {.result = result, .log = {error_line(FUNC, message)}};
    }

    // The extents of the tests, for slot `no` of the table.
    Block free_extent(std::uint64_t no) const
    {
        return encode(ExtentV1{.no = no}, super.extent_size);
    }
    Block owned(std::uint64_t no, std::uint32_t identity, std::uint32_t inode = NO) const
    {
        ExtentV1 extent = extent_used(no, inode);
        extent.sampling_low = identity;
        return encode(extent, super.extent_size);
    }
    Block bad_extent(std::uint64_t no) const
    {
        Block block = owned(no, 1);
        block[0] ^= 0x40;
        return block;
    }

    // The decision lines.
    std::string zero_line(std::uint64_t no) const
    {
        return text("inode no:%u zero filled extent:%lu offset:%ld\n", NO, no,
                    extent_offset(super, no));
    }
    std::string bad_line(std::uint64_t no, const Block &block) const
    {
        return text("inode no:%u bad crc32 extent:%lu chksum:0x%x != 0x%x\n", NO, no,
                    get_u32(block, 0), record_crc(block, super.extent_size));
    }
    std::string owned_line(std::uint64_t no, std::uint32_t identity) const
    {
        return text("inode no:%u uuid:%x extent no:%lu offset:%ld\n", NO, identity, no,
                    extent_offset(super, no));
    }
    static std::string unsure_line() { return text("inode no:%u can't make sure used\n", NO); }
    static std::string count_line(int count)
    {
        return text("inode no:%u extent count: %d can't make sure uuid\n", NO, count);
    }
    static std::string success_line() { return text("mark inode no:%u unused success\n", NO); }
};

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

// What the extents say: lines in the order of the slots, then the decision.
class RestoreV1Extents : public RestoreV1 {
protected:
    static constexpr std::uint32_t A = 0x11223344;
    static constexpr std::uint32_t B = 0x0000000B;

    void SetUp() override
    {
        super.block_cnt = 5; // the lines below need the table's place, which this does not move
        set_geometry(super);
    }

    void expect_decision(const std::vector<Block> &extents, const std::string &out,
                         std::int64_t result, bool written)
    {
        make_device(damaged_slot(), extents);
        expect_restore({.result = result, .out = out}, damaged_slot(), written);
    }

    void expect_written(const std::vector<Block> &extents, const std::string &out = "")
    {
        expect_decision(extents, out + success_line(), 0, true);
    }

    void expect_owned(const std::vector<Block> &extents, const std::string &out, int count)
    {
        expect_decision(extents, out + count_line(count), 0, false);
    }

    void expect_unsure(const std::vector<Block> &extents, const std::string &out)
    {
        expect_decision(extents, out + unsure_line(), -5, false);
    }
};

TEST_F(RestoreV1Extents, FreeOnesAndThoseOfOtherInodesArePassedOver)
{
    ExtentV1 once_owned = extent_used(1, NO);
    once_owned.use = 0;
    expect_written({free_extent(0), encode(once_owned, super.extent_size), owned(2, A, NO - 1),
                    owned(3, A, NO + 1), free_extent(4)});
}

TEST_F(RestoreV1Extents, RunsOfOneIdentityAreToldOnce)
{
    expect_owned({owned(0, A)}, owned_line(0, A), 1);
    expect_owned({owned(0, A), owned(1, A), owned(2, B)}, owned_line(0, A) + owned_line(2, B), 3);
    expect_owned({owned(0, A), owned(1, B), owned(2, A)},
                 owned_line(0, A) + owned_line(1, B) + owned_line(2, A), 3);
    // Extents between that are not the inode's do not end a run.
    expect_owned({free_extent(0), owned(1, A), owned(2, B, NO + 1), free_extent(3), owned(4, A)},
                 owned_line(1, A), 2);
}

TEST_F(RestoreV1Extents, IdentityZeroIsToldToo)
{
    expect_owned({owned(0, 0), owned(1, 0), owned(2, A), owned(3, 0)},
                 owned_line(0, 0) + owned_line(2, A) + owned_line(3, 0), 4);
}

TEST_F(RestoreV1Extents, AnyUseOwnsAndTheExtentsNumberDoesNotMatter)
{
    ExtentV1 odd = extent_used(77, NO);
    odd.use = 0x8000;
    odd.sampling_low = A;
    expect_owned({encode(odd, super.extent_size)}, owned_line(0, A), 1);
}

TEST_F(RestoreV1Extents, ForceDoesNotOverrideOwnership)
{
    force = true;
    expect_owned({owned(0, A), free_extent(1)}, owned_line(0, A), 1);
}

TEST_F(RestoreV1Extents, ZeroFilledSlotBlocksTheRestore)
{
    expect_unsure({Block{}}, zero_line(0));
    expect_unsure({free_extent(0), Block{}, free_extent(2), Block{}}, zero_line(1) + zero_line(3));
}

TEST_F(RestoreV1Extents, WrongChecksumBlocksTheRestore)
{
    expect_unsure({free_extent(0), bad_extent(1)}, bad_line(1, bad_extent(1)));
    // One byte behind the record is enough for a slot not to be zero.
    Block almost_zero{};
    almost_zero[4095] = 1;
    expect_unsure({almost_zero}, bad_line(0, almost_zero));
}

TEST_F(RestoreV1Extents, ChecksumCoversTheRecordOnly)
{
    Block tail = free_extent(0);
    tail[super.extent_size] = 0xFF;
    expect_written({tail});
    tail[super.extent_size - 1] ^= 1;
    expect_unsure({tail}, bad_line(0, tail));
    for (const std::uint32_t size : {56U, 60U, 4096U}) {
        SCOPED_TRACE(size);
        super.extent_size = size;
        expect_written({free_extent(0), free_extent(1)});
    }
}

TEST_F(RestoreV1Extents, DoubtBlocksEvenWhereOwnersAreFound)
{
    expect_unsure({owned(0, A), Block{}, owned(2, A), bad_extent(3), owned(4, B)},
                  owned_line(0, A) + zero_line(1) + bad_line(3, bad_extent(3)) + owned_line(4, B));
}

TEST_F(RestoreV1Extents, ForceIgnoresDamagedSlots)
{
    force = true;
    const std::string lines = zero_line(0) + bad_line(1, bad_extent(1));
    expect_written({Block{}, bad_extent(1)}, lines);
    expect_written({Block{}, bad_extent(1), free_extent(2), owned(3, A, NO + 1)}, lines);
    expect_owned({Block{}, bad_extent(1), owned(2, A), Block{}, owned(4, A)},
                 lines + owned_line(2, A) + zero_line(3), 2);
}

TEST_F(RestoreV1Extents, TableWithoutSlotsCannotBeRead)
{
    make_device(damaged_slot(), {});
    for (const bool forced : {false, true}) {
        force = forced;
        expect_restore(refused(-5, text("inode:%u read extent failed. offset: %ld ret: -1", NO,
                                        inode_offset(super, NO))),
                       {}, false);
    }
}

TEST_F(RestoreV1Extents, UnreadableTableCountsAsZeroFilled)
{
    make_device(damaged_slot(), {free_extent(0), free_extent(1), free_extent(2)});
    device->truncate(static_cast<std::uint64_t>(extent_offset(super, 0)));
    Call expected{.result = -5,
                  .out = zero_line(0) + zero_line(1) + zero_line(2) + unsure_line(),
                  .log =
                      Log(3, error_line("zutr_repair_readn", text("read failed. offset:%ld ret: -1",
                                                                  extent_offset(super, 0))))};
    expect_restore(expected, {}, false);
    force = true;
    expected.result = 0;
    expected.out = zero_line(0) + zero_line(1) + zero_line(2) + success_line();
    expect_restore(expected, damaged_slot(), true);
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
