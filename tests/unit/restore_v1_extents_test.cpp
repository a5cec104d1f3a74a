// What the extent table of a V1 device says about restoring an inode.

#include "restore_v1.h"

using namespace tier_test;

namespace {

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

TEST_F(RestoreV1Extents, TableIsScannedToItsEnd)
{
    std::vector<Block> extents; // more than are read at a time
    for (std::uint64_t no = 0; no < 300; ++no)
        extents.push_back(free_extent(no));
    expect_written(extents);
    extents[299] = owned(299, A);
    expect_owned(extents, owned_line(299, A), 1);
    extents[256] = Block{};
    expect_unsure(extents, zero_line(256) + owned_line(299, A));
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

} // namespace
