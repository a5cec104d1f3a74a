#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <fmt/core.h>

namespace tierctl {

namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD"; /* U+FFFD */

/* The bytes of one character: the range of the first and of the second byte, and the number of
 * bytes. The others are 0x80..0xBF. Surrogates, overlong forms and everything past U+10FFFF are in
 * no row. */
struct Utf8Sequence {
    uint8_t first_min;
    uint8_t first_max;
    uint8_t second_min;
    uint8_t second_max;
    size_t length;
};

constexpr Utf8Sequence UTF8_SEQUENCES[] = {
    {0x00, 0x7F, 0x00, 0xFF, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

bool is_between(char byte, uint8_t min, uint8_t max)
{
    const auto value = static_cast<uint8_t>(byte);
    return value >= min && value <= max;
}

bool begins_with(std::string_view text, const Utf8Sequence &sequence)
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

/* Length of the valid sequence that the text begins with; 0 when there is none. */
size_t sequence_length(std::string_view text)
{
    const auto *sequence = std::ranges::find_if(
        UTF8_SEQUENCES, [text](const auto &known) { return begins_with(text, known); });
    return sequence == std::end(UTF8_SEQUENCES) ? 0 : sequence->length;
}

/* The first byte of a C1 control character; the second has its number. */
constexpr char CONTROL_LEAD = '\xC2';

/* Whether valid text begins with a control character: C0, of one byte, or C1, of two. */
bool is_control(std::string_view text)
{
    return is_between(text[0], 0, 0x1F) || text[0] == 0x7F ||
           (text[0] == CONTROL_LEAD && is_between(text[1], 0x80, 0x9F));
}

/* In three digits a byte cannot swallow the character after it. */
std::string escaped_word(std::string_view text)
{
    std::string word = "$'";
    for (const char c : text) {
        if (c < ' ' || c > '~') {
            word += fmt::format("\\{:03o}", static_cast<uint8_t>(c));
            continue;
        }
        if (c == '\'' || c == '\\') {
            word += '\\';
        }
        word += c;
    }
    return word + '\'';
}

bool is_in_word(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
           c == '_';
}

/* Length of the text in quotation marks that the text begins with; a backslash quotes the next
 * character. */
size_t quoted_length(std::string_view text)
{
    size_t end = 1;
    while (end < text.size() && text[end] != '"') {
        end += text[end] == '\\' ? 2 : 1;
    }
    return std::min(end + 1, text.size());
}

} // namespace

std::string shell_word(std::string_view text)
{
    constexpr std::string_view PLAIN = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_-+=./:,@%";
    if (!text.empty() && text.find_first_not_of(PLAIN) == std::string_view::npos) {
        return std::string(text);
    }
    if (one_line(text) != text) {
        return escaped_word(text);
    }
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? "'\\''" : std::string_view(&c, 1);
    }
    return word + '\'';
}

std::string quoted(std::string_view text)
{
    std::string quoted = "\"";
    for (const char byte : text) {
        if (byte < ' ' || byte > '~') {
            quoted += fmt::format("\\x{:02x}", static_cast<uint8_t>(byte));
            continue;
        }
        if (byte == '"' || byte == '\\') {
            quoted += '\\';
        }
        quoted += byte;
    }
    return quoted + '"';
}

std::string shown_text(const std::string &text)
{
    std::string shown = quoted(text);
    return shown == '"' + text + '"' ? text : shown;
}

std::string one_line(std::string_view text)
{
    std::string line;
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        const std::string_view character = text.substr(0, std::max(length, size_t{1}));
        if (length > 0 && !is_control(character)) {
            line += character;
        } else {
            for (const char byte : character) {
                line += fmt::format("\\x{:02x}", static_cast<uint8_t>(byte));
            }
        }
        text.remove_prefix(character.size());
    }
    return line;
}

std::string text_shape(std::string_view text)
{
    std::string shape;
    while (!text.empty()) {
        const auto *const end = std::ranges::find_if_not(text, is_in_word);
        auto length = static_cast<size_t>(end - text.begin());
        const std::string_view word = text.substr(0, length);
        if (text[0] == '"') {
            length = quoted_length(text);
            shape += '#';
        } else if (length == 0) {
            length = 1;
            shape += text[0];
        } else {
            shape += word.find_first_of("0123456789") == std::string_view::npos ? word : "#";
        }
        text.remove_prefix(length);
    }
    return shape;
}

std::vector<std::string_view> split(std::string_view text, char delimiter)
{
    std::vector<std::string_view> parts;
    while (true) {
        const size_t end = text.find(delimiter);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

std::string range_text(uint64_t first, uint64_t last)
{
    return first == last ? std::to_string(first) : fmt::format("{}..{}", first, last);
}

std::string bytes_text(uint64_t bytes)
{
    constexpr const char *UNITS[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return fmt::format("{}", bytes);
    }
    const size_t power = (std::bit_width(bytes) - 1) / 10; /* of 1024 */
    const double unit = std::ldexp(1.0, static_cast<int>(10 * power));
    return fmt::format("{:.1f} {}", static_cast<double>(bytes) / unit, UNITS[power - 1]);
}

std::string tool_command(std::string_view device)
{
    return "zu_tier -l tier.log -p " + shell_word(device);
}

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
    const std::string valid = valid_utf8(text);
    for (size_t i = 0; i < valid.size(); i++) {
        const std::string_view rest = std::string_view(valid).substr(i);
        if (is_control(rest)) {
            i += rest.front() == CONTROL_LEAD ? 1 : 0;
            json += fmt::format("\\u{:04x}", static_cast<uint8_t>(valid[i]));
            continue;
        }
        if (rest.front() == '"' || rest.front() == '\\') {
            json += '\\';
        }
        json += rest.front();
    }
    return json + '"';
}

} // namespace tierctl
