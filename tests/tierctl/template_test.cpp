// What zu_tierctl template says of an entry is what zu_tier does with its file: over every table of
// every layout, sound and damaged.

#include "cache.h"
#include "template_run.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <regex>

using namespace tier_test;

namespace {

using Notes = std::vector<std::string>;

struct Table {
    std::string name;
    std::uint64_t count;
    std::vector<std::string> kinds; // of damage
};

struct Sample {
    std::string layout;
    std::vector<std::string> sizes;
    std::vector<Table> tables; // without the super block
};

const Table BRICKS{"brick", 6, {"checksum", "magic", "number", "zero", "bit"}};
const Table INODES{"inode", 9, BRICKS.kinds};
const Table EXTENTS{"extent", 12, {"checksum", "number", "zero", "bit"}};
const std::vector<std::string> SIZES{"--bricks", "6",  "--inodes",     "9",
                                     "--blocks", "12", "--block-size", "262144"};
const std::vector<Sample> SAMPLES{
    {"v1", SIZES, {BRICKS, INODES, EXTENTS}},
    {"v2", SIZES, {BRICKS, INODES, EXTENTS}},
    {"v3",
     {"--bricks", "6", "--inodes", "9", "--blocks", "1", "--block-size", "8192", "--shards", "3072",
      "--hot-size", "24576", "--extents", "3072"},
     {BRICKS,
      INODES,
      {"shard", 6, {"checksum", "magic", "zero", "bit"}},
      {"hot", 6, {"zero", "bit"}},
      {"extent", 6, {"checksum", "zero", "bit"}}}},
};

// As the name of a test.
std::ostream &operator<<(std::ostream &out, const Sample &sample)
{
    return out << sample.layout;
}

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
        const Template super = proof.check("super", 0);
        EXPECT_EQ(super.changes, Notes{});
        EXPECT_EQ(super.refusals, Notes{});
        for (const Table &table : sample.tables) {
            for (const Template &made : check_table(proof, table.name, table.count)) {
                EXPECT_EQ(made.flaws, Notes{});
                EXPECT_EQ(made.refusals, Notes{});
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
    for (const std::string seed : {"1", "2"}) {
        std::vector<std::string> damages;
        for (const Table &table : sample.tables)
            for (std::size_t no = 0; no < table.kinds.size(); ++no)
                damages.push_back(text("%s:%zu:", table.name.c_str(), no) + table.kinds[no]);
        const Device device = make(seed, damages);
        TemplateProof proof(device);
        for (const Table &table : sample.tables) {
            const std::vector<Template> all = check_table(proof, table.name, table.count);
            for (std::size_t no = 0; no < table.kinds.size() && table.name != "hot"; ++no) {
                const std::string &kind = table.kinds[no];
                ASSERT_FALSE(all[no].flaws.empty()) << table.name << ' ' << kind;
                const std::string expected = "damaged: " + kind;
                EXPECT_EQ(all[no].flaws[0],
                          kind == "zero" || kind == "bit" ? all[no].flaws[0] : expected);
                EXPECT_TRUE(all[no].flaws[0].starts_with("damaged: "));
                EXPECT_EQ(all[no].flaws.size() == 2,
                          all[no].flaws[0].find("number") != std::string::npos);
            }
        }
        proof.finish();
    }
}

TEST_P(TemplateOfSample, DamagedSuperBlocks)
{
    for (const std::string kind : {"checksum", "magic", "zero", "bit"}) {
        SCOPED_TRACE(kind);
        const Device device = make("1", {"super:0:" + kind});
        TemplateProof proof(device);
        const Template made = proof.check("super", 0, {"--layout", sample.layout});
        EXPECT_EQ(made.option, "-v" + sample.layout.substr(1));
        EXPECT_TRUE(made.flaws.at(0).starts_with("damaged: "));
        if (kind != "bit") { // it may be any
            EXPECT_EQ(made.refusals.empty(), kind != "zero");
        }
        proof.finish();
        if (kind == "checksum" || kind == "bit") // it still says which layout it has
            EXPECT_EQ(run_template(device, {"super", "0"}).out, made.file);
        else
            expect_template_failure(device, {"super", "0"}, 2,
                                    device.path() + " has no super block of a known layout, "
                                                    "--layout must say which it had");
        expect_template_failure(device, {"inode", "0"}, 1,
                                device.path() + " has no super block of a known layout");
    }
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
