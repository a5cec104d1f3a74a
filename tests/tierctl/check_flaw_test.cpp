// The findings of zu_tierctl check about entries with a wrong magic, number or checksum.

#include "check_run.h"
#include "sample_image.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

template <class World>
class CheckFlawsOf : public CheckedWorld<World> {
protected:
    // "error bad_number: inode entry 3 at 1077248: its number is 4"
    static std::vector<std::string> told(const Device &device)
    {
        std::vector<std::string> told;
        for (const Finding &finding : run_check(device.path()).findings)
            told.push_back(summary(finding) + ": " + finding.text);
        return told;
    }
};

const std::string WRONG_CHECKSUM = ": its checksum does not match its content";

template <class World>
class CheckFlaws : public CheckFlawsOf<World> {
};
TYPED_TEST_SUITE(CheckFlaws, AllWorlds);

template <class World>
class CheckExtentFlaws : public CheckFlawsOf<World> {
};
TYPED_TEST_SUITE(CheckExtentFlaws, OldWorlds);

using CheckFlawsV3 = CheckFlawsOf<WorldV3>;

TYPED_TEST(CheckFlaws, MagicAndNumber)
{
    this->world.bricks[0].magic++;
    this->world.inodes.push_back(this->world.inodes[2]);
    this->world.inodes[3].no = 4;
    Device device = this->world.device();
    const auto place = static_cast<std::uint64_t>(this->inode_at(3));
    device.write(place, device.block(static_cast<std::uint64_t>(this->inode_at(4))));
    const std::uint32_t magic = this->world.bricks[0].magic;
    EXPECT_EQ(this->told(device),
              (std::vector<std::string>{
                  error("bad_magic", "brick", 0, brick_offset(this->world.sb, 0)) +
                      text(": its magic is 0x%x, not 0x%x", magic, magic - 1),
                  error("bad_number", "inode", 3, this->inode_at(3)) + ": its number is 4",
                  error("duplicate_inode", "inode", 4, this->inode_at(4)) + ": identity " +
                      uuid_text(this->world.inodes[2].uuid) + " is also that of inode 2",
                  warning("inode_of_unknown_brick", "inode", 0, this->inode_at(0)) +
                      ": it and 2 others refer to brick 0, which is damaged"}));
}

TYPED_TEST(CheckFlaws, ZeroedEntry)
{
    Device device = this->world.device();
    put_block(device, this->inode_at(4), Block{});
    const auto of_inode = [this](const std::string &kind, const std::string &said) {
        return error(kind, "inode", 4, this->inode_at(4)) + said;
    };
    EXPECT_EQ(this->told(device),
              (std::vector<std::string>{of_inode("bad_magic", text(": its magic is 0x0, not 0x%x",
                                                                   this->world.inodes[0].magic)),
                                        of_inode("bad_number", ": its number is 0"),
                                        of_inode("bad_checksum", WRONG_CHECKSUM)}));
}

TYPED_TEST(CheckExtentFlaws, NumberOfAnother)
{
    Device device = this->world.device();
    Block copy = device.block(static_cast<std::uint64_t>(this->extent_at(3)));
    put_block(device, this->extent_at(4), copy);
    const SampleTable table = sample_tables(this->world.sb).back();
    put_u64(copy, static_cast<std::size_t>(table.number_at), ~std::uint64_t{0});
    put_block(device, this->extent_at(5), copy);
    const auto of_extent = [this](const std::string &kind, std::uint64_t no,
                                  const std::string &said) {
        return error(kind, "extent", no, this->extent_at(no)) + said;
    };
    EXPECT_EQ(this->told(device),
              (std::vector<std::string>{
                  of_extent("bad_number", 4, ": its number is 3"),
                  of_extent("bad_number", 5, ": its number is 18446744073709551615"),
                  of_extent("bad_checksum", 5, WRONG_CHECKSUM)}));
}

TEST_F(CheckFlawsV3, MagicOfShards)
{
    world.shards[2].magic = 0x1234'ABCD;
    EXPECT_EQ(told(world.device()),
              std::vector<std::string>{
                  error("bad_magic", "shard", 2, shard_offset(world.sb, 2), "block") +
                  text(": its magic is 0x1234abcd, not 0x%x", ShardBlockV3().magic)});
}

} // namespace
