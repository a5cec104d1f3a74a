// The keys of a V3 super block's repair file where they differ from those of the other layouts.

#include "super_parse.h"

using namespace tier_test;

namespace {

using SuperV3Parse = SuperParseFixture<SuperV3>;

TEST_F(SuperV3Parse, ReservedOfADumpedLineIsKept)
{
    super.reserved = 0xFFFFFFFF;
    super.reserved_offset = 0x8000000000000001;
    super.reserved_size = 0xFFFFFFFFFFFFFFFF;
    super.sb_offset = 0;
    super.checksum = 0x12345678;
    const std::string line = json(super);
    super.checksum.reset();
    expect_accepted(line, super);
}

TEST_F(SuperV3Parse, KeysOfTheOtherLayoutsStandForNothing)
{
    for (const auto &[key, other] :
         {std::pair{"shard_table_cnt", "shard_cnt"}, std::pair{"extent_table_cnt", "extent_cnt"},
          std::pair{"brick_cnt", "brick_table_cnt"}, std::pair{"inode_cnt", "inode_table_cnt"},
          std::pair{"data_table_size", "data_size"}, std::pair{"reserved", "sb_reserved"},
          std::pair{"super block size", "sb_size"}}) {
        SCOPED_TRACE(other);
        RepairFile renamed = file;
        renamed.rename(key, other);
        expect_refused_at(key, renamed.text(), std::string("parse ") + key + " failed");
    }
}

TEST_F(SuperV3Parse, SizeAbove2To63KeepsItsWholeValue)
{
    super.brick_table_size = 0x8000000000001001;
    file.number("brick_table_size", super.brick_table_size);
    expect_accepted(file.text(), super); // large enough for the bricks
}

} // namespace
