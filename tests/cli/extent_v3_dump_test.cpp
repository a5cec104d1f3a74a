// What is particular to the dump of extents: the checksum in the lowest bits of the first 32.

#include "packed_dump.h"

using namespace tier_test;

namespace {

class ExtentV3Dump : public PackedDump<ExtentTable> {
protected:
    static std::string message(std::uint32_t stored, std::uint32_t computed)
    {
        return text("extent no: 1, crc_ondisk: 0x%x crc: 0x%x", stored, computed);
    }

    void expect_fault(const Block &block, std::uint32_t stored, std::uint32_t computed)
    {
        damage(1, block);
        EXPECT_EQ(fault(1), error_line("__dump_extent_v3", message(stored, computed)));
        expect_walk();
        expect_single(1);
    }

    // The lowest bit of all extents whose bit holds no part of the checksum.
    static void flip_free_bits(Block &block)
    {
        for (std::size_t slot = 32; slot < SLOTS_V3; ++slot)
            block[8 * slot] ^= 1;
    }
};

TEST_F(ExtentV3Dump, BitOfTheChecksumLiesInTheExtentOfItsNumber)
{
    const Block good = encode(full_block());
    const std::uint32_t crc = extent_block_crc(good);
    for (unsigned bit = 0; bit < 32; ++bit) {
        Block block = good;
        block[8 * bit] ^= 1;
        expect_fault(block, crc ^ 1U << bit, crc);
    }
}

TEST_F(ExtentV3Dump, LowestBitsOfTheOtherExtentsAreContent)
{
    const ExtentBlockV3 packed = full_block();
    const Block good = encode(packed);
    for (std::size_t slot = 32; slot < SLOTS_V3; slot += 37) {
        Block block = good;
        block[8 * slot] ^= 1;
        const std::uint32_t crc = extent_block_crc(block);
        ASSERT_NE(crc, extent_block_crc(good));
        expect_fault(block, extent_block_crc(good), crc);
    }
}

TEST_F(ExtentV3Dump, LowestBitsOfTheOtherExtentsAreNotShown)
{
    ExtentBlockV3 packed = full_block();
    Block block = encode(packed);
    flip_free_bits(block);
    packed.checksum = extent_block_crc(block);
    put(1, packed);
    block = encode(packed);
    flip_free_bits(block);
    put_block(device, offset(1), block);
    expect_walk();
    expect_single(1);
}

TEST_F(ExtentV3Dump, BlockThatWasNeverWrittenIsDamaged)
{
    const Block zero{};
    const std::uint32_t crc = crc32(zero);
    ASSERT_NE(crc, 0U);
    expect_fault(zero, 0, crc);
}

TEST_F(ExtentV3Dump, BlockWithAllBitsSetIsDamaged)
{
    Block ones;
    ones.fill(0xFF);
    expect_fault(ones, 0xFFFFFFFF, extent_block_crc(ones));
}

TEST_F(ExtentV3Dump, FreeExtentsOfEveryBlockThatHasAny)
{
    ExtentBlockV3 used = full_block();
    put(0, used);
    used.extents.pop_back(); // the last one is free
    put(1, used);
    put(3, packed({sample_entry(table, 0)}));
    expect_walk({.use = 0});
    const std::string out = run({"-g", "use=0"}).out;
    EXPECT_TRUE(out.starts_with(text("[{\"checksum\":\"0x%x\",\"meta_offset\": %ld,\"extents\":["
                                     "{\"lba\":0,\"shard\":0,\"dirty\":0,\"in_use\":0,\"sense\":0,"
                                     "\"demote\":0,\"dm_err\":0,\"reserved\":0,\"eno\":1023,"
                                     "\"bitmap\":0}]},{",
                                     extent_block_crc(encode(used)), offset(1))))
        << out.substr(0, 500);
}

TEST_F(ExtentV3Dump, LineOfAnExtent)
{
    put(2, packed({{.slot = 3,
                    .lba = 0x7FFFF,
                    .shard = 0x7FFFE,
                    .dirty = 1,
                    .bitmap = 0xFFFF,
                    .in_use = 1,
                    .sense = 15,
                    .demote = 1,
                    .dm_err = 1,
                    .reserved = 1}}));
    const std::string checksum = text("0x%x", extent_block_crc(encode(blocks[2])));
    EXPECT_EQ(run({"-g", "use=1"}).out,
              "[{\"checksum\":\"" + checksum +
                  "\",\"meta_offset\": " + std::to_string(super.extent_table_offset + 8192) +
                  ",\"extents\":[{\"lba\":524287,\"shard\":524286,\"dirty\":1,\"in_use\":1,"
                  "\"sense\":15,\"demote\":1,\"dm_err\":1,\"reserved\":1,\"eno\":1027,"
                  "\"bitmap\":65535}]}]");
}

} // namespace
