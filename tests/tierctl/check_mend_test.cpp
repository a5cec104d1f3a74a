// What zu_tierctl check says of damaged entries that flipped bits explain.

#include "check_run.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Flips bits of the slot, of byte 8 * i + 8 each another.
void flip(Device &device, std::int64_t slot, std::size_t bits)
{
    Block block = device.block(static_cast<std::uint64_t>(slot));
    for (std::size_t i = 0; i < bits; ++i)
        put_u8(block, 8 * i + 8, static_cast<std::uint8_t>(get_u8(block, 8 * i + 8) ^ 1U << i % 8));
    put_block(device, slot, block);
}

const std::string WRONG = "its checksum does not match its content";

template <class World>
class CheckMend : public CheckedWorld<World> {
protected:
    // The lines that tell of damaged entries, without the command.
    static std::vector<std::string> told(const Device &device, std::vector<std::string> args = {})
    {
        args.insert(args.begin(), {"check", device.path()});
        const RunResult run = run_program(ZU_TIERCTL, args);
        std::vector<std::string> lines;
        for (const std::string &line : lines_of(run.out)) {
            const std::size_t end = line.find(" (bad_");
            if (line.starts_with("error: ") && end != std::string::npos)
                lines.push_back(line.substr(0, end));
        }
        return lines;
    }
};
TYPED_TEST_SUITE(CheckMend, AllWorlds);

TYPED_TEST(CheckMend, OneEntry)
{
    Device device = this->world.device();
    flip(device, this->inode_at(1), 1);
    flip(device, this->inode_at(2), 2);
    flip(device, this->inode_at(4), 3);
    const auto line = [this](std::uint32_t no, const std::string &end) {
        return text("error: inode %u at %ld: ", no, this->inode_at(no)) + WRONG + end;
    };
    const std::vector<std::string> expected{line(1, "; one flipped bit explains it"),
                                            line(2, "; two flipped bits explain it"), line(4, "")};
    EXPECT_EQ(this->told(device, {"--all"}), expected);
    const Report report = run_check(device.path());
    std::vector<std::string> counts;
    for (const Finding &finding : report.findings)
        if (finding.kind == "bad_checksum")
            counts.push_back(text("%lu: %lu, %lu", finding.no, finding.one_bit, finding.two_bits));
    EXPECT_EQ(counts, (std::vector<std::string>{"1: 1, 0", "2: 0, 1", "4: 0, 0"}));
}

// What flipped bits explain of a run of findings does not split it.
TYPED_TEST(CheckMend, RunsOfEntries)
{
    Device device = this->world.device();
    for (const std::uint32_t no : {1U, 2U, 3U})
        flip(device, this->inode_at(no), 1);
    const std::string about = text("error: inode 1..3 (3 findings) at %ld: ", this->inode_at(1));
    EXPECT_EQ(this->told(device), std::vector{about + WRONG + "; one flipped bit explains each"});
    flip(device, this->inode_at(1), 3); // the one is undone, two others are not
    EXPECT_EQ(this->told(device),
              std::vector{about + WRONG +
                          "; one flipped bit explains 2 of them; two flipped bits "
                          "explain 1 of them"});
    flip(device, this->inode_at(2), 4);
    EXPECT_EQ(this->told(device),
              std::vector{about + WRONG +
                          "; one flipped bit explains 1 of them; two flipped bits "
                          "explain 1 of them"});
}

// A flipped bit of the magic or of the number explains both findings.
TYPED_TEST(CheckMend, BitsOfTheNames)
{
    Device device = this->world.device();
    Block block = device.block(static_cast<std::uint64_t>(this->inode_at(4)));
    block[4] ^= 1;
    put_block(device, this->inode_at(4), block);
    const std::string about = text("error: inode 4 at %ld: ", this->inode_at(4));
    const std::uint32_t magic = this->world.inodes[0].magic;
    EXPECT_EQ(this->told(device),
              (std::vector{about + text("its magic is 0x%x, not 0x%x", magic ^ 1, magic) +
                               "; one flipped bit explains it",
                           about + WRONG + "; one flipped bit explains it"}));
    block[4] ^= 1;
    block[68] ^= 8;
    put_block(device, this->inode_at(4), block);
    EXPECT_EQ(this->told(device),
              (std::vector{about + "its number is 12; one flipped bit explains it",
                           about + WRONG + "; one flipped bit explains it"}));
}

// Two bits of a whole block are too many to tell which they are.
TEST(CheckMendV3, BlocksOfPackedEntries)
{
    const WorldV3 world;
    Device device = world.device();
    flip(device, shard_offset(world.sb, 0), 1);
    flip(device, shard_offset(world.sb, 1), 2);
    flip(device, extent_offset(world.sb, 0), 1);
    flip(device, extent_offset(world.sb, 2), 2);
    std::vector<std::string> told;
    for (const Finding &finding : run_check(device.path()).findings)
        if (finding.kind == "bad_checksum")
            told.push_back(finding.table + text(" %lu: ", finding.no) + finding.text);
    EXPECT_EQ(told, (std::vector{"shard 0: " + WRONG + "; one flipped bit explains it",
                                 "shard 1: " + WRONG,
                                 "extent 0: " + WRONG + "; one flipped bit explains it",
                                 "extent 2: " + WRONG}));
}

// The device's own super block, checked under that of a file.
TYPED_TEST(CheckMend, ItsOwnSuperBlock)
{
    Device device = this->world.device();
    const std::string super = device.directory().path("super");
    const RunResult saved = run_program("/bin/cp", {device.path(), super});
    ASSERT_EQ(saved.status, 0) << saved;
    flip(device, SUPER_OFFSET, 1);
    EXPECT_EQ(this->told(device, {"--super", super}),
              std::vector{text("error: super 0 at %lu: ", SUPER_OFFSET) + WRONG +
                          "; one flipped bit explains it"});
}

} // namespace
