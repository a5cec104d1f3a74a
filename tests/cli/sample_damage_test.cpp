// Entries of a sample image that zu_tierctl spoils on request.

#include "dump_text.h"
#include "sample_image.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <utility>

using namespace tier_test;

namespace {

const std::vector<std::string> SIZES{"--bricks", "6",  "--inodes",     "40",
                                     "--blocks", "30", "--block-size", "262144"};

Device damaged_sample(const std::vector<std::string> &damages, const std::string &seed = "1",
                      const std::string &layout = "v1")
{
    std::vector<std::string> args = SIZES;
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

struct Damage {
    std::string kind; // as on the command line, empty for none
    // Whether exactly that is wrong with the slot.
    void (*expect)(const SampleTable &table, const Block &before, const Block &after);
};

void expect_wrong_checksum(const SampleTable &table, const Block &before, const Block &after)
{
    EXPECT_NE(get_u32(after, 0), get_u32(before, 0));
    EXPECT_EQ(record_crc(after, table.record_length), get_u32(before, 0));
    EXPECT_TRUE(std::equal(before.begin() + 4, before.end(), after.begin() + 4));
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

const std::vector<Damage> DAMAGES{
    {"", expect_wrong_checksum},    {":checksum", expect_wrong_checksum},
    {":magic", expect_wrong_magic}, {":number", expect_wrong_number},
    {":zero", expect_zero},         {":bit", expect_one_bit},
};

// Every kind of damage in an image of the layout.
class SampleDamageKinds : public testing::TestWithParam<std::string> {
protected:
    const std::string layout = GetParam();
    const Device good = damaged_sample({}, "1", layout);

    std::vector<SampleTable> tables() const
    {
        const Block super = good.block(4096);
        return layout == "v1" ? sample_tables(decode_super(super))
                              : sample_tables(decode_super_v2(super));
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

    // A whole dump that shows `entries`.
    std::string dump_of(const SampleTable &table, const std::string &entries) const
    {
        const bool framed = layout == "v2" && table.name == "inode";
        return framed ? "{ \"inode\":" + entries + "}" : entries;
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, SampleDamageKinds, testing::Values("v1", "v2"),
                         [](const auto &layout) { return layout.param; });

TEST_P(SampleDamageKinds, InATableAreWhatTheToolReports)
{
    for (const SampleTable &table : tables()) {
        for (const Damage &damage : DAMAGES) {
            if (damage.kind == ":magic" && table.magic_at < 0)
                continue;
            for (const std::uint64_t no : {0U, 1U, 5U}) {
                const std::string what = table.name + ":" + std::to_string(no) + damage.kind;
                SCOPED_TRACE(what);
                const std::int64_t offset = table.offset(no);
                const auto at = static_cast<std::uint64_t>(offset);
                const Device bad = damaged(what, at);
                damage.expect(table, good.block(at), bad.block(at));

                const LoggedRun run = run_logged(bad, table.command, {"-g", "error=1"});
                EXPECT_EQ(run.status, 0) << run;
                EXPECT_EQ(
                    run.out,
                    dump_of(table, joined({error_record(14, table.key.c_str(),
                                                        static_cast<std::int64_t>(no), offset)})));
                EXPECT_EQ(run_logged(bad, table.command, {"-n", std::to_string(no)}).status, 14);
            }
        }
    }
}

TEST_P(SampleDamageKinds, InTheSuperBlockMakeTheToolRefuseTheDevice)
{
    const SampleTable table = sample_super(layout == "v1" ? SuperV1::LENGTH : SuperV2::LENGTH);
    for (const Damage &damage : DAMAGES) {
        if (damage.kind == ":number")
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
    const std::string known_kinds = "checksum, magic, number, zero, bit";
    const std::vector<std::pair<std::string, std::string>> requests{
        {"inode", "expected TABLE:NO or TABLE:NO:KIND"},
        {"inode:1:bit:2", "expected TABLE:NO or TABLE:NO:KIND"},
        {"file:1", "unknown table, expected one of brick, inode, extent, super"},
        {":1", "unknown table, expected one of brick, inode, extent, super"},
        {"inode:1:size", "unknown kind, expected one of " + known_kinds},
        {"inode:1:", "unknown kind, expected one of " + known_kinds},
        {"inode:", "expected an entry of 0..39"},
        {"inode:x", "expected an entry of 0..39"},
        {"inode:1x", "expected an entry of 0..39"},
        {"inode:-1", "expected an entry of 0..39"},
        {"inode:40", "expected an entry of 0..39"},
        {"inode:18446744073709551616", "expected an entry of 0..39"},
        {"brick:6", "expected an entry of 0..5"},
        {"extent:30:bit", "expected an entry of 0..29"},
        {"super:1", "expected an entry of 0..0"},
        {"extent:1:magic", "extent entries have no magic"},
        {"super:0:number", "super entries have no number"},
    };
    const TempDir directory;
    const std::string path = directory.path("image");
    for (const auto &[request, complaint] : requests) {
        SCOPED_TRACE(request);
        std::vector<std::string> args = SIZES;
        args.insert(args.end(), {"--damage", "brick:1", "--damage", request});
        const RunResult run = run_sample(path, args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "zu_tierctl: --damage " + request + ": " + complaint + "\n");
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

// One damage could undo the other.
TEST_F(SampleDamage, AnEntryIsDamagedOnce)
{
    const TempDir directory;
    const RunResult run =
        run_sample(directory.path("image"), {"--damage", "brick:1", "--damage", "brick:1:bit"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "zu_tierctl: --damage brick:1:bit: that entry is damaged already\n");
}

} // namespace
