// The room that is set aside for a record before it is printed.

#include "zu_tier/record/record.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string_view>

namespace {

struct Stamps {
    std::uint64_t first;
    std::uint64_t second;
    std::uint64_t third;
};

// With keys of such lengths that no padding of the text between the values adds to the room.
constexpr auto STAMPS = std::tuple{
    zutr_field{"ten_chars_", &Stamps::first, zutr_form::hex_and_time},
    zutr_field{"8_chars_", &Stamps::second, zutr_form::hex_and_time},
    zutr_field{"8_chars2", &Stamps::third, zutr_form::hex_and_time},
};
constexpr std::string_view LONGEST = "\"ten_chars_\":\"0xffffffffffffffff(2554-07-21 23:34:33)\","
                                     "\"8_chars_\":\"0xffffffffffffffff(2554-07-21 23:34:33)\","
                                     "\"8_chars2\":\"0xffffffffffffffff(2554-07-21 23:34:33)\"";

TEST(RecordRoom, HoldsTheLongestText)
{
    constexpr std::uint64_t WIDEST = std::numeric_limits<std::uint64_t>::max();
    std::array<char, 4096> printed;
    const char *end = zutr_put_members<STAMPS>(printed.data(), Stamps{WIDEST, WIDEST, WIDEST});
    EXPECT_EQ(end - printed.data(), std::ssize(LONGEST)); // the hour is that of the time zone
    EXPECT_GE(ZUTR_FIELDS_ROOM<STAMPS>, LONGEST.size());
}

} // namespace
