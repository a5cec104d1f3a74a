// The brick table of layout version 1 as it is shown.

#include "table_dump.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(BrickV1, TableDump, BrickV1);

} // namespace tier_test

namespace {

class BrickV1Dump : public TableDump<BrickV1> {
protected:
    // A path that fills its field, without a terminator.
    const std::string full_path = std::string(126, 'p') + "qr";

    BrickV1 unterminated(std::uint32_t no) const
    {
        BrickV1 brick = brick_used(no);
        brick.brickid = full_path;
        return brick;
    }
};

TEST_F(BrickV1Dump, PathWithoutTerminatorLosesItsLastCharacter)
{
    put(1, unterminated(1));
    EXPECT_NE(item(1).find(full_path.substr(0, 127) + "\""), std::string::npos);
    expect_walk();
    expect_single(1);
}

TEST_F(BrickV1Dump, PathWithoutTerminatorInAFaultyEntry)
{
    BrickV1 brick = unterminated(1);
    brick.checksum = good_checksum(brick) ^ 0x100U;
    put(1, brick, true);
    expect_walk();
    expect_single(1);
}

TEST_F(BrickV1Dump, PathWithoutTerminatorIsHiddenWhole)
{
    put(1, unterminated(1));
    expect_walk({.use = 0});
    expect_walk({.id = full_path});
    expect_walk({.id = full_path.substr(0, 127)});
}

TEST_F(BrickV1Dump, PathsOfEveryLength)
{
    for (const std::size_t length : {0U, 1U, 92U, 93U, 94U, 126U, 127U}) {
        BrickV1 brick = brick_used(4);
        brick.brickid = std::string(length, 'x');
        put(4, brick);
        expect_walk();
        if (length > 0)
            expect_walk({.id = brick.brickid});
    }
}

TEST_F(BrickV1Dump, TextBehindTheTerminatorIsNotShown)
{
    BrickV1 brick = brick_used(2);
    put(2, brick);
    Block block = encode(brick);
    put_text(block, 32 + brick.brickid.size() + 1, "left over");
    seal(block, BrickV1::LENGTH);
    device.write(static_cast<std::uint64_t>(brick_offset(super, 2)), block);
    brick.checksum = get_u32(block, 0);
    slots[2].entry = brick;
    expect_walk();
    expect_walk({.id = brick.brickid});
}

// The path is data, never a format.
TEST_F(BrickV1Dump, PathWithFormatCharacters)
{
    BrickV1 brick = brick_used(2);
    brick.brickid = "%s%n%d \"quoted\" \\ \xff";
    put(2, brick);
    expect_walk();
    expect_walk({.use = 0});
}

TEST_F(BrickV1Dump, IdNamesTheWholePath)
{
    const BrickV1 brick = brick_used(1);
    BrickV1 longer = brick_used(2);
    longer.brickid = brick.brickid + "x";
    put(1, brick);
    put(2, longer);
    for (const std::string &id :
         {brick.brickid, longer.brickid, brick.brickid.substr(0, 92), uuid_text(brick.uuid)}) {
        SCOPED_TRACE(id);
        expect_walk({.id = id});
    }
}

TEST_F(BrickV1Dump, LargestValues)
{
    BrickV1 brick = brick_used(3);
    brick.use = 0xFFFFFFFF;
    brick.unlink = 0xFFFFFFFF;
    brick.reserved = 0xFFFFFFFF;
    brick.uuid.fill(0xFF);
    put(3, brick);
    expect_walk();
}

} // namespace
