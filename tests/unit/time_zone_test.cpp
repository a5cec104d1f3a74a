// Time stamps in every time zone that the machine knows, against the C library. Each zone has a
// process of its own, since what is remembered of a day belongs to one zone.

#include "bytes.h"
#include "temp_dir.h"
#include "time_zone.h"
#include "zu_tier/record/time.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace tier_test;

namespace {

constexpr std::int64_t HOUR = 3600;
constexpr std::int64_t DAY = 24 * HOUR;
constexpr std::int64_t YEAR_2040 = 2'208'988'800;
constexpr std::uint64_t NANOSECONDS = 1'000'000'000;
constexpr std::uint64_t FAR_END = std::numeric_limits<std::uint64_t>::max();
constexpr auto LAST_SECOND = static_cast<std::int64_t>(FAR_END / NANOSECONDS);

const std::filesystem::path ZONES = "/usr/share/zoneinfo";

std::string shown(std::uint64_t t_ns)
{
    std::array<char, ZUTR_TIME_ROOM> buffer;
    return {buffer.data(), zutr_put_time(buffer.data(), t_ns)};
}

// Seconds that local time is ahead of universal time: by its stated offset, less the leap seconds
// that the zone counts, which are fewer than a minute.
std::int64_t ahead(std::int64_t seconds)
{
    tm local{};
    localtime_r(&seconds, &local);
    return local.tm_gmtoff - (seconds + local.tm_gmtoff - local.tm_sec + 60) % 60;
}

// The first second in (first, last] with the offset of `last`, which is not that of `first`.
std::int64_t transition(std::int64_t first, std::int64_t last)
{
    const std::int64_t offset_after = ahead(last);
    while (last - first > 1) {
        const std::int64_t middle = first + (last - first) / 2;
        (ahead(middle) == offset_after ? last : first) = middle;
    }
    return last;
}

// The checks of the zone that is set in this process. Collects what is wrong.
class ZoneCheck {
public:
    std::string wrong;

    void all()
    {
        range(0, 2 * DAY, HOUR);
        range(HOUR - 1, 2 * DAY, HOUR);
        std::int64_t before = ahead(0);
        for (std::int64_t day = DAY; day < YEAR_2040; day += DAY) {
            const std::int64_t now = ahead(day);
            if (now != before)
                around(transition(day - DAY, day));
            before = now;
        }
        range(0, LAST_SECOND, 97 * DAY);
        range(LAST_SECOND - 2 * DAY, LAST_SECOND, HOUR);
        stamp(FAR_END);
        in_any_order();
    }

private:
    void stamp(std::uint64_t t_ns)
    {
        const std::string expected = time_text(t_ns);
        const std::string actual = shown(t_ns);
        if (actual != expected && wrong.size() < 500)
            wrong += text("%lu ns: %s, expected %s\n", t_ns, actual.c_str(), expected.c_str());
    }

    void second(std::int64_t seconds)
    {
        if (seconds >= 0 && seconds <= LAST_SECOND)
            stamp(static_cast<std::uint64_t>(seconds) * NANOSECONDS + 999'999);
    }

    void range(std::int64_t first, std::int64_t last, std::int64_t step)
    {
        for (std::int64_t seconds = first; seconds <= last; seconds += step)
            second(seconds);
    }

    // A change of the clock, and the days with it in the middle.
    void around(std::int64_t change)
    {
        for (const std::int64_t seconds : {change - 1, change, change + 1})
            second(seconds);
        const std::int64_t day = change - change % DAY;
        range(day - DAY, day + 2 * DAY, HOUR);
        second(change);
    }

    // Days that share their place in any memory of a power of two up to 4096 days, the same ones
    // again, and the time running backwards.
    void in_any_order()
    {
        for (const std::int64_t apart : {256, 512, 1024, 2048, 4096})
            for (int turn = 0; turn < 2; ++turn)
                for (std::int64_t day = 0; day < 4 * apart; day += apart) {
                    second(day * DAY + HOUR);
                    second(day * DAY + HOUR);
                }
        for (std::int64_t seconds = LAST_SECOND; seconds >= 0; seconds -= 1024 * DAY)
            second(seconds);
        for (std::int64_t seconds = 3000 * DAY; seconds >= 0; seconds -= DAY + HOUR)
            second(seconds);
    }
};

// Checks zones in parallel; a null pointer is no zone.
class ZoneChecks {
public:
    void start(const char *zone)
    {
        if (running_ == limit_)
            finish_one();
        if (fork() == 0) {
            set_zone(zone);
            ZoneCheck check;
            check.all();
            if (!check.wrong.empty())
                say(std::string(zone != nullptr ? zone : "no zone") + "\n" + check.wrong);
            _exit(check.wrong.empty() ? 0 : 1);
        }
        ++running_;
    }

    // Ends the process; 0: all is right.
    [[noreturn]] void finish()
    {
        while (running_ > 0)
            finish_one();
        const std::string report = read_file("/proc/self/fd/" + std::to_string(report_));
        std::fputs(report.substr(0, 5000).c_str(), stderr);
        std::fprintf(stderr, "%d wrong\n", failed_);
        _exit(failed_ == 0 ? 0 : 1);
    }

private:
    void finish_one()
    {
        int state = -1;
        failed_ += waitpid(-1, &state, 0) > 0 && state == 0 ? 0 : 1;
        --running_;
    }

    // All write at one place of the file, which moves on with each.
    void say(const std::string &line) const
    {
        if (write(report_, line.data(), line.size()) < 0)
            _exit(2);
    }

    const unsigned limit_ = std::clamp(std::thread::hardware_concurrency(), 2U, 8U);
    const int report_ = memfd_create("report", MFD_CLOEXEC);
    unsigned running_ = 0;
    int failed_ = 0;
};

[[noreturn]] void check_zones(const std::vector<std::string> &zones)
{
    ZoneChecks checks;
    for (const std::string &zone : zones)
        checks.start(zone.c_str());
    checks.start(nullptr);
    checks.finish();
}

// All is right in a process that starts afresh and has seen no other zone.
#define EXPECT_RIGHT(zones)                                                                        \
    GTEST_FLAG_SET(death_test_style, "threadsafe");                                                \
    EXPECT_EXIT(check_zones(zones), testing::ExitedWithCode(0), "0 wrong")

// The zones of the machine, each content once: many have several names.
std::vector<std::string> zone_files()
{
    std::set<std::string> contents;
    std::vector<std::string> zones;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(ZONES)) {
        if (!entry.is_regular_file())
            continue;
        std::string content = read_file(entry.path().string());
        if (content.starts_with("TZif") && contents.insert(std::move(content)).second)
            zones.push_back(":" + entry.path().string());
    }
    return zones;
}

TEST(TimeZonesDeathTest, EveryZoneOfTheMachine)
{
    ASSERT_TRUE(std::filesystem::exists(ZONES)) << "the package tzdata is missing";
    const std::vector<std::string> zones = zone_files();
    ASSERT_GT(zones.size(), 300U);
    EXPECT_RIGHT(zones);
}

TEST(TimeZonesDeathTest, ZonesAsText)
{
    const std::vector<std::string> zones{"UTC0",
                                         "XYZ-3:30",
                                         "XYZ3:30:15",
                                         "EST5EDT,M3.2.0,M11.1.0",
                                         "<+14>-14",
                                         "<-12>12",
                                         "XXX-24:59:59",
                                         "XXX24:59:59",
                                         "CET-1CEST,M3.5.0,M10.5.0/3",
                                         "NZST-12NZDT,M9.5.0,M4.1.0/3",
                                         "AAA1BBB,J1/0,J365/23:59:59",
                                         "AAA-1BBB0,0/0,364/24",
                                         "AAA0BBB-0:00:01,J60/1,J61/1",
                                         "IST-2IDT,M3.4.4/26,M10.5.0",
                                         "Nowhere/Nothing",
                                         ":Nowhere",
                                         "",
                                         "?"};
    EXPECT_RIGHT(zones);
}

// The checks recognise a change of the clock.
TEST(TimeZones, ChangesAreFoundToTheSecond)
{
    const Zone zone("EST5EDT,M3.2.0,M11.1.0");
    constexpr std::int64_t SPRING = 1'710'054'000; // 2024-03-10 07:00:00 UTC
    EXPECT_EQ(transition(SPRING - SPRING % DAY, SPRING - SPRING % DAY + DAY), SPRING);
    EXPECT_EQ(ahead(SPRING - 1), -5 * HOUR);
    EXPECT_EQ(ahead(SPRING), -4 * HOUR);
}

// No other test of this process asks for that day.
TEST(TimeZones, DayOnWhichTheClockIsSet)
{
    const Zone zone("EST5EDT,M3.2.0,M11.1.0");
    constexpr std::uint64_t SPRING = 1'930'806'000; // 2031-03-09 07:00:00 UTC
    for (const auto &[seconds, expected] :
         {std::pair{SPRING - 1, "2031-03-09 01:59:59"}, std::pair{SPRING, "2031-03-09 03:00:00"},
          std::pair{SPRING + 1, "2031-03-09 03:00:01"},
          std::pair{SPRING - 1, "2031-03-09 01:59:59"}})
        EXPECT_EQ(shown(seconds * NANOSECONDS), expected);
}

} // namespace
