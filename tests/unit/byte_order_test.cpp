// Byte-order conversions: host order, and what reaches the device.

#include "common/zutr_byte_order.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>

namespace {

// The bytes of the value in memory, lowest address first.
template <class Value>
std::array<std::uint8_t, sizeof(Value)> in_memory(Value value)
{
    std::array<std::uint8_t, sizeof(Value)> bytes;
    std::memcpy(bytes.data(), &value, sizeof(Value));
    return bytes;
}

template <class Value>
std::array<std::uint8_t, sizeof(Value)> from_top(Value value)
{
    std::array<std::uint8_t, sizeof(Value)> bytes;
    for (std::size_t i = 0; i < sizeof(Value); ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(Value) - 1 - i)));
    return bytes;
}

template <class Value>
std::array<std::uint8_t, sizeof(Value)> from_bottom(Value value)
{
    std::array<std::uint8_t, sizeof(Value)> bytes;
    for (std::size_t i = 0; i < sizeof(Value); ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    return bytes;
}

template <class Value>
struct Width {
    Value (*hton)(Value);
    Value (*htobe)(Value);
    Value (*htole)(Value);
};

template <class Value>
void expect_conversions(const Width<Value> &width, std::initializer_list<Value> values)
{
    for (const Value value : values) {
        EXPECT_EQ(in_memory(width.hton(value)), from_top(value)) << value;
        EXPECT_EQ(in_memory(width.htobe(value)), from_top(value)) << value;
        EXPECT_EQ(in_memory(width.htole(value)), from_bottom(value)) << value;
        EXPECT_EQ(width.hton(width.hton(value)), value);
        EXPECT_EQ(width.htobe(width.htobe(value)), value);
        EXPECT_EQ(width.htole(width.htole(value)), value);
    }
}

TEST(ByteOrder, SixteenBits)
{
    expect_conversions<std::uint16_t>({hton16, htobe16, htole16}, {0, 1, 0x0102, 0x80FF, 0xFFFF});
}

TEST(ByteOrder, ThirtyTwoBits)
{
    expect_conversions<std::uint32_t>({hton32, htobe32, htole32},
                                      {0, 1, 0x01020304, 0x80FFFE7F, 0xFFFFFFFF});
}

TEST(ByteOrder, SixtyFourBits)
{
    expect_conversions<std::uint64_t>(
        {hton64, htobe64, htole64},
        {0, 1, 0x0102030405060708, 0x80FFFE7F00112233, 0xFFFFFFFFFFFFFFFF});
}

TEST(ByteOrder, LittleEndianHostSwapsForTheNetworkOnly)
{
    if (std::endian::native != std::endian::little)
        GTEST_SKIP() << "a big-endian host";
    EXPECT_EQ(hton32(0x01020304), 0x04030201U);
    EXPECT_EQ(htobe32(0x01020304), 0x04030201U);
    EXPECT_EQ(htole32(0x01020304), 0x01020304U);
    EXPECT_EQ(hton16(0x0102), 0x0201);
    EXPECT_EQ(hton64(0x0102030405060708), 0x0807060504030201U);
}

} // namespace
