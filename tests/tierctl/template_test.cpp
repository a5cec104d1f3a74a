// What zu_tierctl template says of an entry is what zu_tier does with its file: over every table of
// every layout, sound and damaged.

#include "cache.h"
#include "template_run.h"

#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>

using namespace tier_test;

namespace {

using Json = nlohmann::ordered_json;
using Notes = std::vector<std::string>;

struct Table {
    std::string name;
    std::uint64_t count;
    std::vector<std::string> kinds; // of damage
};

struct Sample {
    std::string layout;
    std::size_t super_length;
    std::vector<std::string> sizes;
    std::vector<Table> tables; // without the super block
};

const Table BRICKS{"brick", 6, {"checksum", "magic", "number", "zero", "bit"}};
const Table INODES{"inode", 9, BRICKS.kinds};
const Table EXTENTS{"extent", 12, {"checksum", "number", "zero", "bit"}};
const std::vector<std::string> SIZES{"--bricks", "6",  "--inodes",     "9",
                                     "--blocks", "12", "--block-size", "262144"};
const std::vector<Sample> SAMPLES{
    {"v1", SuperV1::LENGTH, SIZES, {BRICKS, INODES, EXTENTS}},
    {"v2", SuperV2::LENGTH, SIZES, {BRICKS, INODES, EXTENTS}},
    {"v3",
     SuperV3::LENGTH,
     {"--bricks", "6", "--inodes", "9", "--blocks", "1", "--block-size", "8192", "--shards", "3072",
      "--hot-size", "24576", "--extents", "3072"},
     {BRICKS,
      INODES,
      {"shard", 6, {"checksum", "magic", "zero", "bit"}},
      {"hot", 6, {"zero", "bit"}},
      {"extent", 6, {"checksum", "zero", "bit"}}}},
};

// As the name of a test.
std::ostream &operator<<(std::ostream &out, const Sample &sample) { return out << sample.layout; }

class TemplateOfSample : public testing::TestWithParam<Sample> {
protected:
    const Sample &sample = GetParam();

    Device make(const std::string &seed, const std::vector<std::string> &damages = {}) const
    {
        std::vector<std::string> args = sample.sizes;
        args.insert(args.end(), {"--seed", seed});
        for (const std::string &damage : damages)
            args.insert(args.end(), {"--damage", damage});
        return make_sample(args, sample.layout);
    }
};

// What is said of an entry of which one bit has flipped, whose file has it as it was.
void expect_mended(const Template &made)
{
    ASSERT_GE(made.flaws.size(), 3U);
    EXPECT_TRUE(made.flaws[0].starts_with("damaged: "));
    EXPECT_TRUE(made.flaws[1].starts_with("one flipped bit explains it (")) << made.flaws[1];
    EXPECT_TRUE(made.flaws[1].ends_with(" turned")) << made.flaws[1];
    EXPECT_EQ(made.flaws[2], "the file has the entry mended so; --as-is gives it as it stands");
}

INSTANTIATE_TEST_SUITE_P(Layouts, TemplateOfSample, testing::ValuesIn(SAMPLES),
                         [](const auto &sample) { return sample.param.layout; });

// What a repair of a sound entry changes: a free brick gets another identity, a block of the hot
// table is cleared, and of an extent in use V2 keeps its pieces only.
bool is_change_of_all(const std::string &layout, const std::string &table,
                      const std::string &change)
{
    static const std::map<std::string, std::regex> KNOWN{
        {"brick", std::regex("(bi_checksum|bi_uuid): .* -> a new one each time")},
        {"hot", std::regex("bytes 0\\.\\.4095: .*")},
        {"extent", std::regex("(te_(checksum|block|size|clean|ntime|hot)"
                              "|bytes [0-9.]+ \\((bitmap|hot area)\\)): .*")}};
    const bool known = KNOWN.contains(table) && (table != "extent" || layout == "v2");
    return known && std::regex_match(change, KNOWN.at(table));
}

TEST_P(TemplateOfSample, SoundEntries)
{
    for (const std::string seed : {"1", "18446744073709551615"}) {
        const Device device = make(seed);
        TemplateProof proof(device);
        for (const Notes &args : {Notes{}, Notes{"--layout", sample.layout}}) {
            const Template super = proof.check("super", 0, args);
            EXPECT_EQ(super.changes, Notes{});
            EXPECT_EQ(super.refusals, Notes{});
            EXPECT_EQ(super.option, "");
        }
        for (const Table &table : sample.tables) {
            for (const Template &made : check_table(proof, table.name, table.count)) {
                EXPECT_EQ(made.flaws, Notes{});
                EXPECT_EQ(made.refusals, Notes{});
                EXPECT_EQ(made.option, "");
                for (const std::string &change : made.changes)
                    EXPECT_TRUE(is_change_of_all(sample.layout, table.name, change)) << change;
                const bool free = made.file.find("_use\": 0,") != std::string::npos;
                if (table.name == "brick" || table.name == "inode") {
                    EXPECT_EQ(made.changes.size(), free && table.name == "brick" ? 2U : 0U);
                }
            }
        }
        proof.finish();
    }
}

TEST_P(TemplateOfSample, DamagedEntries)
{
    for (const auto &[seed, args] : {std::pair<std::string, Notes>{"1", {}}, {"2", {"--as-is"}}}) {
        std::vector<std::string> damages;
        for (const Table &table : sample.tables)
            for (std::size_t no = 0; no < table.kinds.size(); ++no)
                damages.push_back(text("%s:%zu:", table.name.c_str(), no) + table.kinds[no]);
        const Device device = make(seed, damages);
        TemplateProof proof(device);
        for (const Table &table : sample.tables) {
            const std::vector<Template> all = check_table(proof, table.name, table.count, args);
            for (std::size_t no = 0; no < table.kinds.size() && table.name != "hot"; ++no) {
                const std::string &kind = table.kinds[no];
                ASSERT_FALSE(all[no].flaws.empty()) << table.name << ' ' << kind;
                const std::string expected = "damaged: " + kind;
                EXPECT_EQ(all[no].flaws[0],
                          kind == "zero" || kind == "bit" ? all[no].flaws[0] : expected);
                EXPECT_TRUE(all[no].flaws[0].starts_with("damaged: "));
                const auto says = [&](const std::string &beginning) {
                    return std::ranges::any_of(all[no].flaws, [&](const std::string &flaw) {
                        return flaw.starts_with(beginning);
                    });
                };
                EXPECT_EQ(says("has number "),
                          all[no].flaws[0].find("number") != std::string::npos);
                EXPECT_EQ(says("all zero: "),
                          kind == "zero" && (table.name == "brick" || table.name == "inode" ||
                                             (table.name == "extent" && sample.layout != "v3")));
            }
        }
        proof.finish();
    }
}

// No two bits explain it: the file has the damage, and the text says so.
TEST_P(TemplateOfSample, EntriesWithManyWrongBits)
{
    Device device = make("1");
    const Json super = Json::parse(dump_of(device.path(), "dump_super"));
    const std::uint64_t bricks = sample.layout == "v3"
                                     ? super["brick_table_offset"].get<std::uint64_t>()
                                     : (std::uint64_t{1} << 20) + BLOCK_SIZE;
    for (const std::uint64_t byte : {32U, 35U, 38U})
        flip(device, static_cast<std::int64_t>(bricks + BLOCK_SIZE + byte), 0x01);
    for (const Notes &args : {Notes{}, Notes{"--as-is"}}) {
        TemplateProof proof(device);
        const Template made = proof.check("brick", 1, args);
        EXPECT_EQ(made.flaws,
                  (Notes{"damaged: checksum",
                         "its checksum does not match its content; the file has what is there"}));
        proof.finish();
    }
}

// The block is sound: a file of another layout would make it another one.
TEST_P(TemplateOfSample, SoundSuperBlocksOfAnotherLayout)
{
    const Device device = make("1");
    for (const std::string &layout : LAYOUTS)
        if (layout != sample.layout)
            expect_template_failure(device, {"super", "0", "--layout", layout}, 2,
                                    "--layout " + layout + ": " + device.path() +
                                        " has a sound super block of layout " + sample.layout);
}

// The file of an entry with a flipped bit is that of the sound one.
TEST_P(TemplateOfSample, MendedEntries)
{
    const Device sound = make("1");
    for (const std::string kind : {"checksum", "bit"}) {
        std::vector<std::string> damages;
        for (const Table &table : sample.tables)
            damages.push_back(table.name + ":1:" + kind);
        if (kind == "checksum")
            std::erase(damages, "hot:1:checksum");
        const Device device = make("1", damages);
        TemplateProof proof(device);
        for (const Table &table : sample.tables) {
            if (table.name == "hot") // has no checksum
                continue;
            SCOPED_TRACE(table.name + ' ' + kind);
            const Template made = proof.check(table.name, 1);
            EXPECT_EQ(made.file, read_template(sound, {table.name, "1"}).file);
            EXPECT_EQ(made.refusals, Notes{});
            expect_mended(made);
        }
    }
}

TEST_P(TemplateOfSample, DamagedSuperBlocks)
{
    for (const std::string kind : {"checksum", "magic", "zero", "bit", "version"}) {
        SCOPED_TRACE(kind);
        Device device = kind == "version" ? make("1") : make("1", {"super:0:" + kind});
        if (kind == "version") { // under the right checksum
            Block super = device.block(SUPER_OFFSET);
            put_u32(super, 112, 0x40000);
            seal(super, sample.super_length);
            device.write(SUPER_OFFSET, super);
        }
        TemplateProof proof(device);
        const bool one_bit = kind == "checksum" || kind == "bit";
        if (one_bit) {
            const Template mended = proof.check("super", 0);
            EXPECT_EQ(mended.file, read_template(make("1"), {"super", "0"}).file);
            EXPECT_EQ(mended.option, "-v" + sample.layout.substr(1));
            expect_mended(mended);
        }
        const Template made = proof.check("super", 0, {"--layout", sample.layout, "--as-is"});
        EXPECT_EQ(made.option, "-v" + sample.layout.substr(1));
        ASSERT_FALSE(made.flaws.empty());
        EXPECT_EQ(made.flaws[0].starts_with("damaged: "), kind != "version");
        if (kind != "zero") { // which bit it is
            EXPECT_TRUE(made.flaws.back().ends_with("; the file has what is there"));
        }
        if (kind != "bit") { // it may be any
            EXPECT_EQ(made.refusals.empty(), kind != "zero");
        }
        proof.finish();
        if (one_bit) { // it still says which layout it has
            EXPECT_EQ(run_template(device, {"super", "0", "--as-is"}).out, made.file);
        }
        const std::string said =
            "zu_tierctl: " +
            (kind == "zero"
                 ? no_super_block(device.path())
                 : device.path() + " has a damaged super block of layout " + sample.layout + ": ");
        if (!one_bit) {
            const RunResult super = run_template(device, {"super", "0"});
            EXPECT_EQ(super.status, 2);
            EXPECT_TRUE(super.err.starts_with(said)) << super;
            EXPECT_TRUE(super.err.ends_with("; --layout must say which it had\n")) << super;
        }
        const RunResult inode = run_template(device, {"inode", "0"});
        EXPECT_EQ(inode.status, 1);
        EXPECT_TRUE(inode.err.starts_with(said)) << inode;
    }
}

// Entries with a value in every field, and free ones that still have them: what no repair keeps.

struct Kept {
    std::string table;
    std::uint64_t no;
    Notes lost; // the keys that a repair changes
};

void expect_lost(const Device &device, const std::vector<Kept> &entries)
{
    TemplateProof proof(device);
    for (const auto &[table, no, lost] : entries) {
        SCOPED_TRACE(table + ' ' + std::to_string(no));
        Notes keys;
        for (const std::string &change : proof.check(table, no).changes)
            keys.push_back(change.substr(0, change.find(": ")));
        EXPECT_EQ(keys, lost);
    }
    proof.finish();
}

TEST(TemplateOfFullEntries, V1)
{
    SuperV1 sb = super_v1(2, 2, 2);
    sb.reserved = 5;
    BrickV1 brick = brick_used(1);
    InodeV1 inode = inode_used(1, 1);
    ExtentV1 extent = extent_used(1, 1);
    expect_lost(make_v1_device(sb, {brick}, {inode}, {extent}),
                {{"super", 0, {"checksum", "sb_reserved"}},
                 {"brick", 1, {"bi_checksum", "bi_reserved"}},
                 {"inode", 1, {"checksum", "reserved1", "reserved2"}},
                 {"extent", 1, {}}});
    brick.use = inode.use = extent.use = 0;
    expect_lost(make_v1_device(sb, {brick}, {inode}, {extent}),
                {{"brick", 1, {"bi_checksum", "bi_uuid", "bi_brickid", "bi_unlink", "bi_reserved"}},
                 {"inode",
                  1,
                  {"checksum", "atime", "ctime", "mtime", "dtime", "uuid", "size", "priority",
                   "brick_no", "unlink", "reserved1", "reserved2"}},
                 {"extent",
                  1,
                  {"te_checksum", "te_block", "te_size", "te_inode_no", "te_sampling_low",
                   "te_sampling_mid", "te_sampling_high", "te_clean", "te_ntime", "te_hot",
                   "te_bitmap[0]", "te_bitmap[1]"}}});
}

TEST(TemplateOfFullEntries, V2)
{
    expect_lost(make_v2_device(super_v2(2, 2, 2), {brick_used(1)}, {inode_v2_used(1, 1)},
                               {extent_v2_used(1, 1)}),
                {{"super", 0, {}},
                 {"brick", 1, {"bi_checksum", "bi_reserved"}},
                 {"inode", 1, {}},
                 {"extent",
                  1,
                  {"te_checksum", "te_block", "te_size", "te_clean", "te_ntime", "te_hot",
                   "bytes 56..64 (bitmap)", "bytes 584..647 (hot area)"}}});
}

TEST(TemplateOfFullEntries, V3)
{
    ShardBlockV3 shards;
    ExtentBlockV3 extents;
    for (std::uint32_t slot = 1; slot < SLOTS_V3; ++slot) {
        const std::uint32_t use = slot == 7 ? 0 : 1;
        shards.shards.push_back(
            {.slot = slot, .ino = slot, .in_use = use, .reserved = slot, .index = ~slot});
        extents.extents.push_back({.slot = slot,
                                   .lba = slot,
                                   .shard = slot + 1,
                                   .dirty = 1,
                                   .bitmap = slot + 2,
                                   .in_use = use,
                                   .sense = slot % 15 + 1,
                                   .demote = 1,
                                   .dm_err = 1,
                                   .reserved = 1});
    }
    expect_lost(make_v3_device(super_v3(2, 2), {brick_v3_used(1)}, {inode_v3_used(1, 1)},
                               {{1, shards}}, {{1, extents}}),
                {{"super", 0, {}},
                 {"brick", 1, {"bi_checksum", "bi_reserved"}},
                 {"inode", 1, {}},
                 {"shard", 1, {"checksum", "sno[519].ino", "sno[519].reserved", "sno[519].index"}},
                 {"hot", 1, {"bytes 0..4095"}},
                 {"extent",
                  1,
                  {"checksum", "eno[519].lba", "eno[519].shard", "eno[519].dirty", "eno[519].sense",
                   "eno[519].demote", "eno[519].dm_err", "eno[519].reserved", "eno[519].bitmap"}}});
}

// Blocks that hold, from some byte on, anything.

using MakeByte = std::uint8_t (*)(std::uint32_t random);

constexpr char ODD[] = "\n\r\t\x1b\x7f\"\\/\xc3\xa4\xe2\x82\xacx\xff]";

const std::vector<std::pair<std::string, MakeByte>> FILLINGS{
    {"Ones", [](std::uint32_t) { return std::uint8_t{0xFF}; }},
    {"HighBits", [](std::uint32_t) { return std::uint8_t{0x80}; }},
    {"Noise", [](std::uint32_t random) { return static_cast<std::uint8_t>(random); }},
    {"OddCharacters",
     [](std::uint32_t random) {
         return static_cast<std::uint8_t>(ODD[random % (sizeof(ODD) - 1)]);
     }},
};

class TemplateOfNoise
    : public testing::TestWithParam<std::tuple<std::string, std::pair<std::string, MakeByte>>> {};

INSTANTIATE_TEST_SUITE_P(Layouts, TemplateOfNoise,
                         testing::Combine(testing::ValuesIn(LAYOUTS), testing::ValuesIn(FILLINGS)),
                         [](const auto &noise) {
                             return std::get<0>(noise.param) + std::get<1>(noise.param).first;
                         });

TEST_P(TemplateOfNoise, IsForeseen)
{
    const auto &[layout, filling] = GetParam();
    Cache cache = make_cache(layout);
    std::mt19937 random; // NOLINT(cert-msc51-cpp): the same bytes in every run
    TemplateProof proof(cache.device);
    for (const CacheTable &table : cache.tables) {
        const std::uint64_t no = table.name == "super" ? 0 : 1;
        const auto offset = static_cast<std::uint64_t>(table.offset(no));
        const Block good = cache.device.block(offset);
        for (const std::size_t from : {0, 32, 57, 150, 270}) {
            SCOPED_TRACE(from);
            Block bad = good;
            for (std::size_t i = from; i < BLOCK_SIZE; ++i)
                bad[i] = filling.second(static_cast<std::uint32_t>(random() >> 8));
            cache.device.write(offset, bad);
            if (table.name == "super")
                TemplateProof(cache.device).check("super", 0, {"--layout", layout});
            else
                proof.check(table.name, no);
        }
        cache.device.write(offset, good);
        proof.check(table.name, no);
    }
    proof.finish();
}

} // namespace
