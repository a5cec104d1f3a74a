// What zu_tierctl writes into a sample image of layout V3: where the areas lie, every slot of every
// table. How zu_tier takes such images has tests of its own.

#include "sample_contents.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <utility>

using namespace tier_test;

namespace {

struct GeometryV3 {
    std::vector<std::string> args;
    std::uint32_t bricks = 4;
    std::uint32_t inodes = 64;
    std::uint32_t shards = 1024;
    std::uint32_t extents = 4096;
    std::uint32_t hot_size = 65536;
    std::uint32_t blocks = 4096;
    std::uint32_t block_size = 65536;
};

const std::vector<GeometryV3> GEOMETRIES_V3{
    {.args = {}},
    {.args = {"--seed", "18446744073709551615"}},
    {.args = {"--bricks", "1", "--inodes", "1", "--shards", "512", "--extents", "512", "--hot-size",
              "4096", "--blocks", "1", "--block-size", "8192"},
     .bricks = 1,
     .inodes = 1,
     .shards = 512,
     .extents = 512,
     .hot_size = 4096,
     .blocks = 1,
     .block_size = 8192},
    {.args = {"--bricks", "300", "--inodes", "1000", "--shards", "10240", "--extents", "20480",
              "--hot-size", "1052672", "--block-size", "12288", "--seed", "7"},
     .bricks = 300,
     .inodes = 1000,
     .shards = 10240,
     .extents = 20480,
     .hot_size = 1052672,
     .blocks = 20480,
     .block_size = 12288},
    {.args = {"--inodes", "3", "--shards", "1536", "--blocks", "5000"},
     .inodes = 3,
     .shards = 1536,
     .blocks = 5000},
};

using Shards = std::map<std::uint64_t, ShardV3>;   // by shard number
using Extents = std::map<std::uint64_t, ExtentV3>; // by extent number

// The words of a table that are not zero. Each block is as its words say, checksum included.
template <class Packed, class Word>
std::map<std::uint64_t, Word> read_words(const Device &device, std::uint64_t start,
                                         std::uint64_t count, Packed (*decode)(const Block &),
                                         std::vector<Word> Packed::*words)
{
    std::map<std::uint64_t, Word> result;
    for (std::uint64_t no = 0; no < count / 512; ++no) {
        const Block block = device.block(start + no * 4096);
        const Packed packed = decode(block);
        EXPECT_EQ(encode(packed), block) << no;
        for (const Word &word : packed.*words)
            result[no * 512 + word.slot] = word;
    }
    return result;
}

Shards read_shards(const Device &device, const SuperV3 &sb)
{
    return read_words(device, sb.shard_table_offset, sb.shard_cnt, decode_shards,
                      &ShardBlockV3::shards);
}

Extents read_extents(const Device &device, const SuperV3 &sb)
{
    return read_words(device, sb.extent_table_offset, sb.extent_cnt, decode_extents,
                      &ExtentBlockV3::extents);
}

// Every word that is not zero is an entry in use. They fill the first block in part and, unless it
// is the first, the last one not at all.
template <class Word>
void expect_mixed_and_free_blocks(const std::map<std::uint64_t, Word> &words, std::uint64_t count)
{
    std::vector<std::size_t> used(count / 512);
    for (const auto &[no, word] : words) {
        EXPECT_EQ(word.in_use, 1U) << no;
        EXPECT_EQ(word.reserved, 0U) << no;
        used[no / 512]++;
    }
    EXPECT_GT(used.front(), 0U);
    EXPECT_LT(std::ranges::max(used), 511U);
    if (used.size() > 1) {
        EXPECT_EQ(used.back(), 0U);
    }
}

// Address and shard of an extent together name a place.
void expect_places(const Extents &extents, const Shards &shards)
{
    constexpr std::size_t ADDRESSES = 524288; // of 19 bits
    std::set<std::uint32_t> addresses;
    std::set<std::pair<std::uint32_t, std::uint32_t>> places;
    for (const auto &[no, extent] : extents) {
        EXPECT_TRUE(shards.contains(extent.shard)) << no;
        addresses.insert(extent.lba);
        places.emplace(extent.shard, extent.lba);
    }
    EXPECT_EQ(addresses.size(), std::min(extents.size(), ADDRESSES));
    EXPECT_EQ(places.size(), extents.size());
}

class SampleV3 : public SampleOf<GeometryV3, SuperV3> {
protected:
    std::vector<InodeV2> inodes() const { return entries(1, GetParam().inodes, decode_inode_v2); }
};

INSTANTIATE_TEST_SUITE_P(Geometry, SampleV3, testing::ValuesIn(GEOMETRIES_V3));

TEST_P(SampleV3, SuperBlockDescribesTheDevice)
{
    const GeometryV3 &geometry = GetParam();
    EXPECT_EQ(device.block(4096), encode(sb));
    EXPECT_EQ(sb.magic, 0xCACBDCBDU);
    EXPECT_EQ(sb.version, 0x30000U);
    EXPECT_EQ(sb.reserved, 0U);
    EXPECT_EQ(sb.ctime, YEAR_START * NANOSECONDS);
    EXPECT_NE(sb.uuid, Uuid{});
    EXPECT_TRUE(std::regex_match(sb.ssd_uuid, std::regex(VOLUME_ID))) << sb.ssd_uuid;

    EXPECT_EQ(sb.brick_cnt, geometry.bricks);
    EXPECT_GE(sb.brick_table_size, sb.brick_cnt * 4096);
    EXPECT_EQ(sb.inode_cnt, geometry.inodes);
    EXPECT_EQ(sb.inode_table_size, sb.inode_cnt * 4096);
    EXPECT_EQ(sb.shard_cnt, geometry.shards);
    EXPECT_EQ(sb.shard_table_size, sb.shard_cnt * 8);
    EXPECT_EQ(sb.extent_cnt, geometry.extents);
    EXPECT_EQ(sb.extent_table_size, sb.extent_cnt * 8);
    EXPECT_EQ(sb.hot_table_size, geometry.hot_size);
    EXPECT_EQ(sb.block_cnt, geometry.blocks);
    EXPECT_EQ(sb.block_size, geometry.block_size);
    EXPECT_EQ(sb.data_size, sb.block_size * sb.block_cnt);
}

TEST_P(SampleV3, AreasFollowOneAnother)
{
    EXPECT_EQ(sb.sb_offset, 4096U);
    EXPECT_EQ(sb.size, 0x100000U);
    EXPECT_EQ(sb.reserved_offset % 4096, 0U);
    EXPECT_GT(sb.reserved_size, 0U);
    EXPECT_GE(sb.reserved_offset, sb.sb_offset + sb.size);
    std::uint64_t end = sb.reserved_offset + sb.reserved_size;
    const std::vector<std::pair<std::uint64_t, std::uint64_t>> areas{
        {sb.brick_table_offset, sb.brick_table_size},
        {sb.inode_table_offset, sb.inode_table_size},
        {sb.shard_table_offset, sb.shard_table_size},
        {sb.hot_table_offset, sb.hot_table_size},
        {sb.extent_table_offset, sb.extent_table_size},
        {sb.data_offset, sb.data_size},
    };
    for (const auto &[offset, size] : areas) {
        EXPECT_EQ(offset % MIB, 0U);
        EXPECT_GE(offset, end);
        end = offset + size;
    }
    EXPECT_EQ(device.size(), end);
}

TEST_P(SampleV3, Bricks) { expect_bricks(bricks(), BrickV3{}.magic); }

TEST_P(SampleV3, InodesBelongToBricksInUse)
{
    const std::vector<InodeV2> all = inodes();
    expect_inodes(all, bricks(), sb.ctime, [](std::uint32_t no) {
        InodeV3 inode;
        inode.no = no;
        return encode(inode);
    });
    for (const InodeV2 &inode : all) {
        if (inode.use == 0)
            continue;
        EXPECT_LT(inode.new_data, inode.size) << inode.no;
        EXPECT_EQ(inode.blocks, inode.size / 131072) << inode.no;
    }
}

TEST_P(SampleV3, ShardsBelongToInodesInUse)
{
    const Shards shards = read_shards(device, sb);
    expect_mixed_and_free_blocks(shards, sb.shard_cnt);
    const std::vector<InodeV2> owners = inodes();
    std::map<std::uint32_t, std::set<std::uint32_t>> positions;
    for (const auto &[no, shard] : shards) {
        SCOPED_TRACE(no);
        ASSERT_LT(shard.ino, owners.size());
        EXPECT_EQ(owners[shard.ino].use, 1);
        EXPECT_TRUE(positions[shard.ino].insert(shard.index).second);
    }
    for (const auto &[ino, taken] : positions)
        EXPECT_EQ(*taken.rbegin() + 1, taken.size()) << ino; // from 0 without a gap
}

TEST_P(SampleV3, ExtentsBelongToShardsInUse)
{
    const Extents extents = read_extents(device, sb);
    expect_mixed_and_free_blocks(extents, sb.extent_cnt);
    expect_places(extents, read_shards(device, sb));
    for (const auto &[no, extent] : extents)
        EXPECT_NE(extent.bitmap, 0U) << no;
}

TEST_P(SampleV3, HotTableIsFull)
{
    std::set<Block> blocks;
    for (std::uint64_t no = 0; no < sb.hot_table_size / 4096; ++no) {
        const Block block = device.block(sb.hot_table_offset + no * 4096);
        EXPECT_EQ(std::ranges::count(block, 0), 0);
        blocks.insert(block);
    }
    EXPECT_EQ(blocks.size(), sb.hot_table_size / 4096);
}

TEST_P(SampleV3, ToolFindsNoFault)
{
    for (const SampleTable &table : tables)
        expect_no_fault(device, table, "[]");
    expect_accepted(device, json(sb));
}

// All but a few flags come in every value.
TEST(SampleV3Extents, AreOfEveryKind)
{
    const Device device = make_sample({}, "v3");
    std::set<std::uint32_t> dirty;
    std::set<std::uint32_t> sense;
    std::set<std::uint32_t> demote;
    std::set<std::uint32_t> dm_err;
    for (const auto &[no, extent] : read_extents(device, decode_super_v3(device.block(4096)))) {
        dirty.insert(extent.dirty);
        sense.insert(extent.sense);
        demote.insert(extent.demote);
        dm_err.insert(extent.dm_err);
    }
    EXPECT_EQ(dirty.size(), 2U);
    EXPECT_EQ(sense.size(), 16U);
    EXPECT_EQ(demote.size(), 2U);
    EXPECT_EQ(dm_err, std::set<std::uint32_t>{0}); // a set one is odd
}

// There are more extents in use than addresses.
TEST(SampleV3Large, AddressesRepeatInOtherShards)
{
    const Device device =
        make_sample({"--extents", "1048576", "--blocks", "1", "--shards", "512"}, "v3");
    const SuperV3 sb = decode_super_v3(device.block(4096));
    const Extents extents = read_extents(device, sb);
    EXPECT_GT(extents.size(), 524288U);
    expect_places(extents, read_shards(device, sb));
}

TEST(SampleV3Large, Tables)
{
    const Device device = make_sample({"--bricks", "300", "--inodes", "262144", "--shards",
                                       "524288", "--extents", "1024", "--blocks", "1"},
                                      "v3");
    const SuperV3 sb = decode_super_v3(device.block(4096));
    EXPECT_EQ(device.block(4096), encode(sb));
    const Shards shards = read_shards(device, sb);
    expect_mixed_and_free_blocks(shards, 524288);
    EXPECT_GT(shards.rbegin()->first, 262144U);
    std::uint32_t last_owner = 0;
    for (const auto &[no, shard] : shards)
        last_owner = std::max(last_owner, shard.ino);
    EXPECT_GT(last_owner, 131072U);
    const auto at = static_cast<std::uint64_t>(inode_offset(sb, last_owner));
    EXPECT_EQ(decode_inode_v2(device.block(at)).use, 1);
    expect_places(read_extents(device, sb), shards);
}

TEST(SampleV3Sizes, OutOfRangeAreRefused)
{
    const std::vector<SizeBounds> sizes{
        {"--bricks", "1..300", {"0", "301"}},
        {"--inodes", "1..262144", {"0", "262145", "4294967297"}},
        {"--blocks", "1..1073741824", {"0", "1073741825", "4294967297"}},
        {"--block-size",
         "8192..65536 in steps of 4096",
         {"0", "4096", "8191", "8193", "69632", "4294975488"}},
        {"--shards",
         "512..524288 in steps of 512",
         {"0", "1", "511", "513", "1000", "524287", "524800", "4294967808"}},
        {"--extents",
         "512..1073741824 in steps of 512",
         {"0", "8", "513", "1073742336", "4294967808"}},
        {"--hot-size",
         "4096..1073741824 in steps of 4096",
         {"0", "4095", "10000", "1073745920", "4294971392"}},
        {"--extent-size", "none", {"0", "88"}},
        {"--expansion", "none", {"0", "153600"}},
    };
    expect_sizes_refused(sizes, "v3");
}

TEST(SampleV3Sizes, OtherLayoutsHaveNoneOfTheNewOnes)
{
    const std::vector<SizeBounds> sizes{
        {"--shards", "none", {"0", "512"}},
        {"--extents", "none", {"0", "512"}},
        {"--hot-size", "none", {"0", "4096"}},
    };
    expect_sizes_refused(sizes, "v1");
    expect_sizes_refused(sizes, "v2");
}

const std::vector<std::string> SMALL_CACHE_V3{"--blocks", "2", "--block-size", "8192"};

Device small_sample(const std::string &seed)
{
    std::vector<std::string> args = SMALL_CACHE_V3;
    args.insert(args.end(), {"--seed", seed});
    return make_sample(args, "v3");
}

TEST(SampleV3Seed, SameArgumentsGiveTheSameBytes)
{
    EXPECT_TRUE(small_sample("5").bytes() == small_sample("5").bytes());
    EXPECT_TRUE(small_sample("1").bytes() ==
                make_sample(SMALL_CACHE_V3, "v3").bytes()); // the default
}

TEST(SampleV3Seed, AnotherSeedGivesOtherTables)
{
    const Device one = small_sample("5");
    const Device other = small_sample("6");
    ASSERT_EQ(one.size(), other.size());
    std::vector<SampleTable> tables = sample_tables(decode_super_v3(one.block(4096)));
    tables.push_back(sample_super(SuperV3::LENGTH));
    for (const SampleTable &table : tables) {
        const auto at = static_cast<std::uint64_t>(table.offset(0));
        EXPECT_NE(one.block(at), other.block(at)) << table.name;
    }
}

TEST(SampleV3Seed, NothingIsWrittenOutsideTheTables)
{
    const Device device = small_sample("1");
    const SuperV3 sb = decode_super_v3(device.block(4096));
    std::vector<std::uint8_t> image = device.bytes();
    const auto clear = [&image](std::uint64_t offset, std::uint64_t size) {
        const auto begin = image.begin() + static_cast<std::ptrdiff_t>(offset);
        std::fill(begin, begin + static_cast<std::ptrdiff_t>(size), std::uint8_t{0});
    };
    clear(4096, 4096);
    clear(sb.brick_table_offset, 4 * 4096);
    clear(sb.inode_table_offset, 64 * 4096);
    clear(sb.shard_table_offset, 1024 * 8);
    clear(sb.hot_table_offset, 65536);
    clear(sb.extent_table_offset, 4096 * 8);
    EXPECT_TRUE(std::ranges::all_of(image, [](std::uint8_t byte) { return byte == 0; }));
}

} // namespace
