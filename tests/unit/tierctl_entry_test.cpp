// Comparing entries: no bit is left out, and none is reported twice.

#include "zu_tierctl/entry/entry.h"

#include "temp_dir.h"
#include "v3_device.h"

#include <gtest/gtest.h>
#include <memory>

#include <cjson/cJSON.h>

using namespace tier_test;
using tierctl::Access;
using tierctl::Difference;
using tierctl::Entry;
using tierctl::Metadata;
using tierctl::Table;

namespace {

struct Opened {
    explicit Opened(const Device &device)
        : metadata(read_metadata(tierctl::Device(device.path(), Access::read_only)))
    {
    }
    Metadata metadata;
};

bool is_json(const std::string &text)
{
    const std::unique_ptr<cJSON, void (*)(cJSON *)> item(
        cJSON_ParseWithOpts(text.c_str(), nullptr, 1), cJSON_Delete);
    return item != nullptr;
}

// Every bit of every 7th byte, in both directions, makes at least one difference.
void expect_every_bit_told(const Device &device)
{
    const Opened opened(device);
    for (const Table &table : opened.metadata.tables) {
        const std::uint64_t no = table.count() - 1;
        const Block slot = device.block(static_cast<std::uint64_t>(table.slot(no)));
        Block other = slot;
        const Entry a{opened.metadata, table, no, slot.data()};
        const Entry b{opened.metadata, table, no, other.data()};
        EXPECT_TRUE(entry_differences(a, b).empty());
        for (std::size_t at = 0; at < BLOCK_SIZE; at += at < 300 ? 1 : 7) {
            const auto bit = static_cast<std::uint8_t>(1U << at % 8);
            other[at] ^= bit;
            const auto differences = entry_differences(a, b);
            const auto back = entry_differences(b, a);
            ASSERT_FALSE(differences.empty()) << table.name << ", byte " << at;
            ASSERT_EQ(differences.size(), back.size());
            for (std::size_t i = 0; i < back.size(); ++i) {
                const Difference &one = differences[i];
                EXPECT_NE(one.a, one.b) << one.key;
                EXPECT_TRUE(is_json(one.a) && is_json(one.b)) << one.a << ' ' << one.b;
                if (one.a != "null" && one.b != "null") {
                    EXPECT_EQ(one.key, back[i].key);
                    EXPECT_EQ(one.a, back[i].b);
                }
            }
            EXPECT_TRUE(is_json(entry_text(b)));
            other[at] ^= bit;
        }
    }
}

TEST(TierctlEntry, EveryBitIsToldInLayoutV1)
{
    expect_every_bit_told(make_v1_device(super_v1(2, 2, 2), {brick_used(1)}, {inode_used(1, 1)},
                                         {extent_used(1, 1)}));
}

TEST(TierctlEntry, EveryBitIsToldInLayoutV2)
{
    const SuperV2 sb = super_v2(2, 2, 2);
    expect_every_bit_told(
        make_v2_device(sb, {brick_used(1)}, {inode_v2_used(1, 1)}, {extent_v2_used(1, 1)}));
}

TEST(TierctlEntry, EveryBitIsToldInLayoutV3)
{
    ShardBlockV3 shards;
    ExtentBlockV3 extents;
    for (std::uint32_t slot = 1; slot < SLOTS_V3; slot += 3) {
        shards.shards.push_back({.slot = slot, .ino = slot, .index = slot});
        extents.extents.push_back({.slot = slot, .lba = slot, .shard = slot});
    }
    expect_every_bit_told(make_v3_device(super_v3(2, 2), {brick_v3_used(1)}, {inode_v3_used(1, 1)},
                                         {{2, shards}}, {{3, extents}}));
}

// Slots of any bytes are shown as JSON.
TEST(TierctlEntry, NonsenseIsJson)
{
    const Device devices[] = {make_v1_device(super_v1(2, 2, 2)), make_v2_device(super_v2(2, 2, 2)),
                              make_v3_device(super_v3(2, 2))};
    for (const Device &device : devices) {
        const Opened opened(device);
        for (const Table &table : opened.metadata.tables) {
            Block slot;
            for (const unsigned step : {0U, 1U, 7U, 255U}) {
                for (std::size_t at = 0; at < slot.size(); ++at)
                    slot[at] = static_cast<std::uint8_t>(0xFF - at * step);
                const Entry entry{opened.metadata, table, 0, slot.data()};
                EXPECT_TRUE(is_json(entry_text(entry))) << entry_text(entry);
            }
        }
    }
}

// A sealed super block may name records and pieces that do not fit.
TEST(TierctlEntry, SizesThatDoNotFit)
{
    constexpr std::uint32_t SIZES[] = {0,    1,    4,    55,   56,   57,
                                       4080, 4081, 4095, 4096, 4097, 0xFFFFFFFF};
    SuperV2 sb = super_v2(1, 1, 1);
    for (const std::uint32_t size : SIZES) {
        for (const std::uint32_t total : SIZES) {
            sb.extent_size = size;
            sb.map_cnt = 0xFFFFFFFF;
            sb.total_extent_size = total;
            Device device = make_v1_device(super_v1(1, 1, 1));
            put_block(device, SUPER_OFFSET, encode(sb));
            const Opened opened(device);
            const Table &extents = find_table(opened.metadata.tables, "extent");
            Block slot;
            slot.fill(0xA5);
            Block other = slot;
            other[4095] ^= 1;
            const Entry a{opened.metadata, extents, 0, slot.data()};
            const Entry b{opened.metadata, extents, 0, other.data()};
            EXPECT_TRUE(is_json(entry_text(a)));
            const bool is_known = total >= 4 && total <= 4096;
            EXPECT_EQ(entry_text(a).starts_with("{\"te_checksum\":"), is_known);
            EXPECT_FALSE(entry_differences(a, b).empty());
        }
    }
}

// The first of them are named, the others counted.
TEST(TierctlEntry, DifferingFields)
{
    std::vector<Difference> differences;
    for (const std::string expected : {"", "a", "a, b", "a, b, c", "a, b, c and 1 more"}) {
        EXPECT_EQ(tierctl::differing_fields(differences), expected);
        differences.push_back(
            {std::string(1, static_cast<char>('a' + differences.size())), "", ""});
    }
    differences.resize(300);
    EXPECT_EQ(tierctl::differing_fields(differences), "a, b, c and 297 more");
}

} // namespace
