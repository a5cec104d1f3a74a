// Every way to compute a checksum, and the choice among them. The expected values are computed here
// bit by bit.

#include "bytes.h"
#include "common/zutr_crc32.h"
#include "noise.h"

#include <gtest/gtest.h>

#ifdef __aarch64__
#include <optional>
#include <sys/auxv.h>

static std::optional<unsigned long> pretended_features; // of the processor

// The C library's other name for it.
extern "C" unsigned long __getauxval(unsigned long type) noexcept;

// Takes the place of the C library's for the whole program.
extern "C" unsigned long getauxval(unsigned long type) noexcept
{
    if (type == AT_HWCAP && pretended_features)
        return *pretended_features;
    return __getauxval(type);
}
#endif

using namespace tier_test;

namespace {

constexpr std::uint32_t ALL_ONES = 0xFFFFFFFF;
constexpr std::uint32_t OTHER_STATES[] = {0, 1, 0x80000000, 0xDEADBEEF, 0xFFFFFFFE};

std::uint32_t after_byte(std::uint32_t state, std::uint8_t byte)
{
    state ^= byte;
    for (int bit = 0; bit < 8; ++bit)
        state = (state & 1U) != 0 ? (state >> 1) ^ 0xEDB88320U : state >> 1;
    return state;
}

// The states after 0, 1, 2 and so on up to all of the bytes.
std::vector<std::uint32_t> states_of(std::uint32_t state, ConstByteSpan bytes)
{
    std::vector<std::uint32_t> states{state};
    for (const std::uint8_t byte : bytes)
        states.push_back(state = after_byte(state, byte));
    return states;
}

std::uint32_t right(std::uint32_t state, const std::uint8_t *data, std::size_t length)
{
    return states_of(state, {data, length}).back();
}

class Crc32Way : public testing::TestWithParam<zutr_crc32_way> {
protected:
    const zutr_crc32_way way = GetParam();

    void SetUp() override
    {
        if (!way.available())
            GTEST_SKIP() << "not on this processor";
    }
};

INSTANTIATE_TEST_SUITE_P(, Crc32Way, testing::ValuesIn(ZUTR_CRC32_WAYS),
                         [](const auto &it) { return std::string(it.param.name); });

TEST_P(Crc32Way, CheckValue)
{
    const std::string_view digits = "123456789";
    const auto *data = reinterpret_cast<const std::uint8_t *>(digits.data());
    EXPECT_EQ(~way.update(ALL_ONES, data, digits.size()), 0xCBF43926U);
}

TEST_P(Crc32Way, EveryLengthAtEveryAlignment)
{
    constexpr std::size_t ALIGNMENTS = 64;
    constexpr std::size_t LENGTH = 4096;
    std::vector<std::uint8_t> memory = noise(2 * ALIGNMENTS + LENGTH);
    const std::size_t skew = reinterpret_cast<std::uintptr_t>(memory.data()) % ALIGNMENTS;
    const std::uint8_t *aligned = memory.data() + (ALIGNMENTS - skew) % ALIGNMENTS;
    for (std::size_t start = 0; start < ALIGNMENTS; ++start) {
        const ConstByteSpan range(aligned + start, LENGTH);
        const std::vector<std::uint32_t> expected = states_of(ALL_ONES, range);
        ASSERT_EQ(~expected.back(), crc32(range));
        for (std::size_t length = 0; length <= LENGTH; ++length)
            if (way.update(ALL_ONES, range.data(), length) != expected[length])
                FAIL() << length << " bytes at " << start;
    }
}

TEST_P(Crc32Way, GoesOnFromAnyState)
{
    const std::vector<std::uint8_t> bytes = noise(300);
    for (const std::uint32_t state : OTHER_STATES) {
        const std::vector<std::uint32_t> expected = states_of(state, bytes);
        for (std::size_t length = 0; length <= bytes.size(); ++length)
            ASSERT_EQ(way.update(state, bytes.data(), length), expected[length])
                << length << " bytes from " << state;
    }
}

TEST_P(Crc32Way, TwoPiecesAreAsGoodAsOne)
{
    const std::vector<std::uint8_t> bytes = noise(300);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        const std::uint32_t state = way.update(ALL_ONES, bytes.data(), cut);
        EXPECT_EQ(~way.update(state, bytes.data() + cut, bytes.size() - cut), crc32(bytes)) << cut;
    }
}

TEST_P(Crc32Way, LargeRange)
{
    const std::vector<std::uint8_t> bytes = noise(MIB + 5);
    EXPECT_EQ(~way.update(ALL_ONES, bytes.data(), bytes.size()), crc32(bytes));
}

TEST(Crc32Ways, TheLastIsAlwaysThere)
{
    ASSERT_FALSE(ZUTR_CRC32_WAYS.empty());
    EXPECT_TRUE(ZUTR_CRC32_WAYS.back().available());
}

#ifdef __aarch64__
TEST(Crc32Ways, TheInstructionIsForProcessorsThatHaveIt)
{
    pretended_features = HWCAP_CRC32;
    EXPECT_STREQ(zutr_crc32_choose(ZUTR_CRC32_WAYS).name, "instruction");
    pretended_features = ~static_cast<unsigned long>(HWCAP_CRC32);
    EXPECT_STREQ(zutr_crc32_choose(ZUTR_CRC32_WAYS).name, "slices");
    pretended_features.reset();
}
#endif

bool yes() { return true; }

bool no() { return false; }

// Wrong for the ranges that `Wrong` picks.
template <bool (*Wrong)(std::size_t length)>
std::uint32_t partly_wrong(std::uint32_t state, const std::uint8_t *data, std::size_t length)
{
    return right(state, data, length) ^ (Wrong(length) ? 0x10U : 0U);
}

bool any_length(std::size_t) { return true; }

bool short_only(std::size_t length) { return length < 16; }

bool long_only(std::size_t length) { return length >= 128; }

bool broken_block(std::size_t length) { return length > 16 && length % 16 != 0; }

// Stands for an instruction that the processor does not have.
std::uint32_t refused(std::uint32_t, const std::uint8_t *, std::size_t)
{
    ADD_FAILURE() << "an unavailable way was tried";
    return 0;
}

constexpr zutr_crc32_way RIGHT = {"right", yes, right};
constexpr zutr_crc32_way RIGHT_TOO = {"right too", yes, right};
constexpr zutr_crc32_way UNAVAILABLE = {"unavailable", no, refused};
constexpr zutr_crc32_way WRONG = {"wrong", yes, partly_wrong<any_length>};
constexpr zutr_crc32_way WRONG_WAYS[] = {
    WRONG,
    {"wrong when short", yes, partly_wrong<short_only>},
    {"wrong when long", yes, partly_wrong<long_only>},
    {"wrong at the end", yes, partly_wrong<broken_block>},
};

std::string chosen(const std::vector<zutr_crc32_way> &ways) { return zutr_crc32_choose(ways).name; }

TEST(Crc32Choice, FirstThatIsRight)
{
    EXPECT_EQ(chosen({RIGHT, RIGHT_TOO}), "right");
    EXPECT_EQ(chosen({RIGHT_TOO, RIGHT, WRONG}), "right too");
}

TEST(Crc32Choice, PassesOverOneThatIsUnavailable)
{
    EXPECT_EQ(chosen({UNAVAILABLE, RIGHT, RIGHT_TOO}), "right");
}

TEST(Crc32Choice, PassesOverOneThatIsWrong)
{
    for (const zutr_crc32_way &wrong : WRONG_WAYS) {
        EXPECT_EQ(chosen({wrong, RIGHT, RIGHT_TOO}), "right") << wrong.name;
        EXPECT_EQ(chosen({UNAVAILABLE, wrong, wrong, RIGHT_TOO, RIGHT}), "right too") << wrong.name;
    }
}

TEST(Crc32Choice, LastWhenNoOtherIsRight)
{
    const zutr_crc32_way last = {"last", yes, partly_wrong<any_length>};
    EXPECT_EQ(chosen({WRONG, UNAVAILABLE, RIGHT}), "right");
    EXPECT_EQ(chosen({WRONG, UNAVAILABLE, last}), "last");
    EXPECT_EQ(chosen({last}), "last");
}

TEST(Crc32Choice, AmongTheRealWaysTheFirstAvailable)
{
    const auto expected = std::ranges::find_if(
        ZUTR_CRC32_WAYS, [](const zutr_crc32_way &way) { return way.available(); });
    EXPECT_EQ(zutr_crc32_choose(ZUTR_CRC32_WAYS).name, expected->name);
}

} // namespace
