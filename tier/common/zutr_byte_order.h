#pragma once

#include <bit>
#include <cstdint>
#include <endian.h>

/* Conversions between the host's byte order and network (big-endian), little-endian and big-endian
 * order. Each is its own inverse. They stand in for the system's macros of the same names. */
#undef htole16
#undef htole32
#undef htole64
#undef htobe16
#undef htobe32
#undef htobe64

constexpr bool ZUTR_HOST_IS_LITTLE = std::endian::native == std::endian::little;

constexpr uint16_t htobe16(uint16_t value)
{
    return ZUTR_HOST_IS_LITTLE ? __builtin_bswap16(value) : value;
}

constexpr uint32_t htobe32(uint32_t value)
{
    return ZUTR_HOST_IS_LITTLE ? __builtin_bswap32(value) : value;
}

constexpr uint64_t htobe64(uint64_t value)
{
    return ZUTR_HOST_IS_LITTLE ? __builtin_bswap64(value) : value;
}

constexpr uint16_t htole16(uint16_t value)
{
    return ZUTR_HOST_IS_LITTLE ? value : __builtin_bswap16(value);
}

constexpr uint32_t htole32(uint32_t value)
{
    return ZUTR_HOST_IS_LITTLE ? value : __builtin_bswap32(value);
}

constexpr uint64_t htole64(uint64_t value)
{
    return ZUTR_HOST_IS_LITTLE ? value : __builtin_bswap64(value);
}

constexpr uint16_t hton16(uint16_t value) { return htobe16(value); }
constexpr uint32_t hton32(uint32_t value) { return htobe32(value); }
constexpr uint64_t hton64(uint64_t value) { return htobe64(value); }
