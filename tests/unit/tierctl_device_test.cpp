// The one way to write to a device.

#include "device.h"
#include "zu_tierctl/device/device.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

using namespace tier_test;
using tierctl::KeptBlock;

namespace {

struct alignas(4096) Aligned : Block {
    explicit Aligned(std::uint8_t byte) { fill(byte); }
};

class WriteBlock : public testing::Test {
protected:
    WriteBlock() { image.write(4096, Aligned(7)); }

    void write(std::int64_t offset, const void *expected)
    {
        tierctl::Device(image.path(), tierctl::Access::exclusive)
            .write_block(offset, expected, Aligned(9).data());
    }

    // Throws that sentence and writes nothing.
    void expect_refused(std::int64_t offset, const void *expected, const std::string &sentence)
    {
        const auto before = image.bytes();
        try {
            write(offset, expected);
            ADD_FAILURE() << "was written";
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), sentence);
        }
        EXPECT_TRUE(image.bytes() == before);
    }

    std::string at(std::int64_t offset) const
    {
        return text("the block at byte %ld of ", offset) + image.path();
    }

    Device image{3 * BLOCK_SIZE};
    const Aligned seven{7};
};

TEST_F(WriteBlock, TakesThePlaceOfTheExpectedOne)
{
    auto expected = image.bytes();
    std::fill_n(expected.begin() + 4096, 4096, 9);
    write(4096, seven.data());
    EXPECT_TRUE(image.bytes() == expected);
}

// An entry of zeros is the same as a hole: the list still names it.
TEST_F(WriteBlock, ZerosInPlaceOfWhatASavedFileLacks)
{
    image.write(4096, Aligned(0));
    image.directory().write(
        std::filesystem::path(image.path()).filename().string() + ".unreadable.json",
        R"([{"table":"inode","no":0,"count":1,"offset":4096,"error":"Input/output error"}])");
    const auto expected = image.bytes();
    tierctl::Device device(image.path(), tierctl::Access::exclusive);
    ASSERT_FALSE(device.unreadable().empty());
    device.write_block(4096, nullptr, Aligned(0).data());
    EXPECT_TRUE(image.bytes() == expected);
    device.write_block(4096, nullptr, Aligned(9).data());
    EXPECT_TRUE(image.block(4096) == Aligned(9));
}

TEST_F(WriteBlock, RefusesAnyOther)
{
    for (const std::size_t at_byte : {0, 4095}) {
        Aligned other(7);
        other[at_byte] ^= 1;
        expect_refused(4096, other.data(),
                       "nothing was written: " + at(4096) + " has changed meanwhile");
    }
    expect_refused(4096, nullptr, "nothing was written: " + at(4096) + " has changed meanwhile");
}

TEST_F(WriteBlock, RefusesWhatIsNoBlockOfTheDevice)
{
    for (const std::int64_t offset :
         {std::int64_t{-4096}, std::int64_t{1}, std::int64_t{3 * 4096}, INT64_MAX - 4095})
        for (const void *expected :
             {static_cast<const void *>(seven.data()), static_cast<const void *>(nullptr)})
            expect_refused(offset, expected,
                           "nothing was written: cannot read " + at(offset) +
                               ": No such device or address");
}

// Blocks that lie over a device

class LaidOver : public testing::Test {
protected:
    LaidOver()
    {
        for (std::uint64_t i = 0; i < 4; ++i)
            image.write(i * BLOCK_SIZE, Aligned(static_cast<std::uint8_t>(i)));
    }

    // The first byte of each block of a read; empty when it fails.
    std::string read(const tierctl::Device &device, std::int64_t offset, std::size_t blocks) const
    {
        struct alignas(4096) Buffer : std::array<std::uint8_t, 4 * BLOCK_SIZE> {};
        const auto buffer = std::make_unique<Buffer>();
        std::string firsts;
        const bool is_read = device.read(offset, buffer->data(), blocks * BLOCK_SIZE);
        for (std::size_t i = 0; is_read && i < blocks; ++i) {
            const Block block = [&] {
                Block copy;
                std::copy_n(buffer->begin() + static_cast<std::ptrdiff_t>(i * BLOCK_SIZE),
                            BLOCK_SIZE, copy.begin());
                return copy;
            }();
            EXPECT_TRUE(block == Aligned(block[0]));
            firsts += static_cast<char>('0' + block[0]);
        }
        return firsts;
    }

    Device image{4 * BLOCK_SIZE};
};

TEST_F(LaidOver, AreReadInPlaceOfWhatIsThere)
{
    const auto before = image.bytes();
    tierctl::Device device(image.path(), tierctl::Access::read_only);
    EXPECT_EQ(read(device, 0, 4), "0123");
    device.lay_over(4096, KeptBlock(Aligned(7).data()));
    device.lay_over(3 * 4096, KeptBlock(Aligned(8).data()));
    EXPECT_EQ(read(device, 0, 4), "0728");
    EXPECT_EQ(read(device, 0, 1), "0");
    EXPECT_EQ(read(device, 4096, 1), "7");
    EXPECT_EQ(read(device, 4096, 3), "728");
    EXPECT_EQ(read(device, 2 * 4096, 1), "2");
    device.lay_over(4096, KeptBlock(Aligned(9).data()));
    EXPECT_EQ(read(device, 0, 3), "092");
    EXPECT_TRUE(image.bytes() == before);
}

TEST_F(LaidOver, DoNotMakeTheDeviceLonger)
{
    tierctl::Device device(image.path(), tierctl::Access::read_only);
    device.lay_over(4 * 4096, KeptBlock(Aligned(7).data()));
    EXPECT_EQ(read(device, 4 * 4096, 1), "");
    EXPECT_EQ(read(device, 3 * 4096, 2), "");
    EXPECT_EQ(read(device, 3 * 4096, 1), "3");
    EXPECT_EQ(read(device, INT64_MAX - 4095, 1), "");
    EXPECT_EQ(read(device, -4096, 1), "");
}

TEST_F(LaidOver, WhatCannotBeRead)
{
    image.write(4096, Aligned(0));
    image.directory().write(
        std::filesystem::path(image.path()).filename().string() + ".unreadable.json",
        R"([{"table":"inode","no":0,"count":1,"offset":4096,"error":"Input/output error"}])");
    tierctl::Device device(image.path(), tierctl::Access::read_only);
    EXPECT_EQ(read(device, 4096, 1), "");
    device.lay_over(4096, KeptBlock(Aligned(7).data()));
    EXPECT_EQ(read(device, 4096, 1), "7");
    EXPECT_EQ(read(device, 4096, 2), ""); // block by block
}

} // namespace
