// What is particular to the dump of shards: the word at the head of a block.

#include "packed_dump.h"

using namespace tier_test;

namespace {

class ShardDump : public PackedDump<ShardTable> {
protected:
    void expect_fault(const Block &block, std::uint32_t magic, std::uint32_t checksum,
                      std::uint32_t crc)
    {
        damage(1, block);
        const LogLine message = error_line(
            "__dump_shard_v3",
            text("shard no: 1, magic_ondisk: 0x%x magic: 0x2183ba9d, crc_ondisk: 0x%x crc: 0x%x",
                 magic, checksum, crc));
        EXPECT_EQ(fault(1), message);
        expect_walk();
        expect_single(1);
    }
};

TEST_F(ShardDump, ChecksumMustBeRight)
{
    const Block good = encode(full_block());
    const std::uint32_t crc = record_crc(good, BLOCK_SIZE);
    for (unsigned bit = 0; bit < 32; ++bit) {
        Block block = good;
        put_u32(block, 0, crc ^ 1U << bit);
        expect_fault(block, 0x2183BA9D, crc ^ 1U << bit, crc);
    }
}

TEST_F(ShardDump, MagicMustBeRight)
{
    ShardBlockV3 block = full_block();
    for (const std::uint32_t magic :
         {0U, 0x2183BA9CU, 0xA183BA9DU, 0x9DBA8321U, 0x42524B49U, 0xCACBDCBDU}) {
        block.magic = magic;
        const std::uint32_t crc = get_u32(encode(block), 0);
        expect_fault(encode(block), magic, crc, crc); // of the whole block, its magic included
    }
}

// The magic changes the checksum, so a block that lost it is wrong in both.
TEST_F(ShardDump, MagicIsCoveredByTheChecksum)
{
    Block block = encode(full_block());
    const std::uint32_t checksum = get_u32(block, 0);
    put_u32(block, 4, 0x2183BA9C);
    expect_fault(block, 0x2183BA9C, checksum, record_crc(block, BLOCK_SIZE));
}

TEST_F(ShardDump, HeadOfABlockIsNoShard)
{
    put(2, packed({sample_entry(table, 1)}));
    const std::string out = run().out;
    for (const int no : {0, 512, 1024, 1536})
        EXPECT_EQ(out.find(text("\"sno\":%d,", no)), std::string::npos);
    for (const int no : {1, 511, 513, 1023, 1025, 1535, 1537, 2047})
        EXPECT_NE(out.find(text("\"sno\":%d,", no)), std::string::npos);
}

// A checksum with bits where a shard has them: it would be in use, and owned by an inode.
TEST_F(ShardDump, HeadOfABlockPassesNoFilter)
{
    ShardBlockV3 block = packed({{.slot = 1, .in_use = 0}});
    const auto checksum = [&block] { return get_u32(encode(block), 0); };
    while ((checksum() >> 18 & 1U) == 0)
        ++block.shards[0].index;
    put(1, block);
    expect_walk({.use = 1});
    expect_walk({.owner = static_cast<int>(checksum() & 0x3FFFF)});
}

TEST_F(ShardDump, LineOfAShard)
{
    put(2, packed({{.slot = 3, .ino = 0x3FFFF, .in_use = 1, .reserved = 0x1FFF, .index = ~0U}}));
    const std::string checksum = text("0x%x", get_u32(encode(blocks[2]), 0));
    EXPECT_EQ(run({"-g", "use=1"}).out,
              "[{\"checksum\":\"" + checksum + "\",\"magic\":\"0x2183ba9d\",\"meta_offset\": " +
                  std::to_string(super.shard_table_offset + 8192) +
                  ",\"shards\":[{\"ino\":262143,\"in_use\":1,\"reserved\":8191,\"sno\":1027,"
                  "\"index\":4294967295}]}]");
}

} // namespace
