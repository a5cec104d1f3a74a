#include "configuration_numbers.h"

#include <limits>

namespace tier_test {

namespace {

constexpr std::uint64_t MINUS_1 = ~std::uint64_t{0};

// Truncated toward zero. What does not fit is the smallest signed number.
const std::vector<SweptNumber> NUMBERS{
    {"0", 0, 0},
    {"0.5", 0, 0},
    {"1", 1, 1},
    {"1.5", 1, 1},
    {"1e3", 1000, 1000},
    {"-0.5", 0, 0},
    {"-1", MINUS_1, MINUS_1},
    {"-1.5", MINUS_1, MINUS_1},
    {"2147483647.9", 0x7FFF'FFFF, 0x7FFF'FFFF},
    {"2147483648", 0x8000'0000, 0x8000'0000},
    {"-2147483649", MINUS_1 - 0x8000'0000, MINUS_1 - 0x8000'0000},
    {"4294967295", 0xFFFF'FFFF, 0xFFFF'FFFF},
    {"4294967296", 0x1'0000'0000, 0x1'0000'0000},
    {"4294967297", 0x1'0000'0001, 0x1'0000'0001},
    {"9007199254740993", 0x20'0000'0000'0001, 0x20'0000'0000'0001}, // 2^53 + 1
    {"9223372036854775807", BIT_63 - 1, BIT_63 - 1},
    {"9223372036854775808", BIT_63, BIT_63},
    {"9223372036854775809", BIT_63 + 1, BIT_63},
    {"18446744073709551615", MINUS_1, BIT_63},
    {"18446744073709551616", BIT_63, BIT_63},
    {"-9223372036854775808", BIT_63, BIT_63},
    {"-9223372036854775809", BIT_63, BIT_63},
    {"1e400", BIT_63, BIT_63},
};

} // namespace

std::uint64_t taken(const SweptNumber &number, Taken how)
{
    if (how == Taken::UNSIGNED_64)
        return number.as_unsigned;
    const auto value = static_cast<std::int64_t>(number.as_signed);
    const bool fits = value >= std::numeric_limits<std::int32_t>::min() &&
                      value <= std::numeric_limits<std::int32_t>::max();
    return how == Taken::SIGNED_32 && !fits ? std::uint64_t{0x8000'0000} : number.as_signed;
}

std::vector<SweptNumber> swept_numbers(const ConfigKey &key)
{
    std::vector<SweptNumber> numbers = NUMBERS;
    const auto add = [&numbers](std::uint64_t value) {
        numbers.push_back({std::to_string(value), value, value});
    };
    if (key.width < 32) {
        const std::uint64_t bound = std::uint64_t{1} << key.width;
        for (const std::uint64_t value : {bound / 2 - 1, bound / 2, bound - 1, bound, bound + 1})
            add(value);
    }
    for (const std::string &value : key.more)
        add(std::stoull(value));
    return numbers;
}

} // namespace tier_test
