// Time stamps as local-time text, in zones whose offsets the table below states.

#include "bytes.h"
#include "time_zone.h"
#include "zu_tier/record/time.h"

#include <chrono>
#include <gtest/gtest.h>
#include <limits>

using namespace tier_test;

namespace {

std::string civil_text(std::int64_t seconds)
{
    using namespace std::chrono;
    const sys_seconds moment{std::chrono::seconds(seconds)};
    const auto midnight = floor<days>(moment);
    const year_month_day day(midnight);
    const hh_mm_ss clock(moment - midnight);
    return text("%04d-%02u-%02u %02ld:%02ld:%02ld", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::string formatted(std::uint64_t t_ns)
{
    std::array<char, 64> buffer;
    buffer.fill('x');
    zutr_time_format(t_ns, buffer.data(), buffer.size());
    return buffer.data();
}

constexpr std::uint64_t SECOND = 1'000'000'000;
constexpr std::uint64_t LAST_STAMP = std::numeric_limits<std::uint64_t>::max();
constexpr const char *CENTRAL_EUROPE = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char *SYDNEY = "AEST-10AEDT,M10.1.0,M4.1.0/3";

struct StampRow {
    const char *zone;
    std::uint64_t t_ns;
    std::int64_t offset; // seconds east
};

constexpr StampRow ROWS[] = {
    {"UTC0", 0, 0},
    {"UTC0", SECOND - 1, 0},
    {"UTC0", SECOND, 0},
    {"UTC0", 1'500'000'000'999'999'999, 0},
    {"UTC0", LAST_STAMP, 0},
    {"UTC0", std::uint64_t{1} << 63, 0},
    {"EST5", 0, -5 * 3600},
    {"EST5", 1'500'000'000'999'999'999, -5 * 3600},
    {"EST5", LAST_STAMP, -5 * 3600},
    {"IST-5:30", 0, 19800},
    {"IST-5:30", 1'500'000'000'999'999'999, 19800},
    {"NPT-5:45", 1'500'000'000'999'999'999, 20700},
    {CENTRAL_EUROPE, 1'500'000'000'999'999'999, 7200},
    {CENTRAL_EUROPE, 1'490'489'999'999'999'999, 3600}, // the last second of winter time in 2017
    {CENTRAL_EUROPE, 1'490'490'000 * SECOND, 7200},
    {CENTRAL_EUROPE, LAST_STAMP, 7200}, // a July
    {SYDNEY, 1'483'228'800 * SECOND, 39600},
    {SYDNEY, LAST_STAMP, 36000},
};

TEST(TimeFormat, LocalTimeOfTheWholeSecond)
{
    for (const StampRow &row : ROWS) {
        const Zone zone(row.zone);
        EXPECT_EQ(formatted(row.t_ns),
                  civil_text(static_cast<std::int64_t>(row.t_ns / SECOND) + row.offset))
            << row.zone << ' ' << row.t_ns;
    }
}

TEST(TimeFormat, KnownMoments)
{
    const Zone zone("UTC0");
    EXPECT_EQ(formatted(0), "1970-01-01 00:00:00");
    EXPECT_EQ(formatted(1'500'000'000'999'999'999), "2017-07-14 02:40:00");
    EXPECT_EQ(formatted(LAST_STAMP), "2554-07-21 23:34:33");
}

TEST(TimeFormat, StaysInsideTheBuffer)
{
    const Zone zone("UTC0");
    std::array<char, 24> buffer;
    buffer.fill('x');
    zutr_time_format(0, buffer.data(), 20);
    EXPECT_EQ(std::string_view(buffer.data(), buffer.size()),
              std::string_view("1970-01-01 00:00:00\0xxxx", 24));
}

} // namespace
