#include "zu_tierctl/device/base64.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace tierctl {

namespace {

constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char PADDING = '=';

/* Four digits stand for three bytes. */
constexpr size_t GROUP_DIGITS = 4;
constexpr size_t GROUP_BYTES = 3;
constexpr size_t DIGIT_BITS = 6;

constexpr uint8_t NO_DIGIT = 0xFF;

/* The value of each character. */
constexpr std::array<uint8_t, 256> values_of_digits()
{
    std::array<uint8_t, 256> values{};
    values.fill(NO_DIGIT);
    for (size_t i = 0; i < DIGITS.size(); i++) {
        values[static_cast<uint8_t>(DIGITS[i])] = static_cast<uint8_t>(i);
    }
    return values;
}
constexpr std::array<uint8_t, 256> VALUES = values_of_digits();

} // namespace

std::string base64_text(std::span<const uint8_t> bytes)
{
    std::string text;
    text.reserve((bytes.size() + GROUP_BYTES - 1) / GROUP_BYTES * GROUP_DIGITS);
    for (size_t at = 0; at < bytes.size(); at += GROUP_BYTES) {
        const size_t count = std::min(GROUP_BYTES, bytes.size() - at);
        uint32_t group = 0;
        for (size_t i = 0; i < GROUP_BYTES; i++) {
            group = group << 8 | (i < count ? bytes[at + i] : 0U);
        }
        for (size_t i = 0; i < GROUP_DIGITS; i++) {
            const uint32_t digit = group >> DIGIT_BITS * (GROUP_DIGITS - 1 - i) & 63U;
            text += i <= count ? DIGITS[digit] : PADDING;
        }
    }
    return text;
}

std::optional<std::vector<uint8_t>> base64_bytes(std::string_view text)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / GROUP_DIGITS * GROUP_BYTES);
    uint32_t group = 0;
    size_t bits = 0; /* of the group that are in no byte yet */
    for (const char digit : text.substr(0, text.find(PADDING))) {
        const uint8_t value = VALUES[static_cast<uint8_t>(digit)];
        if (value == NO_DIGIT) {
            return std::nullopt;
        }
        group = group << DIGIT_BITS | value;
        bits += DIGIT_BITS;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<uint8_t>(group >> bits));
        }
    }
    /* Neither bits that belong to no byte, nor too little or too much padding. */
    return base64_text(bytes) == text ? std::optional(std::move(bytes)) : std::nullopt;
}

} // namespace tierctl
