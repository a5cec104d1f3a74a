#include "zu_tierctl/tierctl_template_json.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <utility>

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

std::string escaped(char byte, const char *format)
{
    char text[8];
    snprintf(text, sizeof(text), format, static_cast<unsigned>(static_cast<uint8_t>(byte)));
    return text;
}

bool is_quoting(char byte)
{
    return byte == '"' || byte == '\\';
}

} // namespace

std::string tierctl_valid_utf8(std::string_view text)
{
    std::string valid;
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        valid += length > 0 ? text.substr(0, length) : REPLACEMENT;
        text.remove_prefix(std::max(length, size_t{1}));
    }
    return valid;
}

std::string tierctl_quoted(std::string_view text)
{
    std::string quoted = "\"";
    for (const char byte : text) {
        if (is_quoting(byte)) {
            quoted += '\\';
        }
        quoted += is_between(byte, 0x20, 0x7E) ? std::string(1, byte) : escaped(byte, "\\x%02x");
    }
    return quoted + '"';
}

void tierctl_template_json::number(std::string_view key, uint64_t value)
{
    begin_member(key);
    text_ += std::to_string(value);
}

void tierctl_template_json::text(std::string_view key, std::string_view text)
{
    begin_member(key);
    text_ += '"';
    for (const char byte : text) {
        if (is_quoting(byte)) {
            text_ += '\\';
        }
        text_ += is_between(byte, 0, 0x1F) ? escaped(byte, "\\u%04x") : std::string(1, byte);
    }
    text_ += '"';
}

void tierctl_template_json::numbers(std::string_view key, std::span<const uint64_t> values)
{
    begin_member(key);
    const char *separator = "[";
    for (const uint64_t value : values) {
        text_ += separator + std::to_string(value);
        separator = ", ";
    }
    text_ += values.empty() ? "[]" : "]";
}

void tierctl_template_json::open_array(std::string_view key)
{
    begin_member(key);
    open('[', ']');
}

void tierctl_template_json::open_object()
{
    begin_line();
    open('{', '}');
}

void tierctl_template_json::close()
{
    const char closing = closing_.back();
    closing_.pop_back();
    if (!empty_) {
        text_ += '\n' + std::string(2 * closing_.size(), ' ');
    }
    text_ += closing;
    empty_ = false;
}

std::string tierctl_template_json::take()
{
    close();
    return std::move(text_) + '\n';
}

void tierctl_template_json::begin_line()
{
    text_ += empty_ ? "\n" : ",\n";
    text_ += std::string(2 * closing_.size(), ' ');
    empty_ = false;
}

void tierctl_template_json::begin_member(std::string_view key)
{
    begin_line();
    text_ += '"';
    text_ += key;
    text_ += "\": ";
}

void tierctl_template_json::open(char opening, char closing)
{
    text_ += opening;
    closing_ += closing;
    empty_ = true;
}
