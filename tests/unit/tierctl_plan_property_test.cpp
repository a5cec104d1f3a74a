// Plans for devices that are damaged at random, against what was there before: what is certain is
// right to the byte, and what is sound is left alone. ZU_TIER_PLAN_ROUNDS says how often.

#include "zu_tierctl/plan/plan.h"

#include "temp_dir.h"
#include "zu_tierctl/entry/mend.h"
#include "zu_tierctl/entry/rebuild.h"
#include "zu_tierctl/sample/sample.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <random>
#include <unistd.h>

using namespace tier_test;
using tierctl::Access;
using tierctl::Action;
using tierctl::Block;
using tierctl::Certainty;
using tierctl::Metadata;
using tierctl::Step;
using tierctl::Table;

namespace {

constexpr std::uint64_t ROUNDS = 400; // of every layout
constexpr std::size_t DAMAGES = 5;    // at most, of a round

std::uint64_t rounds()
{
    const char *given = std::getenv("ZU_TIER_PLAN_ROUNDS");
    return given != nullptr ? std::strtoull(given, nullptr, 10) : ROUNDS;
}

struct Place {
    const Table *table;
    std::uint64_t no;

    std::int64_t offset() const { return table->slot(no); }
    std::string name() const { return std::string(table->name) + ' ' + std::to_string(no); }
};

// What became of the damaged slots.
struct Tally {
    std::uint64_t damaged = 0;
    std::map<std::pair<std::string, std::string>, std::uint64_t> steps; // by action and class
    std::map<std::string, std::uint64_t> right; // of the likely ones, by action
    std::uint64_t left = 0;
};

class Image {
public:
    explicit Image(std::string path) : path_(std::move(path)), fd_(open(path_.c_str(), O_RDWR))
    {
        EXPECT_GE(fd_, 0);
    }
    ~Image() { close(fd_); }
    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;

    const std::string &path() const { return path_; }

    Block read(std::int64_t offset) const
    {
        Block block;
        EXPECT_EQ(pread(fd_, block.data(), block.size(), offset), SIZE_4K);
        return block;
    }
    void write(std::int64_t offset, const Block &block) const
    {
        EXPECT_EQ(pwrite(fd_, block.data(), block.size(), offset), SIZE_4K);
    }

private:
    std::string path_;
    int fd_;
};

// A device, what was saved of it, and what it held long before.
class World {
public:
    World(const std::string &layout, std::uint64_t seed)
        : device_(make(layout, "device", 1)), saved_(make(layout, "saved", 1)),
          older_(make(layout, "older", 2)), random_(seed)
    {
        older_.write(TIER_SUPER_OFFSET, device_.read(TIER_SUPER_OFFSET));
        metadata_.emplace(
            tierctl::read_metadata(tierctl::Device(device_.path(), Access::read_only)));
        for (const Table &table : metadata_->tables) {
            for (std::uint64_t no = 0; &table != &metadata_->tables[0] && no < table.count(); ++no)
                places_.push_back({&table, no});
        }
    }

    void round(Tally &tally)
    {
        damaged_.clear();
        for (std::size_t left = below(DAMAGES) + 1; left > 0; --left)
            damage();
        tally.damaged += damaged_.size();
        tierctl::Device device(device_.path(), Access::read_only);
        const tierctl::Device saved(below(2) == 0 ? saved_.path() : older_.path(),
                                    Access::read_only);
        const bool has_saved = below(3) != 0;
        if (has_saved)
            tierctl::require_saved(saved, device, *metadata_);
        const bool frees = below(2) == 0;
        const tierctl::Plan plan =
            tierctl::make_plan(device, *metadata_, has_saved ? &saved : nullptr, frees);
        std::vector<std::int64_t> written;
        const std::map<std::int64_t, Block> truth = damaged_;
        for (const Step &step : plan.steps) {
            if (step.action == Action::leave) {
                ++tally.left;
                continue;
            }
            ++tally.steps[{std::string(action_name(step.action)),
                           std::string(certainty_name(step.certainty))}];
            const Block block = block_of(device, step);
            if (step.action == Action::free) {
                EXPECT_TRUE(frees);
                judge_freed(step, block, truth);
            } else {
                ASSERT_TRUE(truth.contains(step.offset)) << "it was sound";
                judge(step, block, tally);
            }
            put(step.offset, block);
            written.push_back(step.offset);
        }
        expect_mended(device, written);
        for (const auto &[offset, block] : damaged_)
            device_.write(offset, block);
    }

private:
    std::string make(const std::string &layout, const char *name, std::uint64_t seed) const
    {
        tierctl::SampleOptions options;
        options.layout = layout;
        options.seed = seed;
        options.sizes[tierctl::BRICKS] = 3;
        options.sizes[tierctl::INODES] = 16;
        if (layout == "v3") {
            options.sizes[tierctl::SHARDS] = 1024;
            options.sizes[tierctl::EXTENTS] = 2048;
        } else {
            options.sizes[tierctl::BLOCKS] = 32;
        }
        options.file = directory_.path(name);
        tierctl::sample(options);
        return options.file;
    }

    std::uint64_t below(std::uint64_t bound) { return random_() % bound; }

    Place any_place() { return places_[below(places_.size())]; }

    // The first change of a slot tells what was there.
    void put(std::int64_t offset, const Block &block)
    {
        damaged_.try_emplace(offset, device_.read(offset));
        device_.write(offset, block);
    }

    void damage()
    {
        const Place place = any_place();
        const std::int64_t offset = place.offset();
        if (damaged_.contains(offset))
            return; // two kinds of damage may look like something else
        Block block = device_.read(offset);
        const std::uint64_t first = below(block.size());
        const std::uint64_t count = below(block.size() - first) + 1;
        switch (below(9)) {
        case 0:
        case 1:
            return put(offset, with_bits(block, place, 1));
        case 2:
            return put(offset, with_bits(block, place, 2));
        case 3:
            return put(offset, with_bits(block, place, 3));
        case 4:
            memset(block.data() + first, 0, count);
            return put(offset, block);
        case 5:
            std::generate_n(block.begin() + first, count,
                            [this] { return static_cast<std::uint8_t>(random_()); });
            return put(offset, block);
        case 6:
            return zero(place);
        case 7:
            return swap(place, any_place());
        default:
            return put(offset, Image(older_.path()).read(offset));
        }
    }

    Block with_bits(Block block, const Place &place, std::size_t bits)
    {
        for (std::size_t i = 0; i < bits; ++i) {
            const std::uint64_t bit = below(place.table->record_length * 8);
            block[bit / 8] ^= 1U << bit % 8;
        }
        return block;
    }

    void zero(const Place &place)
    {
        const std::uint64_t end = std::min(place.no + 1 + below(4), place.table->count());
        for (std::uint64_t no = place.no; no < end; ++no) {
            if (!damaged_.contains(place.table->slot(no)))
                put(place.table->slot(no), {});
        }
    }

    void swap(const Place &one, const Place &other)
    {
        if (damaged_.contains(other.offset()))
            return;
        const Block block = device_.read(one.offset());
        put(one.offset(), device_.read(other.offset()));
        put(other.offset(), block);
    }

    Block block_of(const tierctl::Device &device, const Step &step) const
    {
        if (!step.keys) {
            Block block;
            step.block->get(block.data());
            return block;
        }
        const Table &table = tierctl::find_table(metadata_->tables, step.table);
        const auto rebuilt = rebuild(device, *metadata_, table, *step.keys, false);
        EXPECT_TRUE(rebuilt.block) << *step.keys;
        EXPECT_EQ(tierctl::KeptBlock(rebuilt.block->data()), *step.block);
        return *rebuilt.block;
    }

    void judge(const Step &step, const Block &block, Tally &tally) const
    {
        const Table &table = tierctl::find_table(metadata_->tables, step.table);
        SCOPED_TRACE(step_line(step, "{}").substr(0, 500));
        const Block &truth = damaged_.at(step.offset);
        const Block now = device_.read(step.offset);
        EXPECT_NE(now, truth);
        EXPECT_NE(table.flaws(step.no, now.data()), 0U);
        EXPECT_EQ(table.flaws(step.no, block.data()), 0U);
        EXPECT_FALSE(step.unreadable);
        // No checksum tells what has become of the bytes after a record.
        const bool is_right = memcmp(block.data(), truth.data(), table.record_length) == 0;
        if (step.certainty == Certainty::certain) {
            EXPECT_TRUE(is_right);
            for (std::size_t at = table.record_length; at < block.size(); ++at)
                ASSERT_EQ(block[at], now[at]);
        } else {
            tally.right[std::string(action_name(step.action))] += is_right ? 1 : 0;
        }
    }

    // What becomes free was in use, and its owner is not as it was, or becomes free as well.
    void judge_freed(const Step &step, const Block &block,
                     const std::map<std::int64_t, Block> &truth) const
    {
        const Table &table = tierctl::find_table(metadata_->tables, step.table);
        const Table &owners = tierctl::find_table(metadata_->tables, table.row->owner.table);
        SCOPED_TRACE(step_line(step, "{}").substr(0, 500));
        const Block now = device_.read(step.offset);
        EXPECT_EQ(table.flaws(step.no, now.data()), 0U);
        EXPECT_EQ(table.flaws(step.no, block.data()), 0U);
        EXPECT_EQ(step.certainty, Certainty::none);
        EXPECT_FALSE(step.lost.empty());
        std::size_t freed = 0;
        for (std::uint32_t k = table.first_word; k < table.end_word; ++k) {
            const std::uint8_t *before = Table::entry(now.data(), k);
            const std::uint8_t *after = Table::entry(block.data(), k);
            if (table.in_use(before) == table.in_use(after))
                continue;
            ++freed;
            EXPECT_TRUE(table.in_use(before));
            const std::uint64_t owner = table.row->owner.no.get(before);
            const std::uint64_t slot = owner / owners.end_word;
            EXPECT_TRUE(truth.contains(step.offset) || slot >= owners.count() ||
                        damaged_.contains(owners.slot(slot)));
        }
        EXPECT_NE(freed, 0U);
    }

    // Nothing is left to do about what was written but about whom it refers to.
    void expect_mended(tierctl::Device &device, std::vector<std::int64_t> written) const
    {
        const tierctl::Plan plan = tierctl::make_plan(device, *metadata_, nullptr, false);
        for (const Step &step : plan.steps) {
            if (std::ranges::find(written, step.offset) != written.end()) {
                EXPECT_EQ(step.action, Action::leave) << step.reason;
                const Table &table = tierctl::find_table(metadata_->tables, step.table);
                EXPECT_EQ(table.flaws(step.no, device_.read(step.offset).data()), 0U);
            }
        }
    }

    TempDir directory_;
    Image device_;
    Image saved_;
    Image older_;
    std::mt19937_64 random_;
    std::optional<Metadata> metadata_;
    std::vector<Place> places_;
    std::map<std::int64_t, Block> damaged_; // what was there, by offset
};

// Three turned bits that look like two others.
TEST(PlanOfThreeBits, AProvenCopyComesBeforeALikelyMend)
{
    const TempDir directory;
    for (const char *name : {"device", "saved"}) {
        tierctl::SampleOptions options;
        options.layout = "v1";
        options.file = directory.path(name);
        tierctl::sample(options);
    }
    const Image image(directory.path("device"));
    tierctl::Device device(image.path(), Access::read_only);
    const tierctl::Device saved(directory.path("saved"), Access::read_only);
    const Metadata metadata = tierctl::read_metadata(device);
    const Table &inodes = tierctl::find_table(metadata.tables, "inode");
    const Block good = image.read(inodes.slot(1));
    std::mt19937_64 random(16);
    Block damaged;
    std::size_t turns = 0;
    do {
        ASSERT_LT(++turns, 1'000'000U);
        damaged = good;
        for (int bit = 0; bit < 3; ++bit)
            damaged[8 + random() % 60] ^= static_cast<std::uint8_t>(1U << random() % 8);
    } while (damaged == good ||
             tierctl::mend(metadata, inodes, 1, damaged).certainty != Certainty::likely ||
             tierctl::mend(metadata, inodes, 1, damaged).block == good ||
             inodes.row->checksum->get(damaged.data()) !=
                 inodes.row->checksum->get(Block(good).data()));
    image.write(inodes.slot(1), damaged);
    const auto steps = tierctl::make_plan(device, metadata, &saved, false).steps;
    ASSERT_EQ(steps.size(), 1U);
    EXPECT_EQ(steps[0].action, Action::copy);
    EXPECT_EQ(steps[0].certainty, Certainty::certain);
    EXPECT_EQ(*steps[0].block, tierctl::KeptBlock(good.data()));
    const auto mended = tierctl::make_plan(device, metadata, nullptr, false).steps;
    ASSERT_EQ(mended.size(), 1U);
    EXPECT_NE(mended[0].certainty, Certainty::certain);
}

class PlanProperty : public testing::TestWithParam<const char *> {};

TEST_P(PlanProperty, WhatIsCertainIsRightAndWhatIsSoundIsLeft)
{
    World world(GetParam(), 20'260'101);
    Tally tally;
    for (std::uint64_t i = 0; i < rounds() && !HasFailure(); ++i) {
        SCOPED_TRACE("round " + std::to_string(i));
        world.round(tally);
    }
    std::cout << GetParam() << ": " << rounds() << " rounds, " << tally.damaged << " slots damaged";
    for (const auto &[what, count] : tally.steps)
        std::cout << ", " << what.first << ' ' << what.second << ' ' << count;
    std::cout << ", left " << tally.left << "; likely, and what was there:";
    for (const auto &[action, count] : tally.right)
        std::cout << ' ' << action << ' ' << count;
    std::cout << '\n';
    RecordProperty("runs", std::to_string(rounds()));
    EXPECT_NE((tally.steps[{"mend", "certain"}]), 0U);
    EXPECT_NE((tally.steps[{"copy", "certain"}]), 0U);
    EXPECT_NE((tally.steps[{"copy", "likely"}]), 0U);
    EXPECT_NE(tally.left, 0U);
}

INSTANTIATE_TEST_SUITE_P(Layouts, PlanProperty, testing::Values("v1", "v2", "v3"),
                         [](const auto &layout) { return std::string(layout.param); });

} // namespace
