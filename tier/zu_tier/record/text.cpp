#include "zu_tier/record/text.h"

#include "common/zutr_utils.h"
#include "zu_tier/record/log.h"

#include <cerrno>
#include <cstring>

namespace {

int32_t g_output_errno = 0;

} // namespace

std::string_view zutr_bounded(const char *field, size_t size)
{
    return {field, strnlen(field, size)};
}

void zutr_write(FILE *stream, std::string_view text)
{
    if (!text.empty() && fwrite_unlocked(text.data(), 1, text.size(), stream) != text.size() &&
        g_output_errno == 0 && !zutr_is_log(stream)) {
        g_output_errno = errno;
    }
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

void zutr_text::signed_decimal(int64_t value)
{
    advance(zutr_put_signed_decimal(room(ZUTR_DIGITS_ROOM), value));
}

void zutr_text::hex(uint64_t value)
{
    put("0x");
    advance(zutr_put_hex<64>(room(ZUTR_DIGITS_ROOM), value));
}

void zutr_text::flush()
{
    zutr_write(stream_, {buffer_.data(), used_});
    used_ = 0;
}

int32_t zutr_output_errno() { return g_output_errno; }
