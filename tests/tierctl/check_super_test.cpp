// What zu_tierctl check finds wrong with a super block: each rule broken by itself.

#include "check_run.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

template <class World>
struct SuperCase {
    const char *name;
    std::function<void(World &)> change;
    std::vector<std::string> kinds{};
};

constexpr std::uint64_t KIB4 = 4096;

// A device that has nothing but this super block, up to the end of the last area.
template <class Super>
Device super_only(const Super &sb)
{
    Device device(MIB);
    device.write(SUPER_OFFSET, encode(sb));
    device.truncate(sb.data_offset + std::uint64_t{sb.block_size} * sb.block_cnt);
    return device;
}

bool is_odd(const std::string &kind)
{
    return kind.starts_with("odd_") || kind == "entries_left_out";
}

std::string super_finding(const std::string &kind)
{
    return is_odd(kind) ? warning(kind, "super", 0, SUPER_OFFSET)
                        : error(kind, "super", 0, SUPER_OFFSET);
}

template <class World>
void expect_cases(const std::vector<SuperCase<World>> &cases)
{
    for (const auto &[name, change, kinds] : cases) {
        SCOPED_TRACE(name);
        World world;
        change(world);
        std::vector<std::string> expected;
        for (const std::string &kind : kinds)
            expected.push_back(super_finding(kind));
        expect_findings(super_only(world.sb), expected, {"--table", "super"});
    }
}

template <class World>
std::vector<SuperCase<World>> head_cases()
{
    const auto resized = [](auto SuperHead::*field, std::uint64_t value) {
        return [field, value](World &world) {
            world.sb.*field =
                static_cast<std::remove_reference_t<decltype(world.sb.*field)>>(value);
            set_geometry(world.sb);
        };
    };
    const auto blocks_of = [](std::uint32_t size) {
        return [size](World &world) {
            world.sb.block_size = size;
            if constexpr (std::is_same_v<World, WorldV2>) {
                world.sb.min_alloc_size = (size + world.sb.map_cnt - 1) / world.sb.map_cnt;
            }
        };
    };
    return {
        {"as it is", [](World &) {}},
        {"area of 1 MiB and 4096", resized(&SuperHead::size, 0x101000), {"bad_super_block_size"}},
        {"300 bricks", resized(&SuperHead::brick_cnt, 300)},
        {"301 bricks", resized(&SuperHead::brick_cnt, 301), {"bad_brick_table"}},
        {"no brick", resized(&SuperHead::brick_cnt, 0), {"bad_brick_table"}},
        {"size of the brick table",
         [](World &world) {
             world.sb.brick_table_size += KIB4;
             world.sb.inode_table_size -= KIB4;
         },
         {"bad_brick_table"}},
        {"100000 inodes", resized(&SuperHead::inode_cnt, 100000)},
        {"100001 inodes", resized(&SuperHead::inode_cnt, 100001), {"bad_inode_table"}},
        {"no inode", resized(&SuperHead::inode_cnt, 0), {"bad_inode_table"}},
        {"size of the inode table",
         [](World &world) {
             world.sb.inode_table_size += MIB;
             world.sb.data_offset += MIB;
         },
         {"bad_inode_table"}},
        {"small blocks", blocks_of(262144 - 4096), {"bad_block_size"}},
        {"large blocks", blocks_of(4194304 + 4096), {"bad_block_size"}},
        {"crooked blocks", blocks_of(262144 + 2048), {"bad_block_size"}},
        {"largest blocks", blocks_of(4194304)},
        {"size of the extent table",
         [](World &world) {
             world.sb.extent_table_size += MIB;
             world.sb.data_offset += MIB;
         },
         {"bad_extent_table"}},
        {"place of the data",
         [](World &world) { world.sb.data_offset += KIB4; },
         {"bad_data_area"}},
        {"37 characters", [](World &world) { world.sb.ssd_uuid.pop_back(); }, {"bad_ssd_uuid"}},
        {"39 characters", [](World &world) { world.sb.ssd_uuid += 'x'; }, {"bad_ssd_uuid"}},
        {"48 characters",
         [](World &world) { world.sb.ssd_uuid = std::string(48, 'x'); },
         {"bad_ssd_uuid"}},
    };
}

TEST(CheckSuper, HeadOfV1) { expect_cases(head_cases<WorldV1>()); }

TEST(CheckSuper, HeadOfV2) { expect_cases(head_cases<WorldV2>()); }

TEST(CheckSuper, ExtentsOfV1)
{
    const auto size = [](std::uint32_t value) {
        return [value](WorldV1 &world) { world.sb.extent_size = value; };
    };
    expect_cases<WorldV1>({
        {"55", size(55), {"bad_extent_size"}},
        {"56", size(56)},
        {"4096", size(4096)},
        {"4097", size(4097), {"bad_extent_size"}},
    });
}

TEST(CheckSuper, ExtentsOfV2)
{
    // With as many pieces as a block of 1 MiB needs.
    const auto sizes = [](std::uint32_t extent_size, std::uint32_t map_cnt) {
        return [extent_size, map_cnt](WorldV2 &world) {
            world.sb.extent_size = extent_size;
            world.sb.min_alloc_size = map_cnt == 0 ? 0 : (1048576 + map_cnt - 1) / map_cnt;
            set_maps(world.sb, map_cnt);
        };
    };
    const auto alloc = [](std::uint32_t block_size, std::uint32_t min_alloc_size,
                          std::uint32_t map_cnt) {
        return [block_size, min_alloc_size, map_cnt](WorldV2 &world) {
            world.sb.block_size = block_size;
            world.sb.min_alloc_size = min_alloc_size;
            set_maps(world.sb, map_cnt);
        };
    };
    expect_cases<WorldV2>({
        {"55", sizes(55, 32), {"bad_extent_size"}},
        {"4096 in all", sizes(4096 - 64 - 64 * 16, 64)},
        {"4097 in all", sizes(4097 - 64 - 64 * 16, 64), {"bad_extent_size"}},
        {"65 pieces", sizes(72, 65), {"bad_map"}},
        {"no pieces", sizes(72, 0), {"odd_map_count"}},
        {"size of the pieces",
         [](WorldV2 &world) {
             world.sb.total_map_size++;
             world.sb.total_extent_size++;
         },
         {"bad_map"}},
        {"as large as a block", alloc(1048576, 1048576, 1)},
        {"larger than a block", alloc(1048576, 1048577, 1), {"bad_min_alloc_size"}},
        {"one piece too few", alloc(1048576, 32768, 31), {"odd_map_count"}},
        {"one piece too many", alloc(1048576, 32768, 33), {"odd_map_count"}},
        {"a piece for a rest", alloc(1048576 + 4096, 32768, 33)},
        {"no piece for a rest", alloc(1048576 + 4096, 32768, 32), {"odd_map_count"}},
        {"pieces for nothing", alloc(1048576, 0, 32), {"odd_map_count"}},
        {"other hot area", [](WorldV2 &world) { world.sb.hot_size--; }, {"odd_extent_length"}},
        {"pieces of 32 bytes",
         [](WorldV2 &world) {
             world.sb.size_mapped_meta = 32;
             world.sb.min_alloc_size = 65536;
             set_maps(world.sb, 16);
         },
         {"odd_piece_size"}},
    });
}

// The area may be missing from the device, which its parameters do not show.
TEST(CheckSuper, ExpansionOfV2)
{
    struct {
        std::uint16_t magic;
        std::uint8_t area;
        std::uint8_t inuse;
        std::vector<std::string> kinds;
    } const cases[] = {
        {0, 0, 0, {}},
        {0x4558, 1, 0x53, {}},
        {0x4558, 1, 0, {}},
        {0x4558, 0, 0, {"odd_expansion"}},
        {0x4558, 0, 0x53, {"odd_expansion"}},
        {0x4558, 1, 0x54, {"odd_expansion"}},
        {0x4559, 1, 0x53, {"odd_expansion"}},
        {0, 1, 0, {"odd_expansion"}},
        {0, 0, 0x53, {"odd_expansion"}},
    };
    for (const auto &[magic, area, inuse, kinds] : cases) {
        SCOPED_TRACE(text("%x %u %x", magic, area, inuse));
        WorldV2 world;
        world.sb.exp_magic = magic;
        world.sb.exp_area = area;
        world.sb.exp_inuse = inuse;
        Device device = super_only(world.sb);
        device.truncate(device.size() + MIB + expansion_count(world.sb) * KIB4);
        std::vector<std::string> expected;
        for (const std::string &kind : kinds)
            expected.push_back(super_finding(kind));
        expect_findings(device, expected, {"--table", "super"});
    }
}

TEST(CheckSuper, V3)
{
    const auto resized = [](std::uint64_t SuperV3::*field, std::uint64_t value) {
        return [field, value](WorldV3 &world) {
            world.sb.*field = value;
            set_geometry(world.sb);
        };
    };
    // Away from what the count asks for.
    const auto longer = [](std::uint64_t SuperV3::*size) {
        return [size](WorldV3 &world) { world.sb.*size += 1; };
    };
    const auto shorter = [](std::uint64_t SuperV3::*size) {
        return [size](WorldV3 &world) { world.sb.*size -= 1; };
    };
    const std::vector<std::string> bricks{"bad_brick_table"};
    const std::vector<std::string> inodes{"bad_inode_table"};
    const std::vector<std::string> shards{"bad_shard_table"};
    const std::vector<std::string> extents{"bad_extent_table"};
    const std::vector<std::string> block{"bad_block_size"};
    expect_cases<WorldV3>({
        {"as it is", [](WorldV3 &) {}},
        {"area", resized(&SuperV3::size, 0x101000), {"bad_super_block_size"}},
        {"8192", resized(&SuperV3::block_size, 8192)},
        {"65536", resized(&SuperV3::block_size, 65536)},
        {"4096", resized(&SuperV3::block_size, 4096), block},
        {"69632", resized(&SuperV3::block_size, 69632), block},
        {"12289", resized(&SuperV3::block_size, 12289), block},
        {"300 bricks", resized(&SuperV3::brick_cnt, 300)},
        {"301 bricks", resized(&SuperV3::brick_cnt, 301), bricks},
        {"no brick", resized(&SuperV3::brick_cnt, 0), bricks},
        {"larger brick table", longer(&SuperV3::brick_table_size)},
        {"smaller brick table", shorter(&SuperV3::brick_table_size), bricks},
        {"262144 inodes", resized(&SuperV3::inode_cnt, 262144)},
        {"262145 inodes", resized(&SuperV3::inode_cnt, 262145), inodes},
        {"no inode", resized(&SuperV3::inode_cnt, 0), inodes},
        {"larger inode table", longer(&SuperV3::inode_table_size), inodes},
        {"smaller inode table", shorter(&SuperV3::inode_table_size), inodes},
        {"524288 shards", resized(&SuperV3::shard_cnt, 524288)},
        {"524800 shards", resized(&SuperV3::shard_cnt, 524800), shards},
        {"no shard", resized(&SuperV3::shard_cnt, 0), shards},
        {"larger shard table", longer(&SuperV3::shard_table_size), shards},
        {"1073741824 extents", resized(&SuperV3::extent_cnt, 1073741824)},
        {"1073741825 extents",
         resized(&SuperV3::extent_cnt, 1073741825),
         {"bad_extent_table", "entries_left_out"}},
        {"512 shards", resized(&SuperV3::shard_cnt, 512)},
        {"1535 shards",
         [](WorldV3 &world) {
             world.sb.shard_cnt--;
             world.sb.shard_table_size -= 8;
         },
         {"entries_left_out"}},
        {"2049 extents",
         [](WorldV3 &world) {
             world.sb.extent_cnt++;
             world.sb.extent_table_size += 8;
         },
         {"entries_left_out"}},
        {"area from 0 on",
         [](WorldV3 &world) { world.sb.sb_offset = 0; },
         {"odd_super_block_offset"}},
        {"area somewhere else",
         [](WorldV3 &world) { world.sb.sb_offset = 4097; },
         {"odd_super_block_offset"}},
        {"blocks past any offset",
         [](WorldV3 &world) {
             world.sb.block_size = 65536;
             world.sb.block_cnt = std::uint64_t{1} << 48;
             world.sb.data_size = 0; // the product, if it were cut off
         },
         {"bad_data_area", "area_past_end"}},
        {"reserved area in the tables",
         [](WorldV3 &world) {
             world.sb.reserved_offset = world.sb.inode_table_offset + 1;
             world.sb.reserved_size = 1;
         },
         {"areas_overlap"}},
        {"reserved area before the tables",
         [](WorldV3 &world) {
             world.sb.reserved_offset = MIB + KIB4;
             world.sb.reserved_size = world.sb.brick_table_offset - world.sb.reserved_offset;
         }},
        {"reserved area past the end",
         [](WorldV3 &world) {
             world.sb.reserved_offset = world.sb.data_offset + world.sb.data_size;
             world.sb.reserved_size = 1;
         },
         {"area_past_end"}},
        {"no extent", resized(&SuperV3::extent_cnt, 0), extents},
        {"smaller extent table", shorter(&SuperV3::extent_table_size), extents},
        {"smaller data area", shorter(&SuperV3::data_size), {"bad_data_area"}},
        {"hot table of any size", [](WorldV3 &world) { world.sb.hot_table_size = 10000; }},
        {"37 characters", [](WorldV3 &world) { world.sb.ssd_uuid.pop_back(); }, {"bad_ssd_uuid"}},
        {"misaligned",
         [](WorldV3 &world) { world.sb.brick_table_offset += 512; },
         {"area_misaligned"}},
        {"two tables in one place",
         [](WorldV3 &world) { world.sb.inode_table_offset = world.sb.brick_table_offset; },
         {"areas_overlap"}},
        {"last byte of the super block area",
         [](WorldV3 &world) { world.sb.brick_table_offset = MIB; },
         {"areas_overlap"}},
        {"right after the super block area",
         [](WorldV3 &world) { world.sb.brick_table_offset = MIB + KIB4; }},
        {"other order",
         [](WorldV3 &world) {
             std::swap(world.sb.hot_table_offset, world.sb.shard_table_offset);
             ASSERT_EQ(world.sb.hot_table_size, world.sb.shard_table_size);
         },
         {"areas_out_of_order"}},
    });
}

TEST(CheckSuper, OverlapIsTold)
{
    WorldV3 world;
    world.sb.inode_table_offset = world.sb.brick_table_offset + KIB4;
    const Device device = super_only(world.sb);
    const Report report = run_check(device.path(), {"--table", "super"});
    ASSERT_EQ(report.findings.size(), 1U);
    EXPECT_EQ(report.findings[0].text,
              text("the inode table (%lu bytes from %lu on) overlaps the brick table (%lu bytes "
                   "from %lu on)",
                   world.sb.inode_table_size, world.sb.inode_table_offset,
                   world.sb.brick_table_size, world.sb.brick_table_offset));
    EXPECT_EQ(report.findings[0].command,
              "zu_tier -l tier.log -p " + device.path() + " -c dump_super");
}

// Kinds and texts of the findings about a super block, in their order.
template <class Super>
std::vector<std::string> told(const Super &sb)
{
    Device device(8 * MIB);
    device.write(SUPER_OFFSET, encode(sb));
    std::vector<std::string> told;
    for (const Finding &finding : run_check(device.path(), {"--table", "super"}).findings)
        told.push_back(finding.kind + ": " + finding.text);
    return told;
}

bool has(const std::vector<std::string> &all, const std::string &one)
{
    return std::ranges::find(all, one) != all.end();
}

// The areas of which a device that ends with its super block has too little.
template <class Super>
std::vector<std::string> areas_past_the_end(const Super &sb)
{
    Device device(MIB + KIB4);
    device.write(SUPER_OFFSET, encode(sb));
    std::vector<std::string> areas;
    for (const Finding &finding : run_check(device.path(), {"--table", "super"}).findings) {
        if (finding.kind == "area_past_end") {
            const std::string_view text = std::string_view(finding.text).substr(4); // "the "
            areas.emplace_back(text.substr(0, text.find(" (")));
        }
    }
    return areas;
}

TEST(CheckSuper, EveryAreaPastTheEndIsNamed)
{
    WorldV2 v2;
    set_expansion(v2.sb, EXPANSION_UNIT, true);
    using Areas = std::vector<std::string>;
    EXPECT_EQ(areas_past_the_end(WorldV1().sb),
              (Areas{"brick table", "inode table", "extent table", "data area"}));
    EXPECT_EQ(areas_past_the_end(v2.sb), (Areas{"brick table", "inode table", "extent table",
                                                "data area", "expansion inode area"}));
    EXPECT_EQ(areas_past_the_end(WorldV3().sb), (Areas{"brick table", "inode table", "shard table",
                                                       "hot table", "extent table", "data area"}));
}

// What does not fit in 64 bits is said in words.
TEST(CheckSuper, SumsPastAnyOffset)
{
    WorldV1 v1;
    const std::uint64_t bricks_at = MIB + KIB4;
    v1.sb.brick_table_size = ~std::uint64_t{0} - bricks_at + 1; // the inodes at 0, if it were cut
    std::vector<std::string> found = told(v1.sb);
    EXPECT_TRUE(has(found, text("bad_inode_table: the table has %u entries in %lu bytes, which "
                                "reach past any offset",
                                v1.sb.inode_cnt, v1.sb.inode_table_size)));
    EXPECT_TRUE(has(found, "bad_data_area: the tables before the data area reach past any offset"));
    EXPECT_TRUE(has(found, text("area_past_end: the brick table (%lu bytes from %lu on, past any "
                                "offset) reaches past the device's end at %lu",
                                v1.sb.brick_table_size, bricks_at, 8 * MIB)));
    EXPECT_TRUE(has(found, text("area_past_end: the inode table (past any offset) reaches past the "
                                "device's end at %lu",
                                8 * MIB)));
    for (const std::string &finding : found)
        EXPECT_EQ(finding.find("from 0 on"), std::string::npos) << finding;

    WorldV2 v2;
    set_expansion(v2.sb, EXPANSION_UNIT, true);
    v2.sb.data_offset = ~std::uint64_t{0} - MIB;
    found = told(v2.sb);
    EXPECT_TRUE(has(found, text("area_past_end: the expansion inode area (past any offset) reaches "
                                "past the device's end at %lu",
                                8 * MIB)));

    WorldV3 v3;
    v3.sb.shard_cnt = std::uint64_t{1} << 61;
    v3.sb.block_cnt = std::uint64_t{1} << 60;
    v3.sb.block_size = 65536;
    found = told(v3.sb);
    EXPECT_TRUE(has(found, text("bad_shard_table: the table has %lu entries in %lu bytes, which "
                                "reach past any offset",
                                v3.sb.shard_cnt, v3.sb.shard_table_size)));
    EXPECT_TRUE(has(found, text("bad_data_area: %lu blocks of 65536 bytes reach past any offset",
                                v3.sb.block_cnt)));
    EXPECT_TRUE(has(found, text("area_past_end: the data area (from %lu on, past any offset) "
                                "reaches past the device's end at %lu",
                                v3.sb.data_offset, 8 * MIB)));
}

TEST(CheckSuper, TextsOfOddNumbers)
{
    WorldV3 v3;
    v3.sb.extent_cnt = 4 * 512 + 7;
    set_geometry(v3.sb);
    v3.sb.sb_offset = 0;
    const std::vector<std::string> found = told(v3.sb);
    EXPECT_TRUE(has(found, "odd_super_block_offset: the super block area is said to begin at 0, "
                           "which is odd: it begins at 4096"));
    EXPECT_TRUE(has(found, "entries_left_out: 2055 extents, which is odd: the last 7 do not fill a "
                           "block and are left out"));
    WorldV2 v2;
    set_maps(v2.sb, 31);
    EXPECT_TRUE(has(told(v2.sb),
                    text("odd_map_count: 31 mapped pieces for 32768 bytes each are for %u bytes, "
                         "which is odd: a block has 1048576",
                         31 * 32768)));
}

TEST(CheckSuper, DeviceThatIsTooShort)
{
    const WorldV1 v1;
    Device device = super_only(v1.sb);
    device.truncate(device.size() - 1);
    expect_findings(device, {super_finding("area_past_end")}, {"--table", "super"});
    device.truncate(v1.sb.data_offset);
    expect_findings(device, {super_finding("area_past_end")}, {"--table", "super"});
    device.truncate(static_cast<std::uint64_t>(extent_offset(v1.sb, v1.sb.block_cnt)) - 1);
    expect_findings(device, {super_finding("area_past_end"), super_finding("area_past_end")},
                    {"--table", "super"});

    WorldV2 v2;
    set_expansion(v2.sb, EXPANSION_UNIT, true);
    expect_findings(super_only(v2.sb), {super_finding("area_past_end")}, {"--table", "super"});
}

} // namespace
