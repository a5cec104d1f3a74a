// What plan prints is what apply takes: on sample devices with damage of every kind, carried out
// and taken back.

#include "cache.h"
#include "model.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class PlanApply : public testing::TestWithParam<std::string> {
protected:
    const TempDir directory;
    const std::string device = directory.path("device");
    const std::string saved = directory.path("saved");
    const std::string plan = directory.path("plan");
    const std::string undo = directory.path("undo");
    const int version = GetParam()[1] - '0';

    void SetUp() override
    {
        const std::string sample = directory.path("sample");
        std::vector<std::string> args{"sample", "--layout", GetParam()};
        if (version != 3)
            args.insert(args.end(), {"--bricks", "3", "--inodes", "48", "--blocks", "64"});
        args.push_back(sample);
        ASSERT_EQ(run_ctl(args).status, 0);
        ASSERT_EQ(run_ctl({"save", sample, saved}).status, 0);
        fs::remove(sample);
        ASSERT_EQ(run_ctl({"save", saved, device}).status, 0);
    }

    // The tables of a device of this size lie in its first 16 MiB.
    std::string tables() const
    {
        std::string bytes(16 * MIB, '\0');
        std::ifstream(device, std::ios::binary).read(bytes.data(), std::ssize(bytes));
        return bytes;
    }
    Block block_at(std::int64_t place) const
    {
        Block block;
        std::ifstream(device, std::ios::binary)
            .seekg(place)
            .read(reinterpret_cast<char *>(block.data()), block.size());
        return block;
    }
    void put(std::int64_t place, const Block &block) const
    {
        std::fstream(device, std::ios::in | std::ios::out | std::ios::binary)
            .seekp(place)
            .write(reinterpret_cast<const char *>(block.data()), block.size());
    }

    // Damages some entries of every table in one of these ways.
    enum class Way { BIT, TWO_BITS, ZERO, NOISE, SWAPPED };
    void damage(Way way, std::mt19937 &random) const
    {
        const Block super_block = block_at(SUPER_OFFSET);
        for (const TableModel *table : models()) {
            if (table->version != version || table->name == "super")
                continue;
            const std::uint64_t count = table->count(super_block);
            for (int turn = 0; turn < 3; ++turn) {
                const std::int64_t place = slot_offset(*table, super_block, random() % count);
                Block block = block_at(place);
                const std::size_t length = table->length(super_block);
                for (int bit = 0; bit < (way == Way::BIT ? 1 : way == Way::TWO_BITS ? 2 : 0); ++bit)
                    block[random() % length] ^= static_cast<std::uint8_t>(1U << random() % 8);
                if (way == Way::ZERO)
                    block = {};
                for (std::size_t i = 0; way == Way::NOISE && i < length; ++i)
                    block[i] = static_cast<std::uint8_t>(random());
                if (way == Way::SWAPPED)
                    block = block_at(slot_offset(*table, super_block, random() % count));
                put(place, block);
            }
        }
    }

    // The steps of a plan, which must leave nothing out that it says it does.
    std::size_t make_plan(const std::vector<std::string> &more) const
    {
        std::vector<std::string> args{"plan", device};
        args.insert(args.end(), more.begin(), more.end());
        const RunResult planned = run_ctl(args);
        EXPECT_EQ(planned.status, 0) << planned;
        directory.write("plan", planned.out);
        std::size_t steps = 0;
        for (const std::string &line : lines_of(planned.out))
            steps += line.find("\"class\":") != std::string::npos ? 1 : 0;
        return steps;
    }

    // The line with the number of findings.
    static std::string findings(const std::string &checked)
    {
        const auto at = checked.rfind("\nfindings ");
        return at == std::string::npos ? checked : checked.substr(at);
    }

    // What apply foretells of the check comes true, and undo gives back what was there.
    void carry_out() const
    {
        const std::string before = tables();
        const RunResult shown = run_ctl({"apply", plan, device, "--undo", undo});
        EXPECT_EQ(shown.status, 0) << shown;
        EXPECT_TRUE(tables() == before);
        const RunResult done = run_ctl({"apply", plan, device, "--undo", undo, "--commit"});
        EXPECT_EQ(done.status, 0) << done;
        EXPECT_EQ(findings(run_ctl({"check", device}).out), findings(shown.out));
        const RunResult back = run_ctl({"undo", undo, device, "--commit"});
        EXPECT_EQ(back.status, 0) << back;
        EXPECT_TRUE(tables() == before);
        fs::remove(undo);
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, PlanApply, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(PlanApply, DamageOfEveryKind)
{
    std::mt19937 random(16);
    for (const Way way : {Way::BIT, Way::TWO_BITS, Way::ZERO, Way::NOISE, Way::SWAPPED}) {
        SCOPED_TRACE(static_cast<int>(way));
        fs::remove(device);
        ASSERT_EQ(run_ctl({"save", saved, device}).status, 0);
        damage(way, random);
        if (way == Way::BIT || way == Way::TWO_BITS) {
            EXPECT_GT(make_plan({}), 0U);
            carry_out();
        }
        EXPECT_GT(make_plan({"--from", saved}), 0U);
        carry_out();
    }
}

// As a program leaves a plan that rounds large numbers: the keys make another block, under a right
// checksum.
TEST_P(PlanApply, KeysThatWereRounded)
{
    std::mt19937 random(16);
    damage(Way::ZERO, random);
    ASSERT_GT(make_plan({"--from", saved}), 0U);
    std::string edited;
    for (const std::string &line : lines_of(read_file(plan))) {
        auto step = nlohmann::ordered_json::parse(line);
        if (step.contains("keys") && step["table"] == "inode") {
            EXPECT_TRUE(step.contains("makes"));
            step["keys"]["i_mtime"] = 1;
        }
        edited += step.dump() + '\n';
    }
    ASSERT_NE(edited, read_file(plan));
    directory.write("plan", edited);
    const std::string before = tables();
    const RunResult refused = run_ctl({"apply", plan, device, "--undo", undo, "--commit"});
    EXPECT_EQ(refused.status, 1) << refused;
    EXPECT_NE(refused.err.find("its keys no longer make the block of the plan"), std::string::npos)
        << refused;
    EXPECT_TRUE(tables() == before);
    EXPECT_FALSE(fs::exists(undo));
}

// What belongs to an inode that is not there becomes free.
TEST_P(PlanApply, WhatIsLost)
{
    const RunResult dump = run_ctl({"template", device, "inode", "7"});
    ASSERT_EQ(dump.status, 0) << dump;
    auto keys = nlohmann::ordered_json::parse(dump.out);
    ASSERT_EQ(keys["i_use"], 1);
    keys["i_use"] = 0;
    const LoggedRun freed = run_with_log(directory, {"-p", device, "-c", "repair_inode", "-y", "-f",
                                                     directory.write("keys", keys.dump())});
    ASSERT_EQ(freed.status, 0) << freed;
    EXPECT_GT(make_plan({"--free-lost"}), 0U);
    carry_out();
}

} // namespace
