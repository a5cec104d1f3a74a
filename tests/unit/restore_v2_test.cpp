// Restoring an inode of layout V2: only those whose number the super block does not admit, each in
// the place that the number has all the same.

#include "restore_rules.h"
#include "v2_device.h"

using namespace tier_test;

namespace {

struct InRestoreV2 {
    using Super = SuperV2;
    using Inode = InodeV2;
    using Extent = ExtentV2;

    static constexpr std::int32_t VERSION = ZUTR_VER_CODE_V2;
    static constexpr const char *FUNC = "zutr_restore_inode_v2";
    static constexpr const char *SUPER_CHECK = "!__check_super_v2(params->sb)";
    static constexpr std::uint32_t NO = 12; // slot 4 after the data area

    static SuperV2 super(std::uint32_t blocks)
    {
        SuperV2 sb = super_v2(2, 8, blocks);
        sb.block_size = 262144;
        return sb;
    }
    static Device device(const SuperV2 &sb)
    {
        // The sizes of its extents do not matter: the tests write their own.
        Device made = make_v2_device(super(sb.block_cnt));
        made.truncate(static_cast<std::uint64_t>(expansion_offset(sb, 8)));
        return made;
    }
    static InodeV2 inode(std::uint32_t no, std::uint32_t brick) { return inode_v2_used(no, brick); }
    static ExtentV2 extent(std::uint64_t no, std::uint32_t inode)
    {
        return extent_v2_used(no, inode);
    }
    // Sealed the way the restore looks at it: without its pieces.
    static Block encode_extent(const ExtentV2 &extent, const SuperV2 &sb)
    {
        Block block = encode_head(extent, sb.extent_size);
        seal(block, sb.extent_size);
        return block;
    }

    static Log number_lines(const SuperV2 &sb, std::uint32_t no)
    {
        return {error_line("inode_is_valid",
                           text("invalid inode no %d max inode_cnt:%u inode_max: 500000 "
                                "inode_sum:%u exp_magic: 0x%x exp_inuse: 0x%x",
                                static_cast<int>(no), sb.inode_cnt,
                                sb.inode_cnt + expansion_count(sb), sb.exp_magic, sb.exp_inuse))};
    }
    static std::string write_failure(const SuperV2 &, std::uint32_t no)
    {
        return text("inode no:%d write failed. ret:-1", static_cast<int>(no));
    }
    static std::int64_t told_read_offset(const SuperV2 &sb, std::uint32_t)
    {
        return extent_offset(sb, 0);
    }
};

} // namespace

namespace tier_test {

INSTANTIATE_RESTORE(V2, InRestoreV2);

} // namespace tier_test

namespace {

class RestoreV2 : public RestoreExtents<InRestoreV2> {
protected:
    void SetUp() override { make_device(damaged_slot(), {free_extent(0), free_extent(1)}); }

    std::string success_of(std::uint32_t no) const
    {
        return text("mark inode no:%d unused success\n", static_cast<int>(no));
    }

    // Inode `no` lies at `offset`, and is restored there.
    void expect_restored_at(std::uint32_t no, std::int64_t offset)
    {
        SCOPED_TRACE(no);
        meta_no = static_cast<std::int32_t>(no);
        const auto at = static_cast<std::uint64_t>(offset);
        device->write(at, damaged_slot());
        EXPECT_EQ(restore(), gives(0, success_of(no)));
        EXPECT_EQ(device->block(at), restored(damaged_slot(), no));
        EXPECT_EQ(restore(), refused(0, text("inode:%d is readable. offset: %ld",
                                             static_cast<int>(no), offset)));
    }

    // A number that the super block admits: nothing is printed or changed.
    void expect_not_restored(std::uint32_t no)
    {
        SCOPED_TRACE(no);
        meta_no = static_cast<std::int32_t>(no);
        const Block before = device->block(inode_at(NO));
        EXPECT_EQ(restore(), (Call{.result = -22}));
        EXPECT_EQ(device->block(inode_at(NO)), before);
    }
};

TEST_F(RestoreV2, RegularInodesAreNeverRestored)
{
    const std::vector<std::uint8_t> bytes = device->bytes();
    for (const bool forced : {false, true}) {
        force = forced;
        expect_not_restored(0);
        expect_not_restored(7);
    }
    EXPECT_EQ(device->bytes(), bytes);
    expect_restored_at(8, expansion_offset(super, 0));
}

TEST_F(RestoreV2, InodesOfAnAreaInUseAreNeverRestored)
{
    set_expansion(super, 25600, true);
    expect_not_restored(8);
    expect_not_restored(8 + 25599);
    expect_restored_at(8 + 25600, expansion_offset(super, 25600));
    super.exp_inuse = 0;
    expect_restored_at(8, expansion_offset(super, 0));
    super.exp_inuse = 0x53;
    super.exp_magic = 0x4559;
    expect_restored_at(8, expansion_offset(super, 0));
}

// Whatever the tables hold.
TEST_F(RestoreV2, NumbersFrom500000OnAreRestored)
{
    set_expansion(super, 20 * EXPANSION_UNIT, true);
    expect_not_restored(499'999);
    expect_restored_at(500'000, expansion_offset(super, 500'000 - 8));
}

// The distance of a number within the table's count is a signed 32-bit product.
TEST_F(RestoreV2, InodeInFrontOfItsTable)
{
    constexpr std::uint32_t FAR_NO = 600'000;
    super.inode_cnt = FAR_NO + 1;
    super.brick_table_size = 0x1'0000'0000;
    super.inode_table_size = MIB;
    device->truncate(static_cast<std::uint64_t>(extent_offset(super, 2)));
    for (std::uint64_t no = 0; no < 2; ++no)
        device->write(static_cast<std::uint64_t>(extent_offset(super, no)), free_extent(no));
    expect_restored_at(FAR_NO, inode_offset(super, 0) + FAR_NO * 4096LL - 0x1'0000'0000);
}

TEST_F(RestoreV2, NegativeNumberLiesFarBehindTheArea)
{
    meta_no = -1;
    flags = O_RDONLY | O_DIRECT; // the slot is some 16 TiB away
    EXPECT_EQ(restore(), refused(-5, "inode no:-1 write failed. ret:-1"));
}

// Written extents carry a checksum of more bytes than the restore looks at.
TEST_F(RestoreV2, WrittenExtentsCountAsBad)
{
    const Block written = encode(extent_v2_used(0, 3), super);
    const Block unused = encode(extent_v2(1), super);
    const std::vector<Block> extents{written, unused, Block{}};
    const std::string lines = bad_line(0, written) + bad_line(1, unused) + zero_line(2);
    expect_unsure(extents, lines);
    force = true;
    expect_written(extents, lines);
}

TEST_F(RestoreV2, ExtentsThatWereNeverWritten)
{
    expect_unsure({Block{}, Block{}, Block{}}, zero_line(0) + zero_line(1) + zero_line(2));
    force = true;
    expect_written({Block{}, Block{}, Block{}}, zero_line(0) + zero_line(1) + zero_line(2));
}

TEST_F(RestoreV2, TheOtherSizesOfAnExtentHaveNoSay)
{
    super.total_extent_size = 0xFFFFFFFF;
    super.map_cnt = 0xFFFFFFFF;
    super.hot_size = 0;
    expect_written({free_extent(0), free_extent(1)});
}

TEST_F(RestoreV2, ExtentSizeMustFitASlot)
{
    for (const std::uint32_t size : {0U, 3U, 4097U, 0xFFFFFFFFU}) {
        super.extent_size = size;
        expect_restore(refused(-14, text("sb_extent_size %u is invalid, expect:[4-4096]", size)),
                       {}, false);
    }
}

} // namespace
