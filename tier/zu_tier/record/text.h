#pragma once

#include "zu_tier/record/digits.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string_view>

/* The text in a fixed-size field, up to its terminator or, where that is missing, its end. */
std::string_view zutr_bounded(const char *field, size_t size);

template <size_t N>
std::string_view zutr_bounded(const char (&field)[N])
{
    return zutr_bounded(field, N);
}

/* Hands a text over to a stream, as zutr_text does. */
void zutr_write(FILE *stream, std::string_view text);

/* Collects JSON text for one stream and hands it over when the buffer is full and at destruction.
 * The stream remembers a failed write (ferror), zutr_output_errno its cause. */
class zutr_text {
public:
    explicit zutr_text(FILE *stream) : stream_(stream) {}
    zutr_text(const zutr_text &) = delete;
    zutr_text &operator=(const zutr_text &) = delete;
    ~zutr_text() { flush(); }

    void put(std::string_view text);
    void signed_decimal(int64_t value);
    void hex(uint64_t value); /* "0x" and the digits */

    /* Where the next text goes, with room for `size` bytes, at most ZUTR_TEXT_ROOM; `advance` takes
     * the end of what has been written there. */
    char *room(size_t size)
    {
        if (size > buffer_.size() - used_) {
            flush();
        }
        return buffer_.data() + used_;
    }
    /* The same for a writer that has written up to `end`: usually it goes on there. */
    char *room(char *end, size_t size)
    {
        if (size <= static_cast<size_t>(buffer_.data() + buffer_.size() - end)) {
            return end;
        }
        advance(end);
        return room(size);
    }
    void advance(const char *end) { used_ = static_cast<size_t>(end - buffer_.data()); }

    /* Writes the collected text to the stream. */
    void flush();

private:
    FILE *stream_;
    size_t used_ = 0;
    std::array<char, 131072> buffer_; /* more than the text of a block of V3 extents */
};

constexpr size_t ZUTR_TEXT_ROOM = 8192;
constexpr size_t ZUTR_UUID_TEXT_LEN = 36;

/* The error number of the first failed write of any zutr_text, but for the log, or 0. */
int32_t zutr_output_errno();
