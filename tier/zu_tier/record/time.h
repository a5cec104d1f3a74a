#pragma once

#include <cstddef>
#include <cstdint>

/* Text of time stamps in nanoseconds since the epoch: local time "%Y-%m-%d %H:%M:%S". */

/* Into the `size` bytes at `buf`, by the C library. */
void zutr_time_format(uint64_t t_ns, char *buf, uint32_t size);

constexpr size_t ZUTR_TIME_ROOM = 64;

/* The same at `to`, which has room for ZUTR_TIME_ROOM bytes; gives the end of the text. Asks the C
 * library only for the first stamps of a day, and on a day on which the zone's clock changes. */
char *zutr_put_time(char *to, uint64_t t_ns);
