// A device of layout version 1 whose every entry is repaired from its own content stays as it is.

#include "rebuild.h"

using namespace tier_test;

namespace {

class V1Rebuild : public Rebuild<SuperV1> {
protected:
    std::vector<BrickV1> bricks;
    std::vector<InodeV1> inodes;
    std::vector<ExtentV1> extents;

    void SetUp() override
    {
        super.extent_size = std::get<0>(GetParam());
        for (std::uint32_t no = 0; no < 3; ++no) // a free brick would get another UUID
            bricks.push_back(table<SuperV1, BrickV1>().repairable(no, 0));
        for (std::uint32_t no = 0; no < 5; ++no)
            inodes.push_back(no == 3 ? InodeV1{.no = no}
                                     : table<SuperV1, InodeV1>().repairable(no, no % 3));
        for (std::uint32_t no = 0; no < 6; ++no)
            extents.push_back(no == 0 ? ExtentV1{.no = no} : extent(no));
        start(make_v1_device(super, bricks, inodes, extents));
    }

    // One with all its words set.
    ExtentV1 extent(std::uint32_t no) const
    {
        ExtentV1 used = extent_used(no, no % 5);
        used.bitmap.clear();
        for (std::uint64_t i = 0; i < (super.extent_size - 56) / 8; ++i)
            used.bitmap.push_back(0xFEDC'BA98'7654'3210U - i * 0x0101'0101'0101'0101U - no);
        return used;
    }

    void expect_dumps()
    {
        EXPECT_EQ(run("dump_super").out, json(super));
        expect_table(bricks);
        expect_table(inodes);
        expect_table(extents);
    }

    void repair_everything()
    {
        expect_repair("repair_super", json(super), json(super), {"-v", "1"});
        repair_table(bricks, bricks);
        repair_table(inodes, inodes);
        repair_table(extents, extents);
    }
};

TEST_P(V1Rebuild, RepairsInPlaceChangeNothing)
{
    const std::vector<std::uint8_t> original = device->bytes();
    expect_dumps();
    repair_everything();
    EXPECT_EQ(device->bytes(), original);
    expect_dumps();
}

TEST_P(V1Rebuild, DestroyedEntriesComeBack)
{
    const std::vector<std::uint8_t> original = device->bytes();
    destroy();
    EXPECT_NE(device->bytes(), original);
    repair_everything();
    EXPECT_EQ(device->bytes(), original);
    expect_dumps();
}

INSTANTIATE_TEST_SUITE_P(ExtentSizes, V1Rebuild, rebuilds_of({56, 60, 64, 72, 568, 4096}),
                         rebuild_name);

} // namespace
