#pragma once

// Bytes of on-disk records as the tests see them: little-endian fields at numeric offsets. Nothing
// here comes from the tool, so a wrong offset or checksum in the tool cannot hide behind a copy of
// it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tier_test {

constexpr std::size_t BLOCK_SIZE = 4096;
constexpr std::uint64_t MIB = 1048576;
constexpr std::uint64_t BIT_32 = std::uint64_t{1} << 32;
constexpr std::uint64_t BIT_63 = std::uint64_t{1} << 63;

using Block = std::array<std::uint8_t, BLOCK_SIZE>;
using Uuid = std::array<std::uint8_t, 16>;
using ByteSpan = std::span<std::uint8_t>;
using ConstByteSpan = std::span<const std::uint8_t>;

void put_u8(ByteSpan bytes, std::size_t offset, std::uint8_t value);
void put_u16(ByteSpan bytes, std::size_t offset, std::uint16_t value);
void put_u32(ByteSpan bytes, std::size_t offset, std::uint32_t value);
void put_u64(ByteSpan bytes, std::size_t offset, std::uint64_t value);
void put_bytes(ByteSpan bytes, std::size_t offset, ConstByteSpan value);
void put_text(ByteSpan bytes, std::size_t offset, std::string_view text);

std::uint8_t get_u8(ConstByteSpan bytes, std::size_t offset);
std::uint16_t get_u16(ConstByteSpan bytes, std::size_t offset);
std::uint32_t get_u32(ConstByteSpan bytes, std::size_t offset);
std::uint64_t get_u64(ConstByteSpan bytes, std::size_t offset);
std::string get_text(ConstByteSpan bytes, std::size_t offset); // up to its terminator
Uuid get_uuid(ConstByteSpan bytes, std::size_t offset);

// CRC-32 bit by bit, with the reflected polynomial 0xEDB88320.
std::uint32_t crc32(ConstByteSpan bytes);

// The checksum of a record of `length` bytes: it covers everything after its own four bytes.
std::uint32_t record_crc(ConstByteSpan record, std::size_t length);

// Stores record_crc in the first four bytes.
void seal(ByteSpan record, std::size_t length);

std::uint64_t round_up(std::uint64_t value, std::uint64_t unit);

// 36 lower-case characters.
std::string uuid_text(const Uuid &uuid);

// A recognisable UUID made from a number: no two numbers share one.
Uuid numbered_uuid(std::uint8_t number);

// Local time of a nanosecond stamp, "%Y-%m-%d %H:%M:%S".
std::string time_text(std::uint64_t nanoseconds);

// The text that printf would write.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);

} // namespace tier_test
