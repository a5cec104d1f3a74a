// What is particular to repairs of shards.

#include "packed_repair.h"

using namespace tier_test;

namespace {

using ShardRepair = PackedRepair<ShardTable>;

TEST_F(ShardRepair, EmptyBlockHasNothingButItsHead)
{
    ASSERT_EQ(repair(document({}).text(), {"-y"}).status, 0);
    Block expected{};
    put_u32(expected, 4, 0x2183BA9D);
    seal(expected, BLOCK_SIZE);
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(target)), expected);
}

TEST_F(ShardRepair, MultiplesOf512AreNoShards)
{
    for (const std::string number :
         {"0", "512", "1024", "-512", "0.5", "512.9", "1e300", "262144", "18446744073709551104"}) {
        const std::uint64_t whole = convert(Conversion::UNSIGNED_64, std::stold(number));
        ASSERT_EQ(whole % 512, 0U);
        SCOPED_TRACE(number);
        // Nothing else of the item is looked at.
        expect_refused_behind(document({R"({"sno":)" + number + "}"}).text(),
                              {value_line("sno", whole)}, "shards_json sno: 0 invalid");
    }
}

TEST_F(ShardRepair, NumberOfABlockIsNotThatOfTheOffset)
{
    ShardV3 shard = sample;
    shard.slot = 1;
    expect_items({{1025, shard}}, packed({shard})); // into block 1
}

TEST_F(ShardRepair, OwnerKeeps18Bits)
{
    for (const std::uint64_t ino : {262143U, 262144U, 262145U, 0x7FFFFFFFU}) {
        ShardV3 shard{.slot = 9, .ino = static_cast<std::uint32_t>(ino % 262144), .index = 3};
        RepairFile item;
        item.number("sno", 9).number("ino", ino).number("index", 3);
        expect_block(
            document({item.text()}).text(),
            {value_line("sno", 9), value_line("ino", ino % 262144), value_line("index", 3)},
            encode(packed({shard})));
    }
}

} // namespace
