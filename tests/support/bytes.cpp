#include "bytes.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <vector>

namespace tier_test {

namespace {

void put_little_endian(ByteSpan bytes, std::size_t offset, std::uint64_t value, std::size_t width)
{
    for (std::size_t i = 0; i < width; ++i)
        put_u8(bytes, offset + i, static_cast<std::uint8_t>(value >> (8 * i)));
}

std::uint64_t get_little_endian(ConstByteSpan bytes, std::size_t offset, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint64_t{get_u8(bytes, offset + i)} << (8 * i);
    return value;
}

void require_room(std::size_t size, std::size_t offset, std::size_t length)
{
    if (offset > size || length > size - offset)
        throw std::out_of_range(text("%zu bytes at offset %zu of %zu", length, offset, size));
}

} // namespace

void put_u8(ByteSpan bytes, std::size_t offset, std::uint8_t value)
{
    require_room(bytes.size(), offset, 1);
    bytes[offset] = value;
}

void put_u16(ByteSpan bytes, std::size_t offset, std::uint16_t value)
{
    put_little_endian(bytes, offset, value, sizeof(value));
}

void put_u32(ByteSpan bytes, std::size_t offset, std::uint32_t value)
{
    put_little_endian(bytes, offset, value, sizeof(value));
}

void put_u64(ByteSpan bytes, std::size_t offset, std::uint64_t value)
{
    put_little_endian(bytes, offset, value, sizeof(value));
}

void put_bytes(ByteSpan bytes, std::size_t offset, ConstByteSpan value)
{
    require_room(bytes.size(), offset, value.size());
    std::ranges::copy(value, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

void put_text(ByteSpan bytes, std::size_t offset, std::string_view value)
{
    require_room(bytes.size(), offset, value.size());
    std::ranges::copy(value, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

std::uint8_t get_u8(ConstByteSpan bytes, std::size_t offset)
{
    require_room(bytes.size(), offset, 1);
    return bytes[offset];
}

std::uint16_t get_u16(ConstByteSpan bytes, std::size_t offset)
{
    return static_cast<std::uint16_t>(get_little_endian(bytes, offset, 2));
}

std::uint32_t get_u32(ConstByteSpan bytes, std::size_t offset)
{
    return static_cast<std::uint32_t>(get_little_endian(bytes, offset, 4));
}

std::uint64_t get_u64(ConstByteSpan bytes, std::size_t offset)
{
    return get_little_endian(bytes, offset, 8);
}

std::string get_text(ConstByteSpan bytes, std::size_t offset)
{
    const auto *text = reinterpret_cast<const char *>(bytes.data() + offset);
    return {text, strnlen(text, bytes.size() - offset)};
}

Uuid get_uuid(ConstByteSpan bytes, std::size_t offset)
{
    Uuid uuid;
    require_room(bytes.size(), offset, uuid.size());
    std::ranges::copy(bytes.subspan(offset, uuid.size()), uuid.begin());
    return uuid;
}

std::uint32_t crc32(ConstByteSpan bytes)
{
    std::uint32_t crc = 0xFFFFFFFFU;
    for (const std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1U) != 0 ? (crc >> 1) ^ 0xEDB88320U : crc >> 1;
    }
    return ~crc;
}

std::uint32_t record_crc(ConstByteSpan record, std::size_t length)
{
    require_room(record.size(), 4, length - 4);
    return crc32(record.subspan(4, length - 4));
}

void seal(ByteSpan record, std::size_t length) { put_u32(record, 0, record_crc(record, length)); }

std::uint64_t round_up(std::uint64_t value, std::uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

std::string uuid_text(const Uuid &uuid)
{
    std::string result;
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            result += '-';
        result += text("%02x", uuid[i]);
    }
    return result;
}

Uuid numbered_uuid(std::uint8_t number)
{
    Uuid uuid;
    for (std::size_t i = 0; i < uuid.size(); ++i)
        uuid[i] = static_cast<std::uint8_t>(0xA0 + i);
    uuid[0] = number;
    return uuid;
}

std::string time_text(std::uint64_t nanoseconds)
{
    const auto seconds = static_cast<std::time_t>(nanoseconds / 1'000'000'000U);
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr)
        throw std::out_of_range("a time without a local form");
    std::array<char, 64> buffer{};
    return {buffer.data(),
            std::strftime(buffer.data(), buffer.size(), "%Y-%m-%d %H:%M:%S", &local)};
}

std::string text(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, again);
    va_end(again);
    return {buffer.data(), static_cast<std::size_t>(length)};
}

} // namespace tier_test
