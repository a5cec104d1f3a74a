// The property of templates: zu_tier makes of the file the entry as it stands, but for what was
// told. Over every entry of devices of each layout.

#include "sample_image.h"
#include "template_run.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Remembers an image, in which the repaired blocks are to be the only difference.
class Image {
public:
    explicit Image(Device &device) : device_(device), bytes_(device.bytes()) {}

    void check(const TemplateCase &entry, const ExpectedTemplate &expected)
    {
        expect_template(device_, entry, expected);
        const Block block = device_.block(entry.offset);
        put_bytes(bytes_, entry.offset, block);
    }

    void check_slot(const SlotTable &table, std::uint64_t no)
    {
        const auto offset = static_cast<std::uint64_t>(table.offset(no));
        check({table.name, no, offset}, table.expect(no, device_.block(offset)));
    }

    template <class Table>
    void check_packed(const std::string &name, const Table &table, const SuperV3 &sb,
                      std::uint64_t blocks)
    {
        for (std::uint64_t no = 0; no < blocks; ++no) {
            const auto offset = static_cast<std::uint64_t>(table.offset(sb, no));
            check({name, no, offset}, expect_packed(table, sb, no, device_.block(offset)));
        }
    }

    void finish() { EXPECT_TRUE(device_.bytes() == bytes_); }

private:
    Device &device_;
    std::vector<std::uint8_t> bytes_;
};

template <class Super>
void check_cache(Device &device, const Super &sb)
{
    Image image(device);
    image.check_slot(super_slots(sb), 0);
    const std::vector<SlotTable> tables = slot_tables(sb);
    const std::uint64_t counts[] = {sb.brick_cnt, sb.inode_cnt, sb.block_cnt};
    for (std::size_t i = 0; i < tables.size(); ++i)
        for (std::uint64_t no = 0; no < counts[i]; ++no)
            image.check_slot(tables[i], no);
    image.finish();
}

void check_v3(Device &device, const SuperV3 &sb)
{
    Image image(device);
    image.check_slot(super_slots(sb), 0);
    const std::vector<SlotTable> tables = slot_tables(sb);
    for (std::uint64_t no = 0; no < sb.brick_cnt; ++no)
        image.check_slot(tables[0], no);
    for (std::uint64_t no = 0; no < sb.inode_cnt; ++no)
        image.check_slot(tables[1], no);
    image.check_packed("shard", block_table<ShardTable>(), sb, sb.shard_cnt / SLOTS_V3);
    image.check_packed("extent", block_table<ExtentTable>(), sb, sb.extent_cnt / SLOTS_V3);
    for (std::uint64_t no = 0; no < sb.hot_table_size / BLOCK_SIZE; ++no) {
        const auto offset = static_cast<std::uint64_t>(hot_offset(sb, no));
        image.check({"hot", no, offset}, expect_hot(sb, no, device.block(offset)));
    }
    image.finish();
}

using Args = std::vector<std::string>;

Device sample(const std::string &layout, Args args, const std::string &seed)
{
    args.insert(args.end(), {"--bricks", "4", "--inodes", "9", "--seed", seed});
    return make_sample(args, layout);
}

const Args BLOCKS{"--blocks", "12", "--block-size", "262144"};
const Args PACKED{"--blocks", "1",          "--block-size", "8192",      "--shards",
                  "1024",     "--hot-size", "8192",         "--extents", "1536"};

class TemplateOfSamples : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(Seeds, TemplateOfSamples, testing::Values("1", "18446744073709551615"));

TEST_P(TemplateOfSamples, V1)
{
    Device device = sample("v1", BLOCKS, GetParam());
    check_cache(device, decode_super(device.block(4096)));
}

TEST_P(TemplateOfSamples, V2)
{
    Device device = sample("v2", BLOCKS, GetParam());
    check_cache(device, decode_super_v2(device.block(4096)));
}

TEST_P(TemplateOfSamples, V3)
{
    Device device = sample("v3", PACKED, GetParam());
    check_v3(device, decode_super_v3(device.block(4096)));
}

// Devices with a value in every field.

TEST(TemplateOfFullEntries, V1)
{
    for (const std::uint32_t extent_size : {56U, 61U, 72U, 4096U}) {
        SuperV1 sb = super_v1(2, 3, 3);
        sb.extent_size = extent_size;
        sb.reserved = 0x80000001;
        ExtentV1 extent = extent_used(1, 2);
        extent.bitmap.resize((extent_size - 56) / 8, 0x8000000000000001U);
        Device device =
            make_v1_device(sb, {brick_used(1)}, {inode_used(1, 1), inode_used(2, 0)}, {extent});
        if (extent_size == 61) { // bytes that are no whole word
            Block block = encode(extent, extent_size);
            put_u8(block, 60, 7);
            seal(block, extent_size);
            device.write(static_cast<std::uint64_t>(extent_offset(sb, 1)), block);
        }
        check_cache(device, sb);
    }
}

TEST(TemplateOfFullEntries, V2)
{
    SuperV2 sb = super_v2(2, 3, 3);
    Device device = make_v2_device(sb, {brick_used(1)}, {inode_v2_used(1, 1), inode_v2_used(2, 0)},
                                   {extent_v2_used(1, 2)});
    check_cache(device, sb);
}

TEST(TemplateOfFullEntries, V3)
{
    const SuperV3 sb = packed_super(2);
    const auto &shards = block_table<ShardTable>();
    const auto &extents = block_table<ExtentTable>();
    ShardBlockV3 shard_block;
    ExtentBlockV3 extent_block;
    for (std::uint32_t slot = 0; slot < SLOTS_V3; ++slot) {
        if (slot > 0)
            shard_block.shards.push_back(sample_entry(shards, slot));
        extent_block.extents.push_back(sample_entry(extents, slot));
    }
    // Free ones that still hold something.
    shard_block.shards[7].in_use = extent_block.extents[8].in_use = 0;
    extent_block.extents[511].in_use = 0;
    Device device = make_v3_device(sb, {brick_v3_used(0)}, {inode_v3_used(0, 0)},
                                   {{1, shard_block}}, {{1, extent_block}});
    check_v3(device, sb);
}

// Free slots whose fields were left as they were.
TEST(TemplateOfFullEntries, Freed)
{
    const SuperV1 sb = super_v1(2, 2, 2);
    BrickV1 brick = brick_used(1);
    InodeV1 inode = inode_used(1, 1);
    ExtentV1 extent = extent_used(1, 1);
    brick.use = inode.use = extent.use = 0;
    brick.reserved = 5;
    Device v1 = make_v1_device(sb, {brick}, {inode}, {extent});
    check_cache(v1, sb);

    const SuperV2 sb2 = super_v2(2, 2, 2);
    InodeV2 inode2 = inode_v2_used(1, 1);
    ExtentV2 extent2 = extent_v2_used(1, 1);
    inode2.use = extent2.use = 0;
    Device v2 = make_v2_device(sb2, {brick}, {inode2}, {extent2});
    check_cache(v2, sb2);
}

// Behind the records nothing is anybody's.
TEST(TemplateOfFullEntries, NoiseBehindTheRecords)
{
    SuperV2 sb = super_v2(1, 1, 1);
    Device device =
        make_v2_device(sb, {brick_used(0)}, {inode_v2_used(0, 0)}, {extent_v2_used(0, 0)});
    const std::vector<std::pair<std::int64_t, std::size_t>> records{
        {4096, SuperV2::LENGTH},
        {brick_offset(sb, 0), BrickV2::LENGTH},
        {inode_offset(sb, 0), InodeV2::LENGTH},
        {extent_offset(sb, 0), sb.total_extent_size}};
    for (const auto &[offset, length] : records) {
        Block block = device.block(static_cast<std::uint64_t>(offset));
        put_u8(block, length + 1, 1);
        put_u8(block, BLOCK_SIZE - 2, 2);
        device.write(static_cast<std::uint64_t>(offset), block);
    }
    check_cache(device, sb);
}

// The expansion area, of which only these are there.
TEST(TemplateOfFullEntries, ExpansionInodes)
{
    SuperV2 sb = super_v2(2, 3, 2);
    set_expansion(sb, 153600, true);
    const std::vector<std::uint32_t> numbers{3, 4, 100000, 153602};
    std::vector<InodeV2> inodes;
    for (const std::uint32_t no : numbers)
        inodes.push_back(no == 4 ? inode_v2(no) : inode_v2_used(no, 1));
    Device device = make_v2_device(sb, {}, inodes);
    const auto check = [&device](const SlotTable &table, std::uint64_t no) {
        const auto offset = static_cast<std::uint64_t>(table.offset(no));
        expect_template(device, {table.name, no, offset}, table.expect(no, device.block(offset)));
    };
    for (const std::uint32_t no : numbers)
        check(slot_tables(sb)[1], no);
    check(super_slots(sb), 0);
}

} // namespace
