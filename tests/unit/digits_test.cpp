// Numbers as text, written into memory whose surroundings must stay as they are.

#include "bytes.h"
#include "zu_tier/record/digits.h"

#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <utility>

using namespace tier_test;

namespace {

// Room for one number between guards.
class Paper {
public:
    Paper() { bytes_.fill(GUARD); }

    char *begin() { return bytes_.data() + MARGIN; }

    // Whether `expected` has been written up to `end`, and nothing outside the room for it.
    bool shows(const char *end, std::string_view expected) const
    {
        const char *text = bytes_.data() + MARGIN;
        return std::string_view(text, static_cast<std::size_t>(end - text)) == expected &&
               memcmp(bytes_.data(), GUARDS.data(), MARGIN) == 0 &&
               memcmp(text + ZUTR_DIGITS_ROOM, GUARDS.data(), MARGIN) == 0;
    }

    std::string whole() const { return {bytes_.begin(), bytes_.end()}; }

private:
    static constexpr std::size_t MARGIN = 16;
    static constexpr char GUARD = '#';
    static constexpr std::string_view GUARDS = "################";
    static_assert(GUARDS.size() == MARGIN);

    std::array<char, MARGIN + ZUTR_DIGITS_ROOM + MARGIN> bytes_;
};

// zutr_put_decimal for numbers of 1, 2 and so on up to 64 bits.
constexpr auto PUT_DECIMAL = []<std::size_t... I>(std::index_sequence<I...>)
{
    return std::array{zutr_put_decimal<I + 1>...};
}
(std::make_index_sequence<64>());

constexpr std::uint64_t largest(std::size_t bits) { return ~std::uint64_t{0} >> (64 - bits); }

// Powers of ten and two and what is next to them.
std::vector<std::uint64_t> special_values()
{
    std::vector<std::uint64_t> values{0, 1, 9};
    std::uint64_t power = 1;
    for (int digits = 1; digits < 20; ++digits) {
        power *= 10;
        values.insert(values.end(), {power - 1, power, power + 1, 5 * (power / 10) + 7});
    }
    for (std::size_t bits = 1; bits <= 64; ++bits)
        values.insert(values.end(), {largest(bits) - 1, largest(bits), largest(bits) / 2 + 1});
    return values;
}

TEST(Digits, DecimalsOfEveryWidth)
{
    const std::vector<std::uint64_t> values = special_values();
    for (std::size_t bits = 1; bits <= 64; ++bits) {
        for (const std::uint64_t value : values) {
            if (value > largest(bits))
                continue;
            Paper paper;
            const char *end = PUT_DECIMAL[bits - 1](paper.begin(), value);
            EXPECT_TRUE(paper.shows(end, text("%lu", value)))
                << value << " of " << bits << " bits: " << paper.whole();
        }
    }
}

TEST(Digits, EverySmallNumberOfEveryWidth)
{
    Paper paper;
    for (std::uint64_t value = 0; value < 1U << 19; ++value) {
        const std::string expected = text("%lu", value);
        for (std::size_t bits = 1; bits <= 64; ++bits) {
            if (value <= largest(bits) &&
                !paper.shows(PUT_DECIMAL[bits - 1](paper.begin(), value), expected))
                FAIL() << value << " of " << bits << " bits: " << paper.whole();
        }
    }
}

TEST(Digits, SignedDecimals)
{
    using Limits = std::numeric_limits<std::int64_t>;
    std::vector<std::int64_t> values{Limits::min(), Limits::min() + 1, Limits::max()};
    for (const std::uint64_t value : special_values()) {
        if (value <= largest(63)) {
            values.push_back(static_cast<std::int64_t>(value));
            values.push_back(-static_cast<std::int64_t>(value));
        }
    }
    for (const std::int64_t value : values) {
        Paper paper;
        const char *end = zutr_put_signed_decimal(paper.begin(), value);
        EXPECT_TRUE(paper.shows(end, text("%ld", value))) << value << ": " << paper.whole();
    }
}

template <std::uint32_t Bits>
void expect_hexadecimals()
{
    for (std::size_t width_of_value = 0; width_of_value <= Bits; ++width_of_value) {
        const std::uint64_t ones = width_of_value == 0 ? 0 : largest(width_of_value);
        for (const std::uint64_t value : {ones, ones - ones / 2, ones & 0x0123456789ABCDEF,
                                          ones & 0xFEDCBA9876543210, ones - ones / 3}) {
            for (std::uint32_t width = 0; width <= Bits / 4; ++width) {
                Paper paper;
                const char *end = zutr_put_hex<Bits>(paper.begin(), value, width);
                EXPECT_TRUE(paper.shows(end, text("%0*lx", static_cast<int>(width), value)))
                    << value << " with " << width << " digits: " << paper.whole();
            }
            Paper paper;
            const char *end = zutr_put_hex<Bits>(paper.begin(), value);
            EXPECT_TRUE(paper.shows(end, text("%lx", value))) << value << ": " << paper.whole();
        }
    }
}

TEST(Digits, HexadecimalsOf32Bits) { expect_hexadecimals<32>(); }

TEST(Digits, HexadecimalsOf64Bits) { expect_hexadecimals<64>(); }

} // namespace
