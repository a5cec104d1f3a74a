#include "zu_tierctl/device/json.h"

#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace tierctl {

namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD"; /* U+FFFD */

/* Bytes that a sequence may begin with, what may follow at once, and how many bytes it has in all;
 * the others continue it. Leaves out surrogates, overlong forms and what lies past U+10FFFF. */
struct utf8_sequence {
    uint8_t first_min;
    uint8_t first_max;
    uint8_t second_min;
    uint8_t second_max;
    size_t length;
};

constexpr utf8_sequence UTF8_SEQUENCES[] = {
    {0x00, 0x7F, 0x00, 0xFF, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

bool is_between(char byte, uint8_t min, uint8_t max)
{
    const auto value = static_cast<uint8_t>(byte);
    return value >= min && value <= max;
}

bool begins_with(std::string_view text, const utf8_sequence &sequence)
{
    if (text.size() < sequence.length ||
        !is_between(text[0], sequence.first_min, sequence.first_max)) {
        return false;
    }
    const std::string_view rest = text.substr(1, sequence.length - 1);
    return rest.empty() || (is_between(rest[0], sequence.second_min, sequence.second_max) &&
                            std::ranges::all_of(rest.substr(1), [](char byte) {
                                return is_between(byte, 0x80, 0xBF);
                            }));
}

/* Bytes of the valid sequence that the text begins with, or 0. */
size_t sequence_length(std::string_view text)
{
    const auto *sequence = std::ranges::find_if(
        UTF8_SEQUENCES, [text](const auto &known) { return begins_with(text, known); });
    return sequence == std::end(UTF8_SEQUENCES) ? 0 : sequence->length;
}

} // namespace

std::string valid_utf8(std::string_view text)
{
    std::string valid;
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        valid += length > 0 ? text.substr(0, length) : REPLACEMENT;
        text.remove_prefix(std::max(length, size_t{1}));
    }
    return valid;
}

std::string json_text(std::string_view text)
{
    std::string json = "\"";
    for (const char byte : valid_utf8(text)) {
        if (is_between(byte, 0, 0x1F) || byte == 0x7F) {
            json += format_text("\\u%04x", static_cast<unsigned>(byte));
            continue;
        }
        if (byte == '"' || byte == '\\') {
            json += '\\';
        }
        json += byte;
    }
    return json + '"';
}

} // namespace tierctl
