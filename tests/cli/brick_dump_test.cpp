// The brick tables of all layouts as they are shown.

#include "table.h"
#include "table_dump.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(Brick, TableDump, BrickTables, LayoutNames);

} // namespace tier_test

namespace {

template <class T>
class BrickDump : public TableDump<T> {
protected:
    // A path that fills its field, without a terminator.
    const std::string full_path = std::string(126, 'p') + "qr";

    typename T::Entry unterminated(std::uint32_t no) const
    {
        auto brick = this->table.used(no, 0);
        brick.brickid = full_path;
        return brick;
    }
};

TYPED_TEST_SUITE(BrickDump, BrickTables, LayoutNames);

TYPED_TEST(BrickDump, PathWithoutTerminatorLosesItsLastCharacter)
{
    this->put(1, this->unterminated(1));
    EXPECT_NE(this->item(1).find(this->full_path.substr(0, 127) + "\""), std::string::npos);
    this->expect_walk();
    this->expect_single(1);
}

TYPED_TEST(BrickDump, PathWithoutTerminatorInAFaultyEntry)
{
    auto brick = this->unterminated(1);
    brick.checksum = this->good_checksum(brick) ^ 0x100U;
    this->put(1, brick, true);
    this->expect_walk();
    this->expect_single(1);
}

TYPED_TEST(BrickDump, PathWithoutTerminatorIsHiddenWhole)
{
    this->put(1, this->unterminated(1));
    this->expect_walk({.use = 0});
    this->expect_walk({.id = this->full_path});
    this->expect_walk({.id = this->full_path.substr(0, 127)});
}

TYPED_TEST(BrickDump, PathsOfEveryLength)
{
    for (const std::size_t length : {0U, 1U, 92U, 93U, 94U, 126U, 127U}) {
        auto brick = this->table.used(4, 0);
        brick.brickid = std::string(length, 'x');
        this->put(4, brick);
        this->expect_walk();
        if (length > 0)
            this->expect_walk({.id = brick.brickid});
    }
}

TYPED_TEST(BrickDump, TextBehindTheTerminatorIsNotShown)
{
    auto brick = this->table.used(2, 0);
    this->put(2, brick);
    Block block = encode(brick);
    put_text(block, 32 + brick.brickid.size() + 1, "left over");
    seal(block, BrickV1::LENGTH);
    this->device.write(static_cast<std::uint64_t>(brick_offset(this->super, 2)), block);
    brick.checksum = get_u32(block, 0);
    this->slots[2].entry = brick;
    this->expect_walk();
    this->expect_walk({.id = brick.brickid});
}

// The path is data, never a format.
TYPED_TEST(BrickDump, PathWithFormatCharacters)
{
    auto brick = this->table.used(2, 0);
    brick.brickid = "%s%n%d \"quoted\" \\ \xff";
    this->put(2, brick);
    this->expect_walk();
    this->expect_walk({.use = 0});
}

TYPED_TEST(BrickDump, IdNamesTheWholePath)
{
    const auto brick = this->table.used(1, 0);
    auto longer = this->table.used(2, 0);
    longer.brickid = brick.brickid + "x";
    this->put(1, brick);
    this->put(2, longer);
    for (const std::string &id :
         {brick.brickid, longer.brickid, brick.brickid.substr(0, 92), uuid_text(brick.uuid)}) {
        SCOPED_TRACE(id);
        this->expect_walk({.id = id});
    }
}

TYPED_TEST(BrickDump, LargestValues)
{
    auto brick = this->table.used(3, 0);
    brick.use = 0xFFFFFFFF;
    brick.unlink = 0xFFFFFFFF;
    brick.reserved = 0xFFFFFFFF;
    brick.uuid.fill(0xFF);
    this->put(3, brick);
    this->expect_walk();
}

} // namespace
