#pragma once

// The rules of restoring an inode that the layouts share, through the handlers in the registry.
// Each layout's test file instantiates them.

#include "in_process.h"
#include "v1_device.h"

#include <optional>

namespace tier_test {

constexpr std::uint32_t MAGIC = 0x494E4F44;

// A slot whose bytes all differ from what a restore writes there.
inline Block damaged_slot()
{
    Block block;
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(0x80 | (i * 13));
    return block;
}

template <class T>
class Restore : public testing::Test {
protected:
    using Super = typename T::Super;
    using Inode = typename T::Inode;
    using Extent = typename T::Extent;

    static constexpr std::uint32_t NO = T::NO; // the inode that most tests restore

    Super super = T::super(0);
    std::optional<Device> device;
    std::int32_t meta_no = NO;
    bool force = false;
    int flags = O_RDWR | O_DIRECT;

    // A device whose inode NO is `slot` and whose extent table holds `extents`.
    void make_device(const Block &slot, const std::vector<Block> &extents)
    {
        super.block_cnt = static_cast<std::uint32_t>(extents.size());
        set_geometry(super);
        device.emplace(T::device(super));
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
        EXPECT_EQ(zutr_get_selector(T::VERSION)(ZUTR_CMD_RESTORE_INODE, sb, &handler), 0);
        return handler;
    }

    std::uint64_t inode_at(std::uint32_t no) const
    {
        return static_cast<std::uint64_t>(inode_offset(super, no));
    }

    // The slot as a restore leaves it: identity and checksum are new.
    static Block restored(Block slot, std::uint32_t no = NO)
    {
        put_u32(slot, 4, MAGIC);
        put_u32(slot, 68, no);
        seal(slot, Inode::LENGTH);
        return slot;
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

    // The result and log of a restore: first the line about the inode's number.
    Call gives(std::int64_t result, const std::string &out, const Log &lines = {}) const
    {
        Call call{.result = result,
                  .out = out,
                  .log = T::number_lines(super, static_cast<std::uint32_t>(meta_no))};
        call.log.insert(call.log.end(), lines.begin(), lines.end());
        return call;
    }
    Call refused(std::int64_t result, const std::string &message) const
    {
        return gives(result, "", {error_line(T::FUNC, message)});
    }
    Call readable() const
    {
        return refused(0, text("inode:%u is readable. offset: %ld", NO, inode_offset(super, NO)));
    }

    // The extents of the tests, for slot `no` of the table.
    Block free_extent(std::uint64_t no) const
    {
        Extent extent;
        extent.no = no;
        return T::encode_extent(extent, super);
    }
    Block owned(std::uint64_t no, std::uint32_t identity, std::uint32_t inode = NO) const
    {
        Extent extent = T::extent(no, inode);
        extent.sampling_low = identity;
        return T::encode_extent(extent, super);
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

TYPED_TEST_SUITE_P(Restore);

TYPED_TEST_P(Restore, HealthyInodeIsLeftAlone)
{
    const auto used = TypeParam::inode(this->NO, 1);
    auto misplaced = used;
    misplaced.no = 6; // the number has no part in it
    typename TypeParam::Inode unused;
    unused.no = this->NO;
    for (const auto &inode : {used, unused, misplaced}) {
        // Whatever the extents hold: they are not read.
        for (const Block &extent : {this->free_extent(0), Block{}, this->owned(0, 1)}) {
            this->make_device(encode(inode), {extent});
            for (const bool forced : {false, true}) {
                this->force = forced;
                this->expect_restore(this->readable(), {}, false);
            }
        }
    }
}

TYPED_TEST_P(Restore, EveryKindOfDamageIsRepaired)
{
    std::vector<Block> slots{damaged_slot(), Block{}};
    for (const std::size_t flipped : {0U, 4U, 8U, 95U}) {
        slots.push_back(encode(TypeParam::inode(this->NO, 1)));
        slots.back()[flipped] ^= 1;
    }
    auto other_magic = TypeParam::inode(this->NO, 1);
    other_magic.magic ^= 0x100; // with the right checksum
    slots.push_back(encode(other_magic));
    for (std::size_t i = 0; i < slots.size(); ++i) {
        SCOPED_TRACE(i);
        this->make_device(slots[i], {this->free_extent(0)});
        this->expect_restore(this->gives(0, this->success_line()), slots[i], true);
        // Now it is healthy.
        EXPECT_EQ(this->restore(), this->readable());
    }
}

TYPED_TEST_P(Restore, OnlyIdentityAndChecksumOfTheSlotChange)
{
    this->make_device(damaged_slot(), {this->free_extent(0)});
    EXPECT_EQ(this->restore().result, 0);
    const Block before = damaged_slot();
    const Block after = this->device->block(this->inode_at(this->NO));
    for (std::size_t i = 0; i < BLOCK_SIZE; ++i)
        if (i >= 8 && (i < 68 || i >= 72)) {
            ASSERT_EQ(after[i], before[i]) << i;
        }
    EXPECT_EQ(get_u32(after, 0), record_crc(after, 96));
    EXPECT_EQ(get_u32(after, 4), MAGIC);
    EXPECT_EQ(get_u32(after, 68), this->NO);
}

TYPED_TEST_P(Restore, CommitFlagHasNoSay)
{
    for (const std::int32_t commit : {0, 1}) {
        this->make_device(damaged_slot(), {this->free_extent(0)});
        EXPECT_EQ(this->restore(commit), this->gives(0, this->success_line()));
        EXPECT_EQ(this->device->block(this->inode_at(this->NO)), this->restored(damaged_slot()));
    }
}

TYPED_TEST_P(Restore, InodeThatCannotBeWritten)
{
    this->make_device(damaged_slot(), {this->free_extent(0)});
    this->flags = O_RDONLY | O_DIRECT;
    this->expect_restore(this->refused(-5, TypeParam::write_failure(this->super, this->NO)), {},
                         false);
}

// The lines about the extents, in the order of the slots, then the decision.
template <class T>
class RestoreExtents : public Restore<T> {
protected:
    static constexpr std::uint32_t A = 0x11223344;
    static constexpr std::uint32_t B = 0x0000000B;

    void SetUp() override
    {
        // The lines below need the table's place, which the number of its slots does not move.
        this->super = T::super(5);
    }

    void expect_decision(const std::vector<Block> &extents, const std::string &out,
                         std::int64_t result, bool written)
    {
        this->make_device(damaged_slot(), extents);
        this->expect_restore(this->gives(result, out), damaged_slot(), written);
    }

    void expect_written(const std::vector<Block> &extents, const std::string &out = "")
    {
        expect_decision(extents, out + this->success_line(), 0, true);
    }

    void expect_owned(const std::vector<Block> &extents, const std::string &out, int count)
    {
        expect_decision(extents, out + this->count_line(count), 0, false);
    }

    void expect_unsure(const std::vector<Block> &extents, const std::string &out)
    {
        expect_decision(extents, out + this->unsure_line(), -5, false);
    }
};

TYPED_TEST_SUITE_P(RestoreExtents);

TYPED_TEST_P(RestoreExtents, FreeOnesAndThoseOfOtherInodesArePassedOver)
{
    auto once_owned = TypeParam::extent(1, this->NO);
    once_owned.use = 0;
    this->expect_written({this->free_extent(0), TypeParam::encode_extent(once_owned, this->super),
                          this->owned(2, this->A, this->NO - 1),
                          this->owned(3, this->A, this->NO + 1), this->free_extent(4)});
}

TYPED_TEST_P(RestoreExtents, RunsOfOneIdentityAreToldOnce)
{
    this->expect_owned({this->owned(0, this->A)}, this->owned_line(0, this->A), 1);
    this->expect_owned({this->owned(0, this->A), this->owned(1, this->A), this->owned(2, this->B)},
                       this->owned_line(0, this->A) + this->owned_line(2, this->B), 3);
    this->expect_owned({this->owned(0, this->A), this->owned(1, this->B), this->owned(2, this->A)},
                       this->owned_line(0, this->A) + this->owned_line(1, this->B) +
                           this->owned_line(2, this->A),
                       3);
    // Extents between that are not the inode's do not end a run.
    this->expect_owned({this->free_extent(0), this->owned(1, this->A),
                        this->owned(2, this->B, this->NO + 1), this->free_extent(3),
                        this->owned(4, this->A)},
                       this->owned_line(1, this->A), 2);
}

TYPED_TEST_P(RestoreExtents, IdentityZeroIsToldToo)
{
    this->expect_owned(
        {this->owned(0, 0), this->owned(1, 0), this->owned(2, this->A), this->owned(3, 0)},
        this->owned_line(0, 0) + this->owned_line(2, this->A) + this->owned_line(3, 0), 4);
}

TYPED_TEST_P(RestoreExtents, AnyUseOwnsAndTheExtentsNumberDoesNotMatter)
{
    auto odd = TypeParam::extent(77, this->NO);
    odd.use = 0x8000;
    odd.sampling_low = this->A;
    this->expect_owned({TypeParam::encode_extent(odd, this->super)}, this->owned_line(0, this->A),
                       1);
}

TYPED_TEST_P(RestoreExtents, ForceDoesNotOverrideOwnership)
{
    this->force = true;
    this->expect_owned({this->owned(0, this->A), this->free_extent(1)},
                       this->owned_line(0, this->A), 1);
}

TYPED_TEST_P(RestoreExtents, ZeroFilledSlotBlocksTheRestore)
{
    this->expect_unsure({Block{}}, this->zero_line(0));
    this->expect_unsure({this->free_extent(0), Block{}, this->free_extent(2), Block{}},
                        this->zero_line(1) + this->zero_line(3));
}

TYPED_TEST_P(RestoreExtents, WrongChecksumBlocksTheRestore)
{
    this->expect_unsure({this->free_extent(0), this->bad_extent(1)},
                        this->bad_line(1, this->bad_extent(1)));
    // One byte after the record is enough for a slot not to be zero.
    Block almost_zero{};
    almost_zero[4095] = 1;
    this->expect_unsure({almost_zero}, this->bad_line(0, almost_zero));
}

TYPED_TEST_P(RestoreExtents, ChecksumCoversTheRecordOnly)
{
    Block tail = this->free_extent(0);
    tail[this->super.extent_size] = 0xFF;
    this->expect_written({tail});
    tail[this->super.extent_size - 1] ^= 1;
    this->expect_unsure({tail}, this->bad_line(0, tail));
    for (const std::uint32_t size : {56U, 60U, 4096U}) {
        SCOPED_TRACE(size);
        this->super.extent_size = size;
        this->expect_written({this->free_extent(0), this->free_extent(1)});
    }
}

TYPED_TEST_P(RestoreExtents, DoubtBlocksEvenWhereOwnersAreFound)
{
    this->expect_unsure({this->owned(0, this->A), Block{}, this->owned(2, this->A),
                         this->bad_extent(3), this->owned(4, this->B)},
                        this->owned_line(0, this->A) + this->zero_line(1) +
                            this->bad_line(3, this->bad_extent(3)) + this->owned_line(4, this->B));
}

TYPED_TEST_P(RestoreExtents, ForceIgnoresDamagedSlots)
{
    this->force = true;
    const std::string lines = this->zero_line(0) + this->bad_line(1, this->bad_extent(1));
    this->expect_written({Block{}, this->bad_extent(1)}, lines);
    this->expect_written(
        {Block{}, this->bad_extent(1), this->free_extent(2), this->owned(3, this->A, this->NO + 1)},
        lines);
    this->expect_owned(
        {Block{}, this->bad_extent(1), this->owned(2, this->A), Block{}, this->owned(4, this->A)},
        lines + this->owned_line(2, this->A) + this->zero_line(3), 2);
}

TYPED_TEST_P(RestoreExtents, TableIsScannedToItsEnd)
{
    std::vector<Block> extents; // more than are read at a time
    for (std::uint64_t no = 0; no < 300; ++no)
        extents.push_back(this->free_extent(no));
    this->expect_written(extents);
    extents[299] = this->owned(299, this->A);
    this->expect_owned(extents, this->owned_line(299, this->A), 1);
    extents[256] = Block{};
    this->expect_unsure(extents, this->zero_line(256) + this->owned_line(299, this->A));
}

TYPED_TEST_P(RestoreExtents, TableWithoutSlotsCannotBeRead)
{
    this->make_device(damaged_slot(), {});
    for (const bool forced : {false, true}) {
        this->force = forced;
        this->expect_restore(
            this->refused(-5, text("inode:%u read extent failed. offset: %ld ret: -1", this->NO,
                                   TypeParam::told_read_offset(this->super, this->NO))),
            {}, false);
    }
}

// Super blocks that are sealed and yet do not fit.
template <class T>
class RestoreGeometry : public Restore<T> {
protected:
    void SetUp() override
    {
        this->make_device(damaged_slot(), {this->free_extent(0), this->free_extent(1)});
    }
};

TYPED_TEST_SUITE_P(RestoreGeometry);

TYPED_TEST_P(RestoreGeometry, ExtentTableMustHoldItsSlots)
{
    for (const std::uint64_t size : {0U, 1U, 4096U, 8191U}) {
        this->super.extent_table_size = size;
        this->expect_restore(
            this->refused(-14,
                          text("sb_extent_table_size %lu is invalid, expect at least:8192", size)),
            {}, false);
    }
    this->super.extent_table_size = 8192 + 1;
    this->expect_restore(this->gives(0, this->success_line()), damaged_slot(), true);
}

template <class T>
class RestoreDeathTest : public RestoreGeometry<T> {
};

TYPED_TEST_SUITE_P(RestoreDeathTest);

TYPED_TEST_P(RestoreDeathTest, ProgrammingErrorsAbort)
{
    alignas(4096) Block sb = encode(this->super);
    const zutr_cmd_func_t restore_inode = this->handler(nullptr);
    const OpenDevice open(*this->device);
    zutr_params_t good = params_on(*this->device, open);
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
    EXPECT_ABORT(restore_inode(&good), TypeParam::SUPER_CHECK);
}

REGISTER_TYPED_TEST_SUITE_P(Restore, HealthyInodeIsLeftAlone, EveryKindOfDamageIsRepaired,
                            OnlyIdentityAndChecksumOfTheSlotChange, CommitFlagHasNoSay,
                            InodeThatCannotBeWritten);
REGISTER_TYPED_TEST_SUITE_P(RestoreExtents, FreeOnesAndThoseOfOtherInodesArePassedOver,
                            RunsOfOneIdentityAreToldOnce, IdentityZeroIsToldToo,
                            AnyUseOwnsAndTheExtentsNumberDoesNotMatter,
                            ForceDoesNotOverrideOwnership, ZeroFilledSlotBlocksTheRestore,
                            WrongChecksumBlocksTheRestore, ChecksumCoversTheRecordOnly,
                            DoubtBlocksEvenWhereOwnersAreFound, ForceIgnoresDamagedSlots,
                            TableIsScannedToItsEnd, TableWithoutSlotsCannotBeRead);
REGISTER_TYPED_TEST_SUITE_P(RestoreGeometry, ExtentTableMustHoldItsSlots);
REGISTER_TYPED_TEST_SUITE_P(RestoreDeathTest, ProgrammingErrorsAbort);

// The suites of one layout.
#define INSTANTIATE_RESTORE(layout, traits)                                                        \
    INSTANTIATE_TYPED_TEST_SUITE_P(layout, Restore, traits);                                       \
    INSTANTIATE_TYPED_TEST_SUITE_P(layout, RestoreExtents, traits);                                \
    INSTANTIATE_TYPED_TEST_SUITE_P(layout, RestoreGeometry, traits);                               \
    INSTANTIATE_TYPED_TEST_SUITE_P(layout, RestoreDeathTest, traits)

} // namespace tier_test
