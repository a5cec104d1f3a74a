// A device of layout version 2 whose every entry is repaired from its own content: what comes back,
// and what no repair file carries.

#include "rebuild.h"
#include "table.h"

using namespace tier_test;

namespace {

// Everything in use but an inode and an extent, every field different from zero.
struct Content {
    std::vector<BrickV2> bricks;
    std::vector<InodeV2> inodes;
    std::vector<InodeV2> expansion;
    std::vector<ExtentV2> extents;
};

class V2Rebuild : public Rebuild<SuperV2> {
protected:
    Content original;
    Content expected; // as the repairs leave it

    void SetUp() override
    {
        super.extent_size = std::get<0>(GetParam());
        super.block_size = 262144;
        set_maps(super, std::min(64U, (4096 - 64 - super.extent_size) / 16));
        set_expansion(super, 6 * EXPANSION_UNIT, true);
        for (std::uint32_t no = 0; no < 3; ++no) // a free brick would get another UUID
            original.bricks.push_back(brick_used(no));
        for (std::uint32_t no = 0; no < 5; ++no)
            original.inodes.push_back(no == 3 ? inode_v2(no) : inode_v2_used(no, no % 3));
        for (const std::uint32_t no : {5U, 6U, 7U})
            original.expansion.push_back(no == 6 ? inode_v2(no) : inode_v2_used(no, no % 3));
        for (std::uint32_t no = 0; no < 6; ++no)
            original.extents.push_back(no == 0 ? extent_v2(no) : extent(no));
        expected = without_what_is_lost(original);
        start(image(original));
    }

    // The fields that a repair cannot carry over.
    static Content without_what_is_lost(Content content)
    {
        for (BrickV2 &brick : content.bricks)
            brick.reserved = 0;
        for (ExtentV2 &each : content.extents)
            each = repairable(each);
        return content;
    }

    // One with a piece in every place but one, owned by inodes of both regions.
    ExtentV2 extent(std::uint32_t no) const
    {
        ExtentV2 used = extent_v2_used(no, no + 2);
        used.maps.clear();
        for (std::uint32_t mapno = 0; mapno < super.map_cnt; ++mapno)
            if (mapno != no)
                used.maps[mapno] = {0xFEDC'BA98'7654'3210U - mapno, mapno % 2, 262144 - mapno,
                                    static_cast<std::uint16_t>(mapno), 0xFFFF};
        return used;
    }

    // It ends after the first slots of the expansion area.
    Device image(const Content &content) const
    {
        std::vector<InodeV2> inodes = content.inodes;
        inodes.insert(inodes.end(), content.expansion.begin(), content.expansion.end());
        Device made = make_v2_device(super, content.bricks, inodes, content.extents);
        made.truncate(static_cast<std::uint64_t>(expansion_offset(super, 4)));
        return made;
    }

    void repair_everything()
    {
        SuperV2 shrunk = super; // without the area: only its first slots are on the device
        shrunk.exp_magic = 0;
        shrunk.exp_area = 0;
        shrunk.exp_inuse = 0;
        expect_repair("repair_super", json(shrunk), json(shrunk), {"-v", "2"});
        device->write(SUPER_OFFSET, encode(super));
        repair_table(original.bricks, expected.bricks);
        repair_table(original.inodes, expected.inodes);
        repair_table(original.expansion, expected.expansion);
        repair_table(original.extents, expected.extents);
    }

    void expect_dumps(const Content &content)
    {
        EXPECT_EQ(run("dump_super").out, json(super));
        expect_table(content.bricks);
        expect_table(content.extents);
        for (const std::vector<InodeV2> &inodes : {content.inodes, content.expansion})
            for (const InodeV2 &inode : inodes)
                EXPECT_EQ(run("dump_inode", {"-n", std::to_string(inode.no)}).out, item(inode));
    }
};

TEST_P(V2Rebuild, RepairsInPlaceLoseOnlyWhatNoRepairCarries)
{
    expect_dumps(original);
    repair_everything();
    EXPECT_EQ(device->bytes(), image(expected).bytes());
    expect_dumps(expected);
}

TEST_P(V2Rebuild, DestroyedEntriesComeBack)
{
    destroy();
    const std::vector<std::uint8_t> noise(3 * BLOCK_SIZE, 0xEE);
    device->write(static_cast<std::uint64_t>(expansion_offset(super, 0)), noise);
    repair_everything();
    EXPECT_EQ(device->bytes(), image(expected).bytes());
    expect_dumps(expected);
}

TEST_P(V2Rebuild, RepairsOfWhatWasRepairedChangeNothing)
{
    repair_everything();
    const std::vector<std::uint8_t> once = device->bytes();
    original = expected;
    repair_everything();
    EXPECT_EQ(device->bytes(), once);
}

INSTANTIATE_TEST_SUITE_P(ExtentSizes, V2Rebuild, rebuilds_of({56, 57, 72, 568, 4016}),
                         rebuild_name);

} // namespace
