// Entries of a sample image that zu_tierctl spoils on request.

#include "dump_text.h"
#include "sample_image.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <utility>

using namespace tier_test;

namespace {

const std::vector<std::string> DAMAGED_SIZES{"--bricks", "6",  "--inodes",     "40",
                                             "--blocks", "30", "--block-size", "262144"};

// Six blocks of each packed table.
const std::vector<std::string> SIZES_V3{"--bricks",  "6",    "--inodes",   "40",
                                        "--shards",  "3072", "--hot-size", "24576",
                                        "--extents", "3072", "--blocks",   "1"};

Device damaged_sample(const std::vector<std::string> &damages, const std::string &seed = "1",
                      const std::string &layout = "v1")
{
    std::vector<std::string> args = layout == "v3" ? SIZES_V3 : DAMAGED_SIZES;
    args.insert(args.end(), {"--seed", seed});
    for (const std::string &damage : damages)
        args.insert(args.end(), {"--damage", damage});
    return make_sample(args, layout);
}

std::size_t changed_bits(ConstByteSpan before, ConstByteSpan after)
{
    std::size_t bits = 0;
    for (std::size_t i = 0; i < before.size(); ++i)
        bits +=
            static_cast<std::size_t>(std::popcount(static_cast<unsigned>(before[i] ^ after[i])));
    return bits;
}

struct DamageKind {
    std::string kind; // as on the command line, empty for none
    // Whether exactly that is wrong with the slot.
    void (*expect)(const SampleTable &table, const Block &before, const Block &after);
};

void expect_wrong_checksum(const SampleTable &table, const Block &before, const Block &after)
{
    const std::uint32_t wrong = table.stored(after) ^ table.stored(before);
    EXPECT_NE(wrong, 0U);
    EXPECT_EQ(table.computed(after), table.stored(before));
    EXPECT_EQ(changed_bits(before, after), static_cast<std::size_t>(std::popcount(wrong)));
}

// Another value in four bytes, under a right checksum.
void expect_other_field(std::int64_t at, const SampleTable &table, Block before, const Block &after)
{
    const auto offset = static_cast<std::size_t>(at);
    EXPECT_NE(get_u32(after, offset), get_u32(before, offset));
    put_u32(before, offset, get_u32(after, offset));
    seal(before, table.record_length);
    EXPECT_EQ(after, before);
}

void expect_wrong_magic(const SampleTable &table, const Block &before, const Block &after)
{
    expect_other_field(table.magic_at, table, before, after);
}

void expect_wrong_number(const SampleTable &table, const Block &before, const Block &after)
{
    expect_other_field(table.number_at, table, before, after);
}

void expect_zero(const SampleTable &, const Block &before, const Block &after)
{
    EXPECT_NE(before, Block{});
    EXPECT_EQ(after, Block{});
}

void expect_one_bit(const SampleTable &table, const Block &before, const Block &after)
{
    EXPECT_EQ(changed_bits(before, after), 1U);
    EXPECT_EQ(changed_bits(ConstByteSpan(before).first(table.record_length),
                           ConstByteSpan(after).first(table.record_length)),
              1U);
}

const std::vector<DamageKind> DAMAGE_KINDS{
    {"", expect_wrong_checksum},    {":checksum", expect_wrong_checksum},
    {":magic", expect_wrong_magic}, {":number", expect_wrong_number},
    {":zero", expect_zero},         {":bit", expect_one_bit},
};

// A table that has nothing to be wrong in that way refuses it.
bool applies(const DamageKind &damage, const SampleTable &table)
{
    if (damage.expect == expect_wrong_checksum)
        return table.stored != nullptr;
    return (damage.expect != expect_wrong_magic || table.magic_at >= 0) &&
           (damage.expect != expect_wrong_number || table.number_at >= 0);
}

// Every kind of damage in an image of the layout.
class SampleDamageKinds : public testing::TestWithParam<std::string> {
protected:
    const std::string layout = GetParam();
    const Device good = damaged_sample({}, "1", layout);

    std::vector<SampleTable> tables() const
    {
        const Block super = good.block(4096);
        if (layout == "v1")
            return sample_tables(decode_super(super));
        return layout == "v2" ? sample_tables(decode_super_v2(super))
                              : sample_tables(decode_super_v3(super));
    }

    // The damaged image, which differs from the good one in the slot at `offset` and nowhere else.
    Device damaged(const std::string &what, std::uint64_t offset) const
    {
        Device bad = damaged_sample({what}, "1", layout);
        std::vector<std::uint8_t> content = bad.bytes();
        put_bytes(content, offset, good.block(offset));
        EXPECT_TRUE(content == good.bytes());
        return bad;
    }

    // The tool finds entry `no` damaged and no other. Without checksums it cannot know.
    void expect_reported(const Device &bad, const SampleTable &table, std::uint64_t no) const
    {
        const LoggedRun run = run_logged(bad, table.command, {"-g", "error=1"});
        EXPECT_EQ(run.status, 0) << run;
        std::vector<std::string> records;
        if (table.stored != nullptr)
            records.push_back(error_record(14, table.key.c_str(), static_cast<std::int64_t>(no),
                                           table.offset(no)));
        EXPECT_EQ(run.out, dump_of(table, joined(records)));
        EXPECT_EQ(run_logged(bad, table.command, {"-n", std::to_string(no)}).status,
                  table.stored != nullptr ? 14 : 0);
    }

    // A whole dump that shows `entries`.
    std::string dump_of(const SampleTable &table, const std::string &entries) const
    {
        const bool framed = layout == "v2" && table.name == "inode";
        return framed ? "{ \"inode\":" + entries + "}" : entries;
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, SampleDamageKinds, testing::Values("v1", "v2", "v3"),
                         [](const auto &layout) { return layout.param; });

TEST_P(SampleDamageKinds, InATableAreWhatTheToolReports)
{
    for (const SampleTable &table : tables()) {
        for (const DamageKind &damage : DAMAGE_KINDS) {
            if (!applies(damage, table))
                continue;
            for (const std::uint64_t no : {0U, 1U, 5U}) {
                const std::string what = table.name + ":" + std::to_string(no) + damage.kind;
                SCOPED_TRACE(what);
                const auto at = static_cast<std::uint64_t>(table.offset(no));
                const Device bad = damaged(what, at);
                damage.expect(table, good.block(at), bad.block(at));

                expect_reported(bad, table, no);
            }
        }
    }
}

TEST_P(SampleDamageKinds, InTheSuperBlockMakeTheToolRefuseTheDevice)
{
    const std::map<std::string, std::size_t> lengths{
        {"v1", SuperV1::LENGTH}, {"v2", SuperV2::LENGTH}, {"v3", SuperV3::LENGTH}};
    const SampleTable table = sample_super(lengths.at(layout));
    for (const DamageKind &damage : DAMAGE_KINDS) {
        if (!applies(damage, table))
            continue;
        SCOPED_TRACE(damage.kind);
        const Device bad = damaged("super:0" + damage.kind, 4096);
        damage.expect(table, good.block(4096), bad.block(4096));
        const LoggedRun run = run_logged(bad, table.command);
        EXPECT_EQ(run.status, 14);
        EXPECT_EQ(run.errors,
                  Log{error_line("main", "super block may corrupt. path:" + bad.path())});
    }
}

class SampleDamage : public testing::Test {
protected:
    const Device good = damaged_sample({});
    const SuperV1 sb = decode_super(good.block(4096));
};

TEST_F(SampleDamage, LastEntriesAreFreeAndCanBeDamaged)
{
    const Device bad = damaged_sample({"brick:5:number", "inode:39:magic", "extent:29:zero"});
    const std::vector<std::uint64_t> last{5, 39, 29};
    const std::vector<SampleTable> tables = sample_tables(sb);
    for (std::size_t i = 0; i < tables.size(); ++i) {
        const std::int64_t offset = tables[i].offset(last[i]);
        EXPECT_EQ(run_logged(bad, tables[i].command, {"-g", "error=1"}).out,
                  text("[{\"error\":14, \"%s\":%lu, \"meta_offset\":%ld}]", tables[i].key.c_str(),
                       last[i], offset));
    }
}

TEST_F(SampleDamage, SeveralEntriesOfATable)
{
    const Device bad = damaged_sample({"inode:39:bit", "inode:0", "inode:17:number"});
    std::string expected;
    for (const std::uint64_t no : {0U, 17U, 39U})
        expected += text("%s{\"error\":14, \"no\":%lu, \"meta_offset\":%ld}",
                         expected.empty() ? "" : ",", no, inode_offset(sb, no));
    EXPECT_EQ(run_logged(bad, "dump_inode", {"-g", "error=1"}).out, "[" + expected + "]");
}

TEST_F(SampleDamage, SeedChoosesTheBit)
{
    const auto at = static_cast<std::uint64_t>(inode_offset(sb, 39)); // free: alike for every seed
    const Block before = good.block(at);
    std::set<Block> results;
    for (int seed = 1; seed <= 8; ++seed) {
        const Block after = damaged_sample({"inode:39:bit"}, std::to_string(seed)).block(at);
        EXPECT_EQ(changed_bits(before, after), 1U);
        EXPECT_EQ(damaged_sample({"inode:39:bit"}, std::to_string(seed)).block(at), after);
        results.insert(after);
    }
    EXPECT_GT(results.size(), 1U);
}

TEST_F(SampleDamage, BadRequestsAreRefused)
{
    const std::string known_tables = "expected one of the tables brick, inode, extent, super";
    const std::string known_kinds = "expected one of the kinds checksum, magic, number, zero, bit";
    const std::vector<std::pair<std::string, std::string>> requests{
        {"inode", "expected TABLE:NO or TABLE:NO:KIND"},
        {"inode:1:bit:2", "expected TABLE:NO or TABLE:NO:KIND"},
        {"file:1", known_tables},
        {":1", known_tables},
        {"shard:1", known_tables},
        {"inode:1:size", known_kinds},
        {"inode:1:", known_kinds},
        {"inode:", "expected an entry of 0..39"},
        {"inode:x", "expected an entry of 0..39"},
        {"inode:1x", "expected an entry of 0..39"},
        {"inode:-1", "expected an entry of 0..39"},
        {"inode:08", "expected an entry of 0..39"},
        {"inode:0x28", "expected an entry of 0..39"},
        {"inode:40", "expected an entry of 0..39"},
        {"inode:18446744073709551616", "expected an entry of 0..39"},
        {"brick:6", "expected an entry of 0..5"},
        {"extent:30:bit", "expected an entry of 0..29"},
        {"super:1", "expected an entry of 0..0"},
        {"extent:1:magic", "expected one of the kinds checksum, number, zero, bit"},
        {"super:0:number", "expected one of the kinds checksum, magic, zero, bit"},
    };
    for (const auto &[request, complaint] : requests) {
        std::vector<std::string> args = DAMAGED_SIZES;
        args.insert(args.end(), {"--damage", "brick:1", "--damage", request});
        expect_refused(args, "--damage " + request + ": " + complaint);
    }
}

// The entries of packed tables are blocks.
TEST_F(SampleDamage, BadRequestsForLayoutV3AreRefused)
{
    const std::vector<std::pair<std::string, std::string>> requests{
        {"file:1", "expected one of the tables brick, inode, shard, hot, extent, super"},
        {"shard:6", "expected an entry of 0..5"},
        {"hot:6", "expected an entry of 0..5"},
        {"extent:6", "expected an entry of 0..5"},
        {"shard:0:number", "expected one of the kinds checksum, magic, zero, bit"},
        {"hot:0:checksum", "expected one of the kinds zero, bit"},
        {"hot:0:magic", "expected one of the kinds zero, bit"},
        {"hot:0:number", "expected one of the kinds zero, bit"},
        {"extent:0:magic", "expected one of the kinds checksum, zero, bit"},
        {"extent:0:number", "expected one of the kinds checksum, zero, bit"},
    };
    for (const auto &[request, complaint] : requests) {
        std::vector<std::string> args = SIZES_V3;
        args.insert(args.end(), {"--damage", request});
        expect_refused(args, "--damage " + request + ": " + complaint, "v3");
    }
}

TEST_F(SampleDamage, HotBlocksAreZeroedByDefault)
{
    EXPECT_TRUE(damaged_sample({"hot:1"}, "1", "v3").bytes() ==
                damaged_sample({"hot:1:zero"}, "1", "v3").bytes());
}

// One damage could undo the other.
// Numbers are read as zu_tier reads that of -n.
TEST_F(SampleDamage, NumbersInOtherNotations)
{
    const auto image = [](const std::string &no, const std::string &inodes) {
        return make_sample({"--inodes", inodes, "--damage", "inode:" + no}).bytes();
    };
    const auto plain = image("16", "20");
    EXPECT_TRUE(image("0x10", "20") == plain);
    EXPECT_TRUE(image("020", "024") == plain);
    EXPECT_TRUE(image("16", "0x14") == plain);
}

TEST_F(SampleDamage, AnEntryIsDamagedOnce)
{
    expect_refused({"--damage", "brick:1", "--damage", "brick:1:bit"},
                   "--damage brick:1:bit: that entry is damaged already");
}

} // namespace
