// Super blocks found again: random samples whose super block is lost, and with it a part of the
// entries.

#include "zu_tier/format/v2.h"
#include "zu_tier/format/v3.h"
#include "zu_tierctl/rescue/areas.h"
#include "zu_tierctl/rescue/rescue.h"
#include "zu_tierctl/sample/sample.h"

#include "device.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace tier_test;
using tierctl::Certainty;

namespace {

// More samples than a test run has time for: as many as this environment variable says.
unsigned rounds(unsigned usual)
{
    const char *wanted = std::getenv("ZU_TIER_RESCUE_SAMPLES");
    return wanted == nullptr ? usual : static_cast<unsigned>(std::strtoul(wanted, nullptr, 10));
}

using Engine = std::mt19937_64;

void put_number(std::uint8_t *at, std::uint32_t number) { memcpy(at, &number, sizeof(number)); }

std::uint64_t below(Engine &random, std::uint64_t bound) { return random() % bound; }
std::uint64_t between(Engine &random, std::uint64_t low, std::uint64_t high)
{
    return low + below(random, high - low + 1);
}

// A file with the bytes of a sample, and what its super block says.
class Lost {
public:
    Lost(Engine &random, const std::string &layout) : layout_(layout)
    {
        tierctl::SampleOptions options{};
        options.seed = random();
        choose_sizes(random, &options);
        make(options);
    }

    // With some sizes of its own.
    Lost(const std::string &layout,
         const std::vector<std::pair<tierctl::Size, std::uint64_t>> &sizes)
        : layout_(layout)
    {
        tierctl::SampleOptions options{};
        for (const auto &[which, size] : sizes)
            options.sizes[which] = size;
        make(options);
    }

    std::string path() const { return directory_.path("device"); }
    const tierctl::Metadata &truth() const { return *truth_; }
    std::string about() const { return layout_ + " " + about_; }

    void write(std::int64_t offset, const void *data, std::size_t length)
    {
        std::fstream file(path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(offset);
        file.write(static_cast<const char *>(data), static_cast<std::streamsize>(length));
        ASSERT_TRUE(file.good());
    }

    tierctl::Block read(std::int64_t offset) const
    {
        tierctl::Block block{};
        std::ifstream file(path(), std::ios::binary);
        file.seekg(offset);
        file.read(reinterpret_cast<char *>(block.data()),
                  static_cast<std::streamsize>(block.size()));
        return block;
    }

    void lose_super_block()
    {
        const tierctl::Block zeros{};
        write(4096, zeros.data(), zeros.size());
    }

    // Each entry with a probability of `share` of a thousand.
    void damage(Engine &random, std::uint64_t share)
    {
        for (auto table = truth_->tables.begin() + 1; table != truth_->tables.end(); ++table)
            for (std::uint64_t no = 0; no < table->count(); ++no)
                if (below(random, 1000) < share)
                    damage_one(random, *table, no);
    }

    void grow(std::uint64_t bytes)
    {
        std::filesystem::resize_file(path(), std::filesystem::file_size(path()) + bytes);
    }

    std::uint64_t number(const char *key) const
    {
        return tierctl::super_number(*truth_->layout, truth_->super_block, key).value();
    }

    // It ends somewhere in its tables or its data.
    void cut(Engine &random)
    {
        const std::uint64_t size = std::filesystem::file_size(path());
        const std::uint64_t end = below(random, 2) == 0 ? size : number("data_offset");
        std::filesystem::resize_file(path(), between(random, 2U << 20, end) / 512 * 512);
    }

    // A file in the cache is an image of another one: its first MiB lie at the start of the data,
    // at a later MiB or anywhere, but never where this one has tables.
    void hold(Engine &random, const Lost &other)
    {
        const std::uint64_t data = number("data_offset");
        const std::uint64_t place = below(random, 3);
        const std::uint64_t shift = place == 0   ? 0
                                    : place == 1 ? below(random, 8) << 20
                                                 : below(random, 2048) * 4096;
        const std::uint64_t size = std::filesystem::file_size(path());
        const std::uint64_t length =
            std::min({std::uint64_t{24} << 20, size - std::min(size, data + shift),
                      std::filesystem::file_size(other.path())});
        std::string bytes(length, '\0');
        std::ifstream(other.path(), std::ios::binary)
            .read(bytes.data(), static_cast<std::streamsize>(length));
        if (length != 0)
            write(static_cast<std::int64_t>(data + shift), bytes.data(), length);
    }

    // The device had another cache before: what the tables of this one leave of it is still there.
    void lie_over(const Lost &other)
    {
        const std::uint64_t end = std::min<std::uint64_t>(other.number("data_offset"),
                                                          std::filesystem::file_size(path()));
        for (std::int64_t at = 2 * 4096; at + 4096 <= static_cast<std::int64_t>(end); at += 4096) {
            const bool is_own = std::ranges::any_of(truth_->tables, [at](const auto &table) {
                return std::ranges::any_of(table.regions, [at](const tier_region &region) {
                    return at >= region.start && at < region.slot(region.count);
                });
            });
            const tierctl::Block block = is_own ? tierctl::Block{} : other.read(at);
            if (block != tierctl::Block{})
                write(at, block.data(), block.size());
        }
    }

    // Changes an entry, and seals it.
    void change(const std::string &table, std::uint64_t no,
                const std::function<void(std::uint8_t *entry)> &make_change)
    {
        const tierctl::Table &of = tierctl::find_table(truth_->tables, table);
        put_sealed(of, of.slot(no), no, make_change);
    }

    // A copy of entry `no` at another place, changed and sealed.
    void put_sealed(const tierctl::Table &table, std::int64_t offset, std::uint64_t no,
                    const std::function<void(std::uint8_t *entry)> &make_change)
    {
        tierctl::Block block = read(table.slot(no));
        make_change(block.data());
        table.seal_slot(block.data());
        write(offset, block.data(), block.size());
    }

    void zero(const std::string &table, std::uint64_t from = 0)
    {
        const tierctl::Block zeros{};
        const tierctl::Table &of = tierctl::find_table(truth_->tables, table);
        for (std::uint64_t no = from; no < of.count(); ++no)
            write(of.slot(no), zeros.data(), zeros.size());
    }

    tierctl::Rescued rescue() const
    {
        const tierctl::Device device(path(), tierctl::Access::read_only);
        return tierctl::find_super(device, {.device = path()});
    }

private:
    void make(tierctl::SampleOptions options)
    {
        options.layout = layout_;
        options.file = path();
        tierctl::sample(options);
        const tierctl::Device device(path(), tierctl::Access::read_only);
        truth_ = tierctl::read_metadata(device);
        for (const auto &size : options.sizes)
            about_ += size ? std::to_string(*size) + " " : "- ";
    }

    void choose_sizes(Engine &random, tierctl::SampleOptions *options) const
    {
        auto &sizes = options->sizes;
        sizes[tierctl::BRICKS] = between(random, 1, below(random, 2) == 0 ? 8 : 300);
        sizes[tierctl::INODES] = between(random, 1, below(random, 2) == 0 ? 64 : 700);
        if (layout_ == "v3") {
            sizes[tierctl::SHARDS] = between(random, 1, 40) * 512;
            sizes[tierctl::EXTENTS] = between(random, 1, 300) * 512;
            sizes[tierctl::HOT_SIZE] = between(random, 1, 300) * 4096;
            sizes[tierctl::BLOCK_SIZE] = between(random, 2, 16) * 4096;
            if (below(random, 2) == 0)
                sizes[tierctl::BLOCKS] = between(random, 1, 100000);
            return;
        }
        sizes[tierctl::BLOCKS] = between(random, 1, below(random, 3) == 0 ? 40 : 900);
        const std::uint64_t usual = std::uint64_t{262144} << below(random, 5);
        sizes[tierctl::BLOCK_SIZE] =
            below(random, 2) == 0 ? usual : between(random, 64, 512) * 4096;
        if (below(random, 4) == 0)
            sizes[tierctl::EXTENT_SIZE] = between(random, 56, layout_ == "v1" ? 4096 : 1500);
    }

    void damage_one(Engine &random, const tierctl::Table &table, std::uint64_t no)
    {
        tierctl::Block block = read(table.slot(no));
        switch (below(random, 4)) {
        case 0:
            block.fill(0);
            break;
        case 1:
            block[below(random, std::min<std::uint64_t>(table.record_length, 96))] ^= 0x10;
            break;
        case 2:
            for (auto &byte : block)
                byte = static_cast<std::uint8_t>(random());
            break;
        default: // of another entry
            block = read(table.slot(below(random, table.count())));
        }
        write(table.slot(no), block.data(), block.size());
    }

    std::string layout_;
    TempDir directory_;
    std::optional<tierctl::Metadata> truth_;
    std::string about_;
};

// How the answers were.
struct Tally {
    unsigned certain = 0;
    unsigned likely = 0;
    unsigned likely_wrong = 0;
    unsigned first = 0;  // not certain, but right
    unsigned listed = 0; // not first, but possible

    unsigned devices = 0;
    unsigned exact = 0; // every value is right
};

std::ostream &operator<<(std::ostream &out, const Tally &tally)
{
    return out << tally.devices << " devices, " << tally.exact
               << " of them with every value right; " << tally.certain << " values certain, "
               << tally.likely << " likely, " << tally.likely_wrong << " likely but wrong; "
               << tally.first << " not certain but right, " << tally.listed << " in the ranking";
}

// They follow from other numbers, which have a ranking.
const std::set<std::string_view> DERIVED{
    "brick_table_size", "inode_table_size", "extent_table_size", "data_offset",
    "total_map_size",   "hot_size",         "shard_table_size",  "data_table_size"};

void judge(const tierctl::Rescued &found, const tierctl::Metadata &truth, Tally *tally)
{
    tally->devices++;
    ASSERT_TRUE(found.reading.layout == truth.layout ||
                found.reading.certainty != Certainty::certain)
        << found.reading.layout->name;
    if (found.reading.layout != truth.layout)
        return;
    bool exact = true;
    for (const tierctl::NumberReading &number : found.reading.numbers) {
        const std::uint64_t right =
            tierctl::super_number(*truth.layout, truth.super_block, number.key).value();
        const bool is_right = number.value() == right;
        exact = exact && is_right;
        const std::string said =
            text("%s %lu for %lu", std::string(number.key).c_str(), number.value(), right);
        if (number.certainty == Certainty::certain) {
            EXPECT_TRUE(is_right) << said;
            tally->certain++;
        } else {
            EXPECT_TRUE(number.may_be(right) || DERIVED.contains(number.key)) << said;
            (is_right ? tally->first : tally->listed)++;
        }
        if (number.certainty == Certainty::likely) {
            tally->likely++;
            tally->likely_wrong += is_right ? 0 : 1;
            if (!is_right && std::getenv("ZU_TIER_RESCUE_SAMPLES") != nullptr)
                std::cout << "likely but wrong: " << said << "\n";
        }
    }
    tally->exact += exact ? 1 : 0;
}

class RescueSamples : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(Layout, RescueSamples, testing::Values("v1", "v2", "v3"),
                         [](const auto &layout) { return layout.param; });

void rescue_and_judge(const Lost &lost, Tally *tally) { judge(lost.rescue(), lost.truth(), tally); }

TEST_P(RescueSamples, AreRightOrSaySo)
{
    Engine random(GetParam().back());
    Tally tally;
    Tally whole; // of devices with no damage but to the super block
    for (unsigned round = 0; round < rounds(100); ++round) {
        Lost lost(random, GetParam());
        const bool damaged = below(random, 3) != 0;
        if (damaged)
            lost.damage(random, below(random, 300));
        if (below(random, 2) == 0)
            lost.grow(below(random, 2) == 0 ? below(random, 256) * 4096 : below(random, 1 << 26));
        lost.lose_super_block();
        SCOPED_TRACE(std::to_string(round) + ": " + lost.about());
        rescue_and_judge(lost, damaged ? &tally : &whole);
        if (testing::Test::HasFailure())
            return;
    }
    std::cout << "damaged: " << tally << "\nsound:   " << whole << "\n";
    EXPECT_GT(whole.certain + tally.certain, 0U);
}

// The data of the cache look like the tables of others, and the device may be cut short.
TEST_P(RescueSamples, AreNotTakenFromTheData)
{
    constexpr const char *LAYOUTS[] = {"v1", "v2", "v3"};
    Engine random(GetParam().back() + 100U);
    Tally tally;
    Tally cut;
    for (unsigned round = 0; round < rounds(70); ++round) {
        Lost lost(random, GetParam());
        const Lost other(random, below(random, 2) == 0 ? GetParam() : LAYOUTS[below(random, 3)]);
        if (below(random, 2) == 0)
            lost.damage(random, below(random, 300));
        if (below(random, 3) == 0)
            lost.grow(below(random, 1 << 26));
        if (below(random, 3) == 0)
            lost.lie_over(other);
        else
            lost.hold(random, other);
        const bool is_cut = below(random, 3) == 0;
        if (is_cut)
            lost.cut(random);
        lost.lose_super_block();
        SCOPED_TRACE(std::to_string(round) + ": " + lost.about() + ", with " + other.about());
        try {
            rescue_and_judge(lost, is_cut ? &cut : &tally);
        } catch (const std::runtime_error &error) {
            EXPECT_NE(std::string(error.what()).find("no entry of a table"), std::string::npos);
            EXPECT_TRUE(is_cut) << error.what();
        }
        if (testing::Test::HasFailure())
            return;
    }
    std::cout << "whole: " << tally << "\ncut:   " << cut << "\n";
    EXPECT_GT(tally.certain, 0U);
}

// A part of the super block is left, which the tables confirm or not.
TEST_P(RescueSamples, AreRightWithAPartOfTheBlock)
{
    Engine random(GetParam().back() + 200U);
    Tally tally;
    for (unsigned round = 0; round < rounds(30); ++round) {
        Lost lost(random, GetParam());
        const Lost other(random, GetParam());
        lost.damage(random, below(random, 300));
        if (below(random, 2) == 0)
            lost.lie_over(other);
        tierctl::Block block = lost.read(4096);
        const tierctl::Block stale = other.read(4096);
        const std::uint64_t first = below(random, 260);
        const std::uint64_t last = between(random, first, 263);
        const std::uint64_t kind = below(random, 4);
        for (std::uint64_t i = first; i <= last; ++i)
            block[i] = kind == 0   ? 0
                       : kind == 1 ? 0xFF
                       : kind == 2 ? stale[i]
                                   : static_cast<std::uint8_t>(random());
        lost.write(4096, block.data(), block.size());
        SCOPED_TRACE(std::to_string(round) + ": " + lost.about());
        rescue_and_judge(lost, &tally);
        if (testing::Test::HasFailure())
            return;
    }
    std::cout << tally << "\n";
    EXPECT_GT(tally.certain, 0U);
}

// An expansion area of which only every hundredth inode is left, and the first and the last ones.
TEST(RescueExpansion, IsFoundByItsNumbers)
{
    constexpr std::uint64_t COUNT = 153600 + 25600;
    for (const unsigned lost_first : {0U, 3U}) {
        SCOPED_TRACE(lost_first);
        Engine random(lost_first);
        Lost lost(random, "v2");
        tier_super_block_v2_t super;
        memcpy(&super, lost.truth().super(), sizeof(super));
        super.sb_inode_exp_magic = 0x4558;
        super.sb_inode_exp_area = COUNT / 25600;
        super.sb_inode_exp_inuse = 0x53;
        tierctl::Metadata truth = lost.truth();
        memcpy(truth.super_block.data(), &super, sizeof(super));
        const std::uint64_t start = super.sb_data_offset +
                                    std::uint64_t{super.sb_block_size} * super.sb_block_cnt +
                                    (1U << 20);
        const tierctl::Table &inodes = tierctl::find_table(truth.tables, "inode");
        tierctl::Block block = lost.read(inodes.slot(0)); // it is in use
        std::filesystem::resize_file(lost.path(), start + COUNT * 4096 + 5 * 4096);
        for (std::uint64_t i = lost_first; i < COUNT; ++i) {
            if (i >= 64 && i < COUNT - 64 && i % 100 != 99)
                continue;
            inodes.row->number.put(block.data(), super.sb_inode_cnt + i);
            inodes.seal_slot(block.data());
            lost.write(static_cast<std::int64_t>(start + i * 4096), block.data(), block.size());
        }
        lost.lose_super_block();
        const tierctl::Device device(lost.path(), tierctl::Access::read_only);
        const tierctl::Rescued found = tierctl::find_super(device, {.device = lost.path()});
        Tally tally;
        judge(found, truth, &tally);
        EXPECT_EQ(tally.likely_wrong, 0U);
        EXPECT_EQ(tally.exact, 1U) << found.file;
        const auto inodes_read =
            std::ranges::find(found.reading.numbers, "inode_cnt", &tierctl::NumberReading::key);
        EXPECT_EQ(inodes_read->certainty, Certainty::likely); // these may be data
    }
}

// What is said of a number.
const tierctl::NumberReading &said_of(const tierctl::Rescued &found, std::string_view key)
{
    return *std::ranges::find(found.reading.numbers, key, &tierctl::NumberReading::key);
}

// Nothing certain is wrong, and the ranking of this number has the truth.
tierctl::Rescued judged(const Lost &lost)
{
    tierctl::Rescued found = lost.rescue();
    Tally tally;
    judge(found, lost.truth(), &tally);
    return found;
}

TEST(RescueHostile, BrickAmongTheInodes)
{
    Lost lost("v1", {});
    const tierctl::Table &bricks = tierctl::find_table(lost.truth().tables, "brick");
    lost.put_sealed(bricks, bricks.slot(0) + 6 * 4096, 0,
                    [](std::uint8_t *entry) { put_number(entry + 12, 6); });
    lost.lose_super_block();
    const tierctl::Rescued found = judged(lost);
    EXPECT_EQ(said_of(found, "brick_cnt").certainty, Certainty::none);
    EXPECT_EQ(said_of(found, "brick_cnt").candidates[1].value, 7U);
}

TEST(RescueHostile, InodesOfABrickThatIsNone)
{
    Lost lost("v1", {});
    for (const std::uint64_t no : {0U, 1U})
        lost.change("inode", no, [](std::uint8_t *entry) { put_number(entry + 72, 1U << 31); });
    lost.lose_super_block();
    EXPECT_EQ(said_of(judged(lost), "brick_cnt").certainty, Certainty::none);
}

// Their numbers make a table begin before the first inode.
TEST(RescueHostile, ExtentsThatBeginTooEarly)
{
    Lost lost("v1", {});
    lost.change("extent", 0, [](std::uint8_t *entry) { put_number(entry + 48, 256); });
    lost.change("extent", 1, [](std::uint8_t *entry) { put_number(entry + 52, 1U << 30); });
    lost.lose_super_block();
    const tierctl::Rescued found = judged(lost);
    EXPECT_EQ(said_of(found, "extent_size").certainty, Certainty::likely); // the first is missing
    EXPECT_EQ(said_of(found, "block_cnt").value(), lost.number("block_cnt"));
}

// An extent of more bytes than its pieces have is none of V2.
TEST(RescueHostile, PiecesOfOtherLengths)
{
    Lost lost("v2", {{tierctl::BLOCKS, 40}});
    lost.lose_super_block();
    EXPECT_EQ(said_of(judged(lost), "map_cnt").certainty, Certainty::likely);
    for (std::uint64_t no = 0; no < 40; no += 4)
        lost.change("extent", no, [](std::uint8_t *entry) { ++entry[8]; });
    for (std::uint64_t no = 1; no < 40; no += 4)
        lost.change("extent", no, [](std::uint8_t *entry) { put_number(entry + 4, 12345); });
    EXPECT_EQ(said_of(judged(lost), "map_cnt").certainty, Certainty::none);
}

// Room for an expansion area, and inodes that seem to be of one.
class RescueRoom : public testing::Test {
protected:
    static constexpr std::uint64_t ROOM = (std::uint64_t{700} << 20) + 3 * 4096;

    Lost lost{"v2", {{tierctl::BLOCKS, 100}}};
    const tierctl::Table &inodes = tierctl::find_table(lost.truth().tables, "inode");

    void SetUp() override
    {
        lost.grow(ROOM);
        lost.lose_super_block();
    }

    // An inode that is not in use, so many blocks before the end.
    void put(std::int64_t blocks, std::uint32_t no)
    {
        const auto size = static_cast<std::int64_t>(std::filesystem::file_size(lost.path()));
        lost.put_sealed(inodes, (size / 4096 - blocks) * 4096, 0, [no](std::uint8_t *entry) {
            put_number(entry + 68, no);
            entry[78] = entry[79] = 0;
        });
    }
};

TEST_F(RescueRoom, HasNoArea)
{
    for (const bool strangers : {false, true}) {
        if (strangers) {
            put(1, 3);      // a regular one
            put(2, 500000); // no area has as many
            put(4, 499999); // it would begin before the data
        }
        const tierctl::Rescued found = judged(lost);
        EXPECT_EQ(said_of(found, "exp_inode_cnt").value(), 0U);
        EXPECT_EQ(said_of(found, "exp_inode_cnt").certainty, Certainty::none);
    }
}

// Its first inodes are lost, and it begins nowhere after whole blocks.
TEST_F(RescueRoom, HasALastInode)
{
    put(1, 64 + 153600 - 1);
    const tierctl::Rescued found = judged(lost);
    EXPECT_EQ(said_of(found, "exp_inode_cnt").value(), 153600U);
    EXPECT_EQ(said_of(found, "exp_inode_inuse").certainty, Certainty::none);
    EXPECT_EQ(said_of(found, "inode_cnt").certainty, Certainty::none);
    lost.zero("inode");
    lost.zero("brick");
    EXPECT_EQ(said_of(judged(lost), "brick_cnt").certainty, Certainty::none);
}

TEST(RescueHostile, PackedTables)
{
    Lost lost("v3", {{tierctl::SHARDS, 4096}, {tierctl::EXTENTS, 51200}});
    lost.lose_super_block();
    EXPECT_EQ(said_of(judged(lost), "shard_table_cnt").certainty, Certainty::likely);
    lost.change("inode", 5, [](std::uint8_t *entry) { put_number(entry + 68, 262144); });
    lost.change("inode", 6, [](std::uint8_t *entry) { put_number(entry + 68, 5000); });
    lost.zero("shard", 4);
    const tierctl::Rescued found = judged(lost);
    EXPECT_EQ(said_of(found, "inode_table_offset").value(), lost.number("inode_table_offset"));
    EXPECT_EQ(said_of(found, "shard_table_cnt").certainty, Certainty::none);
    EXPECT_GT(said_of(found, "shard_table_cnt").value(), 4 * 512U); // extents refer to later ones
}

// No table begins at a multiple of 1 MiB.
TEST(RescueHostile, PackedTablesAnywhere)
{
    constexpr std::uint64_t FROM = 2U << 20;
    constexpr std::uint64_t SHIFT = 3 * 4096;
    Lost lost("v3", {{tierctl::BLOCK_SIZE, 8192}, {tierctl::EXTENTS, 1024}});
    tierctl::Metadata truth = lost.truth();
    std::string bytes(std::filesystem::file_size(lost.path()) - FROM, '\0');
    std::ifstream(lost.path(), std::ios::binary)
        .seekg(FROM)
        .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    lost.write(FROM, tierctl::Block{}.data(), 4096);
    lost.write(FROM + SHIFT, bytes.data(), bytes.size());
    lost.lose_super_block();
    tier_super_block_v3_t super;
    memcpy(&super, truth.super(), sizeof(super));
    for (std::uint64_t *offset :
         {&super.sb_brick_table_offset, &super.sb_inode_table_offset, &super.sb_shard_table_offset,
          &super.sb_hot_table_offset, &super.sb_extent_table_offset, &super.sb_block_area_offset})
        *offset += SHIFT;
    memcpy(truth.super_block.data(), &super, sizeof(super));
    const tierctl::Rescued found = lost.rescue();
    Tally tally;
    judge(found, truth, &tally);
    for (const char *key : {"brick_table_offset", "inode_table_offset", "shard_table_offset",
                            "extent_table_offset", "brick_cnt", "inode_cnt"})
        EXPECT_EQ(said_of(found, key).value(),
                  tierctl::super_number(*truth.layout, truth.super_block, key))
            << key;
}

// Two bits more would make the checksum right, but not the numbers.
TEST(RescueHostile, MendedIntoNonsense)
{
    Lost lost("v1", {});
    tierctl::Block block = lost.read(4096);
    put_number(block.data() + 128, 5); // block_size
    lost.truth().tables.front().seal_slot(block.data());
    block[48] ^= 1;
    block[60] ^= 1;
    lost.write(4096, block.data(), block.size());
    const tierctl::Rescued found = judged(lost);
    EXPECT_EQ(found.reading.layout, lost.truth().layout);
    EXPECT_EQ(said_of(found, "block_size").value(), lost.number("block_size"));
}

// However many places entries name, a few are kept: the ones with the most entries.
TEST(RescueParts, TracesAreBounded)
{
    tierctl::Traces traces;
    for (std::int64_t i = 0; i < 10000; ++i) {
        tierctl::trace_at(&traces, i).add(0, false);
        tierctl::trace_at(&traces, 77).add(1, false);
    }
    EXPECT_EQ(traces.size(), 64U);
    EXPECT_EQ(tierctl::Best(traces).best->first, 77);
}

TEST(RescueParts, Blanks)
{
    tierctl::Blanks blanks;
    const std::int64_t start = tierctl::HEAD_START;
    const std::int64_t far = start + (std::int64_t{1} << 50);
    blanks.add(far, true); // takes no memory
    blanks.add(start, true);
    blanks.add(start + 2 * 4096, false);
    EXPECT_FALSE(blanks.are_blank(far, far + 4096));
    EXPECT_TRUE(blanks.are_blank(start, start + 4096));
    EXPECT_TRUE(blanks.are_blank(start + 4096, start + 4096));
    EXPECT_FALSE(blanks.are_blank(start, start + 2 * 4096)); // the second was not read
    EXPECT_EQ(blanks.content_end(start, far), start + 3 * 4096);
    EXPECT_EQ(blanks.content_end(start, start + 4096), start);
    EXPECT_EQ(blanks.content_end(far, start), far);
}

TEST(RescueParts, NumbersFollowHints)
{
    const Lost lost("v1", {{tierctl::BLOCKS, 20}});
    const tier_layout &layout = *lost.truth().layout;
    EXPECT_EQ(tierctl::super_number(layout, lost.truth().super_block, "nothing"), std::nullopt);
    std::vector<tierctl::Hint> hints{{&layout, lost.truth().super_block, "it", true}};
    const auto read = [&](Certainty certainty, std::vector<tierctl::Candidate> candidates,
                          tierctl::Range range) {
        tierctl::Readings readings(layout, hints);
        readings.add("block_cnt", certainty, std::move(candidates), std::move(range));
        return readings.take().front();
    };
    tierctl::NumberReading number = read(Certainty::none, {{7, ""}, {20, ""}}, {1, 8, ""});
    EXPECT_EQ(number.value(), 20U);
    EXPECT_EQ(number.candidates.size(), 2U);
    EXPECT_EQ(number.certainty, Certainty::likely);
    number = read(Certainty::likely, {{7, ""}}, {21, 30, ""}); // it cannot be
    EXPECT_EQ(number.candidates.size(), 1U);
    number = read(Certainty::likely, {{7, ""}}, {20, 20, ""});
    EXPECT_EQ(number.value(), 7U);
    EXPECT_EQ(number.candidates[1].value, 20U);
    number = read(Certainty::likely, {{20, ""}}, {1, 30, ""});
    EXPECT_EQ(number.certainty, Certainty::certain);
    EXPECT_FALSE(number.may_be(21));

    // One that contradicts the tables elsewhere makes nothing likely.
    hints = {{&layout, lost.truth().super_block, "it", false, true}};
    for (const std::uint64_t value : {7U, 20U}) {
        number = read(Certainty::none, {{value, ""}}, {1, 30, ""});
        EXPECT_EQ(number.value(), 20U);
        EXPECT_EQ(number.certainty, Certainty::none);
        EXPECT_EQ(read(Certainty::likely, {{value, ""}}, {1, 30, ""}).value(), value);
    }
}

TEST(RescueParts, BlocksOfADevice)
{
    const tierctl::DataArea area{2 << 20, (5 << 20) + 10 * 262144};
    EXPECT_EQ(area.offset(10), 5U << 20);
    EXPECT_EQ(area.most_blocks(262144), 10U);
    EXPECT_EQ(area.size_that_fills(10), 262144U);
    EXPECT_EQ(area.size_that_fills(9), std::nullopt);
    EXPECT_EQ(area.size_that_fills(20), std::nullopt); // too small
    const tierctl::DataArea large{2 << 20, (5 << 20) + (64 << 20)};
    EXPECT_EQ(large.size_that_fills(1), std::nullopt);
    EXPECT_EQ((tierctl::DataArea{2 << 20, 1 << 20}).most_blocks(262144), 0U);
    EXPECT_EQ((tierctl::DataArea{2 << 20, 1 << 20}).size_that_fills(1), std::nullopt);
    EXPECT_EQ(tierctl::bitmap_end(tierctl::Block{}.data(), 64), 0U);
}

} // namespace
