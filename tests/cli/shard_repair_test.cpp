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
        expect_refused_with(document({R"({"sno":)" + number + "}"}).text(),
                            "shards_json sno: 0 invalid");
    }
}

TEST_F(ShardRepair, NumberOfABlockIsNotThatOfTheOffset)
{
    ShardV3 shard = sample;
    shard.slot = 1;
    expect_items({{1025, shard}}, packed({shard})); // into block 1
}

} // namespace
