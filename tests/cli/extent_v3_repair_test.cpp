// What is particular to repairs of extents.

#include "packed_repair.h"

using namespace tier_test;

namespace {

class ExtentV3Repair : public PackedRepair<ExtentTable> {
protected:
    Block repaired_block(const std::vector<std::string> &items)
    {
        EXPECT_EQ(repair(document(items).text(), {"-y"}).status, 0);
        return device.block(static_cast<std::uint64_t>(target));
    }
};

TEST_F(ExtentV3Repair, EmptyBlockHasNothingButItsChecksum)
{
    const Block block = repaired_block({});
    const std::uint32_t crc = crc32(Block{});
    Block expected{};
    for (std::size_t bit = 0; bit < 32; ++bit)
        expected[8 * bit] = static_cast<std::uint8_t>(crc >> bit & 1U);
    EXPECT_EQ(block, expected);
}

TEST_F(ExtentV3Repair, ChecksumIsThatOfTheBlockWithoutIt)
{
    std::vector<std::string> items;
    Block bare{};
    for (std::uint32_t slot = 0; slot < SLOTS_V3; ++slot) {
        items.push_back(file_of({slot,
                                 {.slot = slot,
                                  .lba = slot,
                                  .shard = 0x7FFFF - slot,
                                  .dirty = 1,
                                  .bitmap = 0x8001}})
                            .text());
        put_u64(bare, 8 * slot,
                std::uint64_t{slot} << 1 | std::uint64_t{0x7FFFF - slot} << 20 |
                    std::uint64_t{1} << 39 | std::uint64_t{0x8001} << 40 | std::uint64_t{1} << 56);
    }
    const std::uint32_t crc = crc32(bare);
    const Block block = repaired_block(items);
    for (std::size_t slot = 0; slot < SLOTS_V3; ++slot)
        EXPECT_EQ(get_u64(block, 8 * slot),
                  get_u64(bare, 8 * slot) | (slot < 32 ? crc >> slot & 1U : 0U))
            << "slot " << slot;
}

TEST_F(ExtentV3Repair, NumberMayBeAMultipleOf512)
{
    ExtentV3 first = sample;
    first.slot = 0;
    for (const std::uint64_t no : {0U, 512U, 1024U, 5120U})
        expect_items({{no, first}}, packed({first}));
}

// A dump does not show them.
TEST_F(ExtentV3Repair, LowestBitsBehindTheChecksumComeBackAsZero)
{
    Block block = encode(packed({sample}));
    for (std::size_t slot = 32; slot < SLOTS_V3; ++slot)
        block[8 * slot] |= 1;
    ExtentBlockV3 sealed = packed({sample});
    sealed.checksum = extent_block_crc(block);
    block = encode(sealed);
    for (std::size_t slot = 32; slot < SLOTS_V3; ++slot)
        block[8 * slot] |= 1;
    put_block(device, target, block);

    const LoggedRun dump = run_logged(device, "dump_extent", {"-n", "1", "-g", "use=1"});
    ASSERT_EQ(dump.status, 0) << dump;
    ASSERT_EQ(repair(dump.out, {"-y"}).status, 0);
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(target)), encode(packed({sample})));
}

} // namespace
