#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/* Numbers as text. Each function writes at `to` and gives the end of the text. It may use up to
 * ZUTR_DIGITS_ROOM bytes; bytes after the end mean nothing. */

constexpr size_t ZUTR_DIGITS_ROOM = 24;

/* Up to three decimal digits. A copy of all four bytes brings the text with it. */
struct zutr_digits {
    std::array<char, 3> text;
    uint8_t length;

    char *put(char *to) const
    {
        memcpy(to, this, sizeof(*this));
        return to + length;
    }
};

/* Without leading zeros, and with. */
constexpr std::array<zutr_digits, 1000> zutr_make_digits(bool full)
{
    std::array<zutr_digits, 1000> table{};
    for (size_t n = 0; n < table.size(); n++) {
        const size_t zeros = full || n >= 100 ? 0 : n >= 10 ? 1 : 2;
        std::array<char, 3> text = {static_cast<char>('0' + n / 100),
                                    static_cast<char>('0' + n / 10 % 10),
                                    static_cast<char>('0' + n % 10)};
        std::rotate(text.begin(), text.begin() + zeros, text.end());
        table[n] = {text, static_cast<uint8_t>(text.size() - zeros)};
    }
    return table;
}
inline constexpr std::array<zutr_digits, 1000> ZUTR_DIGITS = zutr_make_digits(false);
inline constexpr std::array<zutr_digits, 1000> ZUTR_FULL_DIGITS = zutr_make_digits(true);

/* Two hexadecimal digits of each byte. */
constexpr std::array<std::array<char, 2>, 256> zutr_make_hex_digits()
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::array<std::array<char, 2>, 256> table{};
    for (size_t byte = 0; byte < table.size(); byte++) {
        table[byte] = {DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return table;
}
inline constexpr std::array<std::array<char, 2>, 256> ZUTR_HEX_DIGITS = zutr_make_hex_digits();

/* Decimal, of a number of at most `Bits` bits: the fewer they are, the shorter the way. */
template <uint32_t Bits>
inline char *zutr_put_decimal(char *to, uint64_t value)
{
    constexpr uint32_t SIX_DIGITS = 19; /* 2^19 has six */
    if constexpr (Bits <= 3) {
        *to = static_cast<char>('0' + value);
        return to + 1;
    } else if constexpr (Bits <= 9) {
        return ZUTR_DIGITS[value].put(to);
    } else if constexpr (Bits <= SIX_DIGITS) {
        const auto number = static_cast<uint32_t>(value);
        if (number < 1000) {
            return ZUTR_DIGITS[number].put(to);
        }
        return ZUTR_FULL_DIGITS[number % 1000].put(ZUTR_DIGITS[number / 1000].put(to));
    } else {
        if (value < 1000000) {
            return zutr_put_decimal<SIX_DIGITS>(to, value);
        }
        /* 2^39 has twelve digits. */
        to = zutr_put_decimal<(Bits <= 39 ? SIX_DIGITS : Bits - 19)>(to, value / 1000000);
        const auto low = static_cast<uint32_t>(value % 1000000);
        return ZUTR_FULL_DIGITS[low % 1000].put(ZUTR_FULL_DIGITS[low / 1000].put(to));
    }
}

inline char *zutr_put_signed_decimal(char *to, int64_t value)
{
    if (value >= 0) {
        return zutr_put_decimal<64>(to, static_cast<uint64_t>(value));
    }
    *to = '-';
    return zutr_put_decimal<64>(to + 1, -static_cast<uint64_t>(value));
}

/* Hexadecimal, of a number of at most `Bits` bits, 32 or 64: at least `width` digits, and one. */
template <uint32_t Bits>
inline char *zutr_put_hex(char *to, uint64_t value, uint32_t width = 1)
{
    const auto needed = static_cast<uint32_t>(std::bit_width(value) + 3) / 4;
    const uint32_t digits = std::max({needed, width, 1U});
    uint64_t rest = value << (64 - 4 * digits); /* the first digit on top */
    for (uint32_t i = 0; i < Bits / 8; i++) {
        memcpy(to + size_t{2} * i, ZUTR_HEX_DIGITS[rest >> 56].data(), 2);
        rest <<= 8;
    }
    return to + digits;
}
