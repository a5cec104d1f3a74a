// The one way to write to a device.

#include "device.h"
#include "zu_tierctl/device/device.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;

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

} // namespace
