#include "zu_tierctl/template/draft.h"

#include "zu_tier/record/time.h"
#include "zu_tierctl/device/json.h"

#include <utility>

namespace tierctl {

namespace {

constexpr size_t SHOWN_BYTES = 256; /* of a cleared area, at most */

std::string time_text(uint64_t t_ns)
{
    std::array<char, ZUTR_TIME_ROOM> text;
    return {text.data(), zutr_put_time(text.data(), t_ns)};
}

std::string hex_bytes(std::span<const uint8_t> bytes)
{
    std::string text;
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), SHOWN_BYTES))) {
        text += format_text("%02x", byte);
    }
    return bytes.size() > SHOWN_BYTES ? text + "..." : text;
}

} // namespace

std::string hex_text(uint64_t value)
{
    return format_text("0x%lx", value);
}

std::string shown_number(zutr_form form, uint64_t value)
{
    switch (form) {
    case zutr_form::hex:
    case zutr_form::hex_and_time:
        return hex_text(value);
    case zutr_form::time:
        return std::to_string(value) + " (" + time_text(value) + ")";
    case zutr_form::swapped_hex8:
        return format_text("%08x", __builtin_bswap32(static_cast<uint32_t>(value)));
    default:
        return std::to_string(value);
    }
}

void Draft::note_change(std::string_view what, const std::string &before, const std::string &after)
{
    note("a repair changes " + std::string(what) + ": " + before + " -> " + after);
}

void Draft::note_field(const StoredField &field)
{
    const uint8_t *before = block + field.at;
    const uint8_t *after = repaired.data() + field.at;
    if (memcmp(before, after, field.size) != 0) {
        note_change(field.key, field.show(field.form, before), field.show(field.form, after));
    }
}

void Draft::note_number_change(const std::string &what, uint64_t before, uint64_t after)
{
    if (before != after) {
        note_change(what, std::to_string(before), std::to_string(after));
    }
}

void Draft::note_cleared(size_t begin, std::span<const Stretch> areas)
{
    for (const auto &[name, end] : areas) {
        const std::span<const uint8_t> was(block + begin, block + end);
        const auto differs = [this, &was](const uint8_t &byte) {
            return byte != repaired[static_cast<size_t>(&byte - block)];
        };
        size_t first = 0;
        size_t last = was.size();
        while (first < last && !differs(was[first])) {
            first++;
        }
        while (first < last && !differs(was[last - 1])) {
            last--;
        }
        if (first < last) {
            note("a repair clears " + (name.empty() ? "" : std::string(name) + ", ") + "bytes " +
                 std::to_string(begin + first) + ".." + std::to_string(begin + last - 1) + ": " +
                 hex_bytes(was.subspan(first, last - first)));
        }
        begin = end;
    }
}

std::string Draft::text(const char *key, std::string_view stored)
{
    std::string valid = valid_utf8(stored);
    if (valid != stored) {
        note(std::string(key) + " is not valid UTF-8: the file has U+FFFD for what is not");
    }
    file.text(key, valid);
    return valid;
}

} // namespace tierctl
