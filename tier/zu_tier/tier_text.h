#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string_view>

/* Text of a time stamp in nanoseconds since the epoch, local time "%Y-%m-%d %H:%M:%S", into the
 * `size` bytes at `buf`. */
void zutr_time_format(uint64_t t_ns, char *buf, uint32_t size);

/* The text in a fixed-size field, up to its terminator or, where that is missing, its end. */
std::string_view zutr_bounded(const char *field, size_t size);

template <size_t N>
std::string_view zutr_bounded(const char (&field)[N])
{
    return zutr_bounded(field, N);
}

/* Collects JSON text for one stream and hands it over when the buffer is full and at destruction.
 * The stream remembers a failed write (ferror), zutr_output_errno its cause. */
class zutr_text {
public:
    explicit zutr_text(FILE *stream) : stream_(stream) {}
    zutr_text(const zutr_text &) = delete;
    zutr_text &operator=(const zutr_text &) = delete;
    ~zutr_text() { flush(); }

    void put(std::string_view text);
    void decimal(uint64_t value);
    void signed_decimal(int64_t value);
    void hex(uint64_t value);                        /* "0x" and the digits */
    void hex_digits(uint64_t value, uint32_t width); /* zero-padded, no prefix */
    void uuid(const uint8_t *uu);
    void time(uint64_t t_ns);

private:
    void flush();

    FILE *stream_;
    size_t used_ = 0;
    std::array<char, 4096> buffer_;
};

/* The error number of the first failed write of any zutr_text, but for the log, or 0. */
int32_t zutr_output_errno();
