// Templates of damaged entries: what can be read, and what is said to be wrong.

#include "template_run.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

std::uint64_t slot_number(const Block &block, const StoredField &field)
{
    return field.width == 8 ? get_u64(block, field.at) : get_u32(block, field.at);
}

// What is wrong with a slot.
std::vector<std::string> flaws(const SlotTable &table, std::uint64_t no, const Block &block)
{
    std::string names;
    const auto add = [&names](bool wrong, const std::string &name) {
        if (wrong)
            names += (names.empty() ? "" : ", ") + name;
    };
    const bool wrong_number = table.number.width > 0 && slot_number(block, table.number) != no;
    add(!table.constants.empty() && get_u32(block, 4) != table.constants[0].second, "magic");
    add(wrong_number, "number");
    add(get_u32(block, 0) != record_crc(block, table.length), "checksum");
    std::vector<std::string> notes;
    if (!names.empty())
        notes.push_back("damaged: " + names);
    if (wrong_number)
        notes.push_back(
            text("has number %lu, the file has %lu", slot_number(block, table.number), no));
    return notes;
}

// Every way to damage a slot.
struct SlotDamage {
    const char *name;
    bool (*apply)(const SlotTable &table, Block &block); // false: has nothing to damage
};

const std::vector<SlotDamage> SLOT_DAMAGES{
    {"checksum",
     [](const SlotTable &, Block &block) {
         put_u32(block, 0, ~get_u32(block, 0));
         return true;
     }},
    {"magic",
     [](const SlotTable &table, Block &block) {
         put_u32(block, 4, 0x12345678);
         seal(block, table.length);
         return !table.constants.empty();
     }},
    {"number",
     [](const SlotTable &table, Block &block) {
         put_u32(block, table.number.at, 0xFFFFFFFF);
         seal(block, table.length);
         return table.number.width > 0;
     }},
    {"magic, number and checksum",
     [](const SlotTable &table, Block &block) {
         put_u32(block, 4, 0);
         put_u32(block, table.number.at, 77);
         return !table.constants.empty() && table.number.width > 0;
     }},
    {"zeros",
     [](const SlotTable &, Block &block) {
         block = Block{};
         return true;
     }},
};

// Each table's entry 1, damaged in each way.
void check_damages(Device &device, const std::vector<SlotTable> &tables)
{
    for (const SlotTable &table : tables) {
        for (const SlotDamage &damage : SLOT_DAMAGES) {
            SCOPED_TRACE(damage.name);
            const auto offset = static_cast<std::uint64_t>(table.offset(1));
            const Block good = device.block(offset);
            Block bad = good;
            if (!damage.apply(table, bad))
                continue;
            device.write(offset, bad);
            expect_template(device, {table.name, 1, offset, flaws(table, 1, bad)},
                            table.expect(1, bad));
            device.write(offset, good);
        }
    }
}

TEST(TemplateOfDamage, V1)
{
    const SuperV1 sb = super_v1(2, 2, 2);
    Device device = make_v1_device(sb, {brick_used(1)}, {inode_used(1, 1)}, {extent_used(1, 1)});
    check_damages(device, slot_tables(sb));
}

TEST(TemplateOfDamage, V2)
{
    const SuperV2 sb = super_v2(2, 2, 2);
    Device device =
        make_v2_device(sb, {brick_used(1)}, {inode_v2_used(1, 1)}, {extent_v2_used(1, 1)});
    check_damages(device, slot_tables(sb));
}

TEST(TemplateOfDamage, V3)
{
    const SuperV3 sb = super_v3(2, 2);
    Device device = make_v3_device(sb, {brick_v3_used(1)}, {inode_v3_used(1, 1)});
    check_damages(device, slot_tables(sb));
}

// Blocks of packed entries.

template <class Table>
void check_packed(Device &device, const SuperV3 &sb, const std::string &name, const Block &bad,
                  const std::vector<std::string> &notes)
{
    const auto &table = block_table<Table>();
    const auto offset = static_cast<std::uint64_t>(table.offset(sb, 1));
    device.write(offset, bad);
    expect_template(device, {name, 1, offset, notes}, expect_packed(table, sb, 1, bad));
}

TEST(TemplateOfDamage, ShardBlocks)
{
    const SuperV3 sb = packed_super(2);
    Device device = make_v3_device(sb);
    const ShardBlockV3 packed{.shards = {{.slot = 1, .ino = 3, .index = 4},
                                         {.slot = 511, .ino = 5, .in_use = 0, .index = 6}}};
    Block block = encode(packed);
    put_u32(block, 0, 1);
    check_packed<ShardTable>(device, sb, "shard", block, {"damaged: checksum"});
    put_u32(block, 4, 0x12345678);
    check_packed<ShardTable>(device, sb, "shard", block, {"damaged: magic, checksum"});
    check_packed<ShardTable>(device, sb, "shard", Block{}, {"damaged: magic, checksum"});
}

TEST(TemplateOfDamage, ExtentBlocks)
{
    const SuperV3 sb = packed_super(2);
    Device device = make_v3_device(sb);
    const ExtentBlockV3 packed{.extents = {{.slot = 0, .lba = 3, .shard = 4},
                                           {.slot = 100, .lba = 5, .in_use = 0, .sense = 6}}};
    const Block good = encode(packed);
    Block block = good;
    for (const std::size_t bit : {8U * 0, 8U * 31, 8U * 40}) // the last has no part in it
        block[bit] ^= 1;
    check_packed<ExtentTable>(device, sb, "extent", block, {"damaged: checksum"});
    check_packed<ExtentTable>(device, sb, "extent", Block{}, {"damaged: checksum"});

    Block noise;
    noise.fill(0xEE);
    check_packed<ExtentTable>(device, sb, "extent", noise, {"damaged: checksum"});
    noise.fill(0xFF);
    check_packed<ExtentTable>(device, sb, "extent", noise, {"damaged: checksum"});
}

// The super block.

template <class Super>
class TemplateOfDamagedSuper : public testing::Test {
protected:
    static Device make(const SuperV1 &sb) { return make_v1_device(sb); }
    static Device make(const SuperV2 &sb) { return make_v2_device(sb); }
    static Device make(const SuperV3 &sb) { return make_v3_device(sb); }

    static SuperV1 super(const SuperV1 &) { return super_v1(1, 2, 3); }
    static SuperV2 super(const SuperV2 &) { return super_v2(1, 2, 3); }
    static SuperV3 super(const SuperV3 &) { return super_v3(1, 2); }

    const Super sb = super(Super{});
    const SlotTable table = super_slots(sb);
    const std::string layout = text("v%u", sb.version >> 16);
    const std::string option = text(" -v %u", sb.version >> 16);
    Device device = make(sb);

    void check(const Block &bad, const std::vector<std::string> &args = {})
    {
        device.write(4096, bad);
        expect_template(device,
                        {.table = "super",
                         .no = 0,
                         .offset = 4096,
                         .before = flaws(table, 0, bad),
                         .version = option,
                         .args = args},
                        table.expect(0, bad));
    }

    void expect_unknown(const Block &bad)
    {
        device.write(4096, bad);
        expect_template_failure(device, {"super", "0"}, 2,
                                device.path() + " has no super block of a known layout, "
                                                "--layout must say which it had");
        expect_template_failure(device, {"inode", "0"}, 1,
                                device.path() + " has no super block of a known layout");
    }
};

using Supers = testing::Types<SuperV1, SuperV2, SuperV3>;
TYPED_TEST_SUITE(TemplateOfDamagedSuper, Supers);

TYPED_TEST(TemplateOfDamagedSuper, Checksum)
{
    Block bad = encode(this->sb);
    put_u32(bad, 0, 0);
    this->check(bad);
    put_u32(bad, 0, 0);
    this->check(bad, {"--layout", this->layout});
}

TYPED_TEST(TemplateOfDamagedSuper, Magic)
{
    Block bad = encode(this->sb);
    put_u32(bad, 4, 0x11111111);
    this->expect_unknown(bad);
    this->check(bad, {"--layout", this->layout});
}

TYPED_TEST(TemplateOfDamagedSuper, SealedVersion)
{
    Block bad = encode(this->sb);
    put_u32(bad, 112, 0x40000);
    seal(bad, TypeParam::LENGTH);
    this->expect_unknown(bad);
    this->check(bad, {"--layout", this->layout});
}

// Nothing of the device is left to tell: what comes of it is not repaired.
TYPED_TEST(TemplateOfDamagedSuper, Zeros)
{
    const Block zeros{};
    this->expect_unknown(zeros);
    const RunResult run = run_template(this->device, {"super", "0", "--layout", this->layout});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, this->table.expect(0, zeros).file);
    EXPECT_NE(run.err.find("zu_tierctl: super 0: damaged: magic, checksum\n"), std::string::npos);
    EXPECT_NE(run.err.find(text("a repair changes version: 0x0 -> 0x%x\n", this->sb.version)),
              std::string::npos);
    EXPECT_NE(run.err.find("refuses this file as it stands: ssd_uuid has 0 characters, not 38\n"),
              std::string::npos);
}

// A sound one needs no version.
TYPED_TEST(TemplateOfDamagedSuper, None)
{
    const Block good = encode(this->sb);
    expect_template(this->device, {"super", 0, 4096, {}, {}, "", {"--layout", this->layout}},
                    this->table.expect(0, good));
}

} // namespace
