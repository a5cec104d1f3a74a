// Restoring an inode of layout V1: the numbers and the offsets of its table.

#include "restore_rules.h"

#include <limits>

using namespace tier_test;

namespace {

struct InRestoreV1 {
    using Super = SuperV1;
    using Inode = InodeV1;
    using Extent = ExtentV1;

    static constexpr std::int32_t VERSION = ZUTR_VER_CODE_V1;
    static constexpr const char *FUNC = "zutr_restore_inode_v1";
    static constexpr const char *SUPER_CHECK = "!__check_super_v1(params->sb)";
    static constexpr std::uint32_t NO = 5;

    static SuperV1 super(std::uint32_t blocks) { return super_v1(2, 8, blocks); }
    static Device device(const SuperV1 &sb) { return make_v1_device(sb); }
    static InodeV1 inode(std::uint32_t no, std::uint32_t brick) { return inode_used(no, brick); }
    static ExtentV1 extent(std::uint64_t no, std::uint32_t inode) { return extent_used(no, inode); }
    static Block encode_extent(const ExtentV1 &extent, const SuperV1 &sb)
    {
        return encode(extent, sb.extent_size);
    }

    static Log number_lines(const SuperV1 &, std::uint32_t) { return {}; }
    static std::string write_failure(const SuperV1 &sb, std::uint32_t no)
    {
        return text("inode no:%u write failed. offset:%ld ret:-1", no, inode_offset(sb, no));
    }
    static std::int64_t told_read_offset(const SuperV1 &sb, std::uint32_t no)
    {
        return inode_offset(sb, no);
    }
};

} // namespace

namespace tier_test {

INSTANTIATE_RESTORE(V1, InRestoreV1);

} // namespace tier_test

namespace {

using RestoreV1 = Restore<InRestoreV1>;
using RestoreV1Extents = RestoreExtents<InRestoreV1>;
using RestoreV1Geometry = RestoreGeometry<InRestoreV1>;

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
        EXPECT_EQ(restore(), gives(0, text("mark inode no:%u unused success\n", no)));
        EXPECT_EQ(device->block(inode_at(no)), restored(damaged_slot(), no));
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

TEST_F(RestoreV1Geometry, ExtentSizeMustFitASlot)
{
    for (const std::uint32_t size : {0U, 4U, 55U, 4097U, 0xFFFFFFFFU}) {
        super.extent_size = size;
        expect_restore(refused(-14, text("sb_extent_size %u is invalid, expect:[56-4096]", size)),
                       {}, false);
    }
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
    EXPECT_EQ(restore(), gives(0, text("mark inode no:%u unused success\n", FAR_NO)));
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

} // namespace
