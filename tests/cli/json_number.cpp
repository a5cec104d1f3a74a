#include "json_number.h"

#include "bytes.h"

#include <cmath>
#include <limits>

namespace tier_test {

namespace {

std::uint64_t to_signed(long double value, int bits)
{
    const long double bound = std::ldexp(1.0L, bits - 1);
    const long double whole = std::trunc(value);
    if (whole >= -bound && whole < bound)
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(whole));
    return std::uint64_t{1} << (bits - 1);
}

} // namespace

std::uint64_t convert(Conversion conversion, long double value)
{
    if (conversion == Conversion::SIGNED_32)
        return to_signed(value, 32);
    if (conversion == Conversion::UNSIGNED_64 && value >= 0x1p63L)
        return to_signed(value - 0x1p63L, 64) | BIT_63;
    return to_signed(value, 64);
}

const std::vector<JsonNumber> &boundary_numbers()
{
    constexpr long double INFINITE = std::numeric_limits<long double>::infinity();
    static const std::vector<JsonNumber> NUMBERS{
        {"0", 0.0L},
        {"-0", 0.0L},
        {"1", 1.0L},
        {"-1", -1.0L},
        {"0.999", 0.999L},
        {"3.7", 3.7L},
        {"-0.5", -0.5L},
        {"-1.5", -1.5L},
        {"1e3", 1000.0L},
        {"25E-1", 2.5L},
        {"32767", 32767.0L},
        {"32768", 32768.0L},
        {"65535", 65535.0L},
        {"65536", 65536.0L},
        {"65537", 65537.0L},
        {"-65537", -65537.0L},
        {"2147483647", 2147483647.0L},
        {"2147483647.9", 2147483647.9L},
        {"2147483648", 2147483648.0L},
        {"2147483649", 2147483649.0L},
        {"-2147483648", -2147483648.0L},
        {"-2147483648.9", -2147483648.9L},
        {"-2147483649", -2147483649.0L},
        {"4294967295", 4294967295.0L},
        {"4294967296", 4294967296.0L},
        {"4294967297", 4294967297.0L},
        {"-4294967295", -4294967295.0L},
        {"9007199254740993", 9007199254740993.0L}, // 2^53 + 1
        {"-9007199254740993", -9007199254740993.0L},
        {"9223372036854775807", 9223372036854775807.0L},
        {"9223372036854775807.5", 9223372036854775807.5L},
        {"9223372036854775808", 9223372036854775808.0L},
        {"9223372036854775809", 9223372036854775809.0L},
        {"-9223372036854775807", -9223372036854775807.0L},
        {"-9223372036854775808", -9223372036854775808.0L},
        {"-9223372036854775809", -9223372036854775809.0L},
        {"1.5e19", 1.5e19L},
        {"-1.5e19", -1.5e19L},
        {"18446744073709551615", 18446744073709551615.0L},
        {"18446744073709551615.4", 18446744073709551615.4L},
        {"18446744073709551616", 18446744073709551616.0L},
        {"18446744073709551617", 18446744073709551617.0L},
        {"1e400", 1e400L}, // more than a double holds
        {"-1e400", -1e400L},
        {"1e-400", 1e-400L},
        {"1e5000", INFINITE},
        {"-1e5000", -INFINITE},
        {"1e-5000", 0.0L},
    };
    return NUMBERS;
}

} // namespace tier_test
