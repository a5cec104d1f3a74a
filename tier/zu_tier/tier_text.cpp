#include "zu_tier/tier_text.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/tier_log.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>

namespace {

constexpr uint64_t NS_PER_SECOND = 1000000000;

int32_t g_output_errno = 0;

/* The digits of `value` in `base`, at least `width` of them. */
class digits {
public:
    digits(auto value, int base, size_t width = 0)
    {
        const auto end = std::to_chars(text_.data(), text_.data() + text_.size(), value, base).ptr;
        length_ = static_cast<size_t>(end - text_.data());
        if (length_ < width) {
            std::copy_backward(text_.data(), end, text_.data() + width);
            std::fill_n(text_.data(), width - length_, '0');
            length_ = width;
        }
    }
    std::string_view view() const { return {text_.data(), length_}; }

private:
    std::array<char, 24> text_;
    size_t length_;
};

} // namespace

void zutr_time_format(uint64_t t_ns, char *buf, uint32_t size)
{
    const auto seconds = static_cast<time_t>(t_ns / NS_PER_SECOND);
    const tm *tmp = localtime(&seconds);
    zutr_assert(tmp != nullptr, "tmp");
    strftime(buf, size, "%Y-%m-%d %H:%M:%S", tmp);
}

std::string_view zutr_bounded(const char *field, size_t size)
{
    return {field, strnlen(field, size)};
}

void zutr_text::put(std::string_view text)
{
    while (text.size() > buffer_.size() - used_) {
        const size_t fits = buffer_.size() - used_;
        memcpy(buffer_.data() + used_, text.data(), fits);
        used_ += fits;
        text.remove_prefix(fits);
        flush();
    }
    memcpy(buffer_.data() + used_, text.data(), text.size());
    used_ += text.size();
}

void zutr_text::decimal(uint64_t value)
{
    put(digits(value, 10).view());
}

void zutr_text::signed_decimal(int64_t value)
{
    put(digits(value, 10).view());
}

void zutr_text::hex(uint64_t value)
{
    put("0x");
    put(digits(value, 16).view());
}

void zutr_text::hex_digits(uint64_t value, uint32_t width)
{
    put(digits(value, 16, width).view());
}

void zutr_text::uuid(const uint8_t *uu)
{
    put(zutr_uuid_utoa(uu));
}

void zutr_text::time(uint64_t t_ns)
{
    std::array<char, 64> text{};
    zutr_time_format(t_ns, text.data(), text.size());
    put(text.data());
}

void zutr_text::flush()
{
    if (used_ != 0 && fwrite(buffer_.data(), 1, used_, stream_) != used_ && g_output_errno == 0 &&
        !zutr_is_log(stream_)) {
        g_output_errno = errno;
    }
    used_ = 0;
}

int32_t zutr_output_errno()
{
    return g_output_errno;
}
