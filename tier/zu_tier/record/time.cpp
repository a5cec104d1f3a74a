#include "zu_tier/record/time.h"

#include "common/zutr_assert.h"
#include "zu_tier/record/digits.h"

#include <chrono>
#include <ctime>
#include <limits>

namespace {

constexpr uint64_t NS_PER_SECOND = 1000000000;
constexpr uint32_t SECONDS_PER_MINUTE = 60;
constexpr uint32_t SECONDS_PER_HOUR = 3600;
constexpr int64_t SECONDS_PER_DAY = 86400;

/* How far local time is ahead of universal time, in seconds, during a day of universal time. */
struct zone_day {
    int64_t number = -1;
    int64_t ahead = 0;
};

/* Of a day that has been asked for once, or on which the zone's clock changes. */
constexpr int64_t UNKNOWN = std::numeric_limits<int64_t>::min();
constexpr int64_t CHANGES = std::numeric_limits<int64_t>::max();

constexpr size_t DAYS = 1024; /* the stamps of a table rarely span more */
std::array<zone_day, DAYS> g_days;

tm local_time(int64_t seconds)
{
    const time_t moment = seconds;
    const tm *tmp = localtime(&moment);
    zutr_assert(tmp != nullptr, "tmp");
    return *tmp;
}

/* By what the clock shows: a zone with leap seconds keeps them out of its stated offset. */
int64_t ahead_at(int64_t seconds)
{
    using namespace std::chrono;
    const tm local = local_time(seconds);
    const sys_days day = year(local.tm_year + 1900) / (local.tm_mon + 1) / local.tm_mday;
    const sys_seconds shown = day + hours(local.tm_hour) + minutes(local.tm_min);
    return shown.time_since_epoch().count() + local.tm_sec - seconds;
}

int64_t ahead_on(int64_t day)
{
    zone_day &known = g_days[static_cast<size_t>(day) % DAYS];
    if (known.number != day) {
        known = {day, UNKNOWN}; /* one stamp of a day is not worth it */
    } else if (known.ahead == UNKNOWN) {
        const int64_t first = ahead_at(day * SECONDS_PER_DAY);
        const int64_t last = ahead_at((day + 1) * SECONDS_PER_DAY - 1);
        known.ahead = first == last ? first : CHANGES;
    }
    return known.ahead;
}

/* Two digits and the character after them. */
char *put_pair(char *to, uint32_t value, char after)
{
    memcpy(to, &ZUTR_FULL_DIGITS[value].text[1], 2);
    to[2] = after;
    return to + 3;
}

} // namespace

void zutr_time_format(uint64_t t_ns, char *buf, uint32_t size)
{
    const tm local = local_time(static_cast<int64_t>(t_ns / NS_PER_SECOND));
    strftime(buf, size, "%Y-%m-%d %H:%M:%S", &local);
}

char *zutr_put_time(char *to, uint64_t t_ns)
{
    const auto seconds = static_cast<int64_t>(t_ns / NS_PER_SECOND);
    const int64_t ahead = ahead_on(seconds / SECONDS_PER_DAY);
    if (ahead == CHANGES || ahead == UNKNOWN) {
        zutr_time_format(t_ns, to, ZUTR_TIME_ROOM);
        return to + strlen(to);
    }
    using namespace std::chrono;
    const sys_seconds local{std::chrono::seconds{seconds + ahead}};
    const sys_days day = floor<days>(local);
    const year_month_day date = day;
    const auto within = static_cast<uint32_t>((local - day).count());
    /* 64 bits of nanoseconds end in the year 2554: there are always four digits. */
    const auto year = static_cast<uint32_t>(static_cast<int>(date.year()));
    to = ZUTR_FULL_DIGITS[year / 10].put(to);
    *to++ = static_cast<char>('0' + year % 10);
    *to++ = '-';
    to = put_pair(to, static_cast<unsigned>(date.month()), '-');
    to = put_pair(to, static_cast<unsigned>(date.day()), ' ');
    to = put_pair(to, within / SECONDS_PER_HOUR, ':');
    to = put_pair(to, within / SECONDS_PER_MINUTE % 60, ':');
    return put_pair(to, within % 60, '\0') - 1;
}
