// Super blocks found again: random samples whose super block is lost, and with it a part of the
// entries.

#include "zu_tier/format/v2.h"
#include "zu_tierctl/rescue/rescue.h"
#include "zu_tierctl/sample/sample.h"

#include "device.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
        options.layout = layout;
        options.seed = random();
        options.file = path();
        choose_sizes(random, &options);
        tierctl::sample(options);
        const tierctl::Device device(path(), tierctl::Access::read_only);
        truth_ = tierctl::read_metadata(device);
        for (const auto &size : options.sizes)
            about_ += size ? std::to_string(*size) + " " : "- ";
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

private:
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

void rescue_and_judge(const Lost &lost, Tally *tally)
{
    const tierctl::Device device(lost.path(), tierctl::Access::read_only);
    judge(tierctl::find_super(device, {.device = lost.path()}), lost.truth(), tally);
}

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
    for (unsigned round = 0; round < rounds(100); ++round) {
        Lost lost(random, GetParam());
        const Lost other(random, below(random, 2) == 0 ? GetParam() : LAYOUTS[below(random, 3)]);
        if (below(random, 2) == 0)
            lost.damage(random, below(random, 300));
        if (below(random, 3) == 0)
            lost.grow(below(random, 1 << 26));
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

} // namespace
