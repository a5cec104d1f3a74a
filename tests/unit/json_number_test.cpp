// From a JSON number to an integer field: truncation, and numbers out of range.

#include "zu_tier/record/json.h"

#include <gtest/gtest.h>
#include <limits>
#include <span>

namespace {

constexpr long double TWO_31 = 0x1p31L;
constexpr long double TWO_63 = 0x1p63L;
constexpr long double TWO_64 = 0x1p64L;
constexpr long double ENDLESS = std::numeric_limits<long double>::infinity();
constexpr long double LARGEST_REAL = std::numeric_limits<long double>::max();
constexpr long double TINY = std::numeric_limits<long double>::denorm_min();
constexpr std::uint64_t INDEFINITE_64 = 0x8000000000000000;
constexpr std::uint32_t INDEFINITE_32 = 0x80000000;

struct NumberRow {
    long double number;
    std::uint64_t expected;
};

// The same for all three conversions, up to their width.
constexpr NumberRow SMALL[] = {
    {0.0L, 0},
    {-0.0L, 0},
    {TINY, 0},
    {-TINY, 0},
    {0.5L, 0},
    {-0.5L, 0},
    {0.9999999999999999999999999999999999999999L, 1}, // the nearest number is 1
    {1.0L, 1},
    {1.999L, 1},
    {-1.0L, 0xFFFFFFFFFFFFFFFF},
    {-1.999L, 0xFFFFFFFFFFFFFFFF},
    {-2.0L, 0xFFFFFFFFFFFFFFFE},
    {65537.0L, 65537},
    {TWO_31 - 1, 0x7FFFFFFF},
    {TWO_31 - 0.25L, 0x7FFFFFFF},
    {-TWO_31, 0xFFFFFFFF80000000},
    {-TWO_31 - 0.75L, 0xFFFFFFFF80000000},
};

// Beyond 32 bits the two wide conversions agree up to 2^63.
constexpr NumberRow WIDE[] = {
    {TWO_31, 0x80000000},
    {-TWO_31 - 1, 0xFFFFFFFF7FFFFFFF},
    {0x1p53L + 1, 0x20000000000001},
    {TWO_63 - 1, 0x7FFFFFFFFFFFFFFF},
    {TWO_63 - 0.5L, 0x7FFFFFFFFFFFFFFF},
    {-TWO_63, INDEFINITE_64},
    {-TWO_63 + 1, 0x8000000000000001},
    {-TWO_63 - 1, INDEFINITE_64},
    {-TWO_64, INDEFINITE_64},
    {-LARGEST_REAL, INDEFINITE_64},
    {-ENDLESS, INDEFINITE_64},
};

constexpr NumberRow SIGNED_64_TOP[] = {
    {TWO_63, INDEFINITE_64}, {TWO_63 + 1, INDEFINITE_64},   {TWO_64 - 1, INDEFINITE_64},
    {TWO_64, INDEFINITE_64}, {LARGEST_REAL, INDEFINITE_64}, {ENDLESS, INDEFINITE_64},
};

constexpr NumberRow UNSIGNED_64_TOP[] = {
    {TWO_63, 0x8000000000000000},     {TWO_63 + 1, 0x8000000000000001},
    {TWO_64 - 2, 0xFFFFFFFFFFFFFFFE}, {TWO_64 - 1, 0xFFFFFFFFFFFFFFFF},
    {TWO_64, INDEFINITE_64},          {TWO_64 + 2, INDEFINITE_64},
    {LARGEST_REAL, INDEFINITE_64},    {ENDLESS, INDEFINITE_64},
};

constexpr NumberRow SIGNED_32_BEYOND[] = {
    {TWO_31, INDEFINITE_32},        {TWO_31 + 0.5L, INDEFINITE_32}, {-TWO_31 - 1, INDEFINITE_32},
    {0x1p32L, INDEFINITE_32},       {0x1p32L + 5, INDEFINITE_32},   {TWO_63, INDEFINITE_32},
    {-TWO_63, INDEFINITE_32},       {TWO_64, INDEFINITE_32},        {LARGEST_REAL, INDEFINITE_32},
    {-LARGEST_REAL, INDEFINITE_32}, {ENDLESS, INDEFINITE_32},       {-ENDLESS, INDEFINITE_32},
};

// Field: the type whose bits a caller may keep.
template <class Field>
void expect_rows(std::uint64_t (*convert)(long double),
                 std::initializer_list<std::span<const NumberRow>> tables)
{
    for (const auto &table : tables)
        for (const NumberRow &row : table)
            EXPECT_EQ(static_cast<Field>(convert(row.number)), static_cast<Field>(row.expected))
                << row.number;
}

TEST(JsonNumber, Unsigned64)
{
    expect_rows<std::uint64_t>(zutr_to_u64, {SMALL, WIDE, UNSIGNED_64_TOP});
}

TEST(JsonNumber, Signed64)
{
    expect_rows<std::uint64_t>(zutr_to_s64, {SMALL, WIDE, SIGNED_64_TOP});
}

TEST(JsonNumber, Signed32) { expect_rows<std::uint32_t>(zutr_to_s32, {SMALL, SIGNED_32_BEYOND}); }

TEST(JsonNumber, NarrowFieldsOfNumbersOutOfRangeAreZero)
{
    for (const long double number :
         {TWO_63, TWO_64, LARGEST_REAL, ENDLESS, -LARGEST_REAL, -ENDLESS}) {
        EXPECT_EQ(static_cast<std::uint32_t>(zutr_to_s64(number)), 0U) << number;
        EXPECT_EQ(static_cast<std::uint16_t>(zutr_to_s32(number)), 0U) << number;
    }
}

} // namespace
