#include "zu_tierctl/tierctl_text.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace {

/* The sequences of UTF-8 by their first byte. The bounds of the second byte leave out what is
 * longer than it need be, surrogates, and what lies behind the last character. */
struct sequence {
    uint8_t first;
    uint8_t last;
    size_t length;
    uint8_t second_first;
    uint8_t second_last;
};

constexpr sequence SEQUENCES[] = {
    {0x00, 0x7F, 1, 0x00, 0x00}, {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

uint8_t byte_at(std::string_view text, size_t at)
{
    return static_cast<uint8_t>(text[at]);
}

/* Bytes of the character at the start of `text`; 0 when there is none. */
size_t character_length(std::string_view text)
{
    const uint8_t first = byte_at(text, 0);
    for (const sequence &sequence : SEQUENCES) {
        if (first < sequence.first || first > sequence.last) {
            continue;
        }
        if (text.size() < sequence.length) {
            return 0;
        }
        for (size_t i = 1; i < sequence.length; i++) {
            const uint8_t low = i == 1 ? sequence.second_first : 0x80;
            const uint8_t high = i == 1 ? sequence.second_last : 0xBF;
            if (byte_at(text, i) < low || byte_at(text, i) > high) {
                return 0;
            }
        }
        return sequence.length;
    }
    return 0;
}

std::string json_character(std::string_view character)
{
    const uint8_t first = byte_at(character, 0);
    if (first < 0x20 || first == 0x7F) {
        return tierctl_text("\\u%04x", first);
    }
    std::string escaped(first == '"' || first == '\\' ? 1 : 0, '\\');
    return escaped += character;
}

} // namespace

std::string tierctl_text(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, again)), '\0');
    va_end(again);
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    va_end(arguments);
    return text;
}

std::string tierctl_json_string(std::string_view text)
{
    std::string json = "\"";
    while (!text.empty()) {
        const size_t length = character_length(text);
        json += length == 0 ? "\xEF\xBF\xBD" : json_character(text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return json + '"';
}

std::string tierctl_shell_word(std::string_view text)
{
    constexpr std::string_view PLAIN = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_-+=./:,@%";
    if (!text.empty() && text.find_first_not_of(PLAIN) == std::string_view::npos) {
        return std::string(text);
    }
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + '\'';
}
