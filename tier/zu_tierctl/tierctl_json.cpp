#include "zu_tierctl/tierctl_json.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace {

/* A form of a UTF-8 sequence: its first byte, and what its second byte may be. Those behind it are
 * 0x80..0xBF. Shorter forms of a character and halves of pairs are none. */
struct sequence {
    uint8_t first_min, first_max;
    uint8_t second_min, second_max;
    size_t length;
};

constexpr sequence SEQUENCES[] = {
    {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xEC, 0x80, 0xBF, 3},
    {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
    {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

bool is_between(char c, uint8_t min, uint8_t max)
{
    const auto byte = static_cast<uint8_t>(c);
    return byte >= min && byte <= max;
}

/* Bytes of the character beyond ASCII with which `text` begins; 0: it begins with none. */
size_t sequence_length(std::string_view text)
{
    const auto *form = std::ranges::find_if(SEQUENCES, [text](const sequence &candidate) {
        return is_between(text[0], candidate.first_min, candidate.first_max);
    });
    if (form == std::end(SEQUENCES) || text.size() < form->length ||
        !is_between(text[1], form->second_min, form->second_max)) {
        return 0;
    }
    const auto rest = text.substr(2, form->length - 2);
    const auto goes_on = [](char c) { return is_between(c, 0x80, 0xBF); };
    return std::ranges::all_of(rest, goes_on) ? form->length : 0;
}

void put_escaped(std::string &to, char c)
{
    if (c == '"' || c == '\\') {
        to += {'\\', c};
        return;
    }
    std::array<char, 8> escape{};
    snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(c));
    to += escape.data();
}

} // namespace

std::string tierctl_json_text(std::string_view text)
{
    std::string json = "\"";
    while (!text.empty()) {
        size_t length = 1;
        if (is_between(text[0], 0x80, 0xFF)) {
            length = sequence_length(text);
            json += length == 0 ? "\\ufffd" : text.substr(0, length);
        } else if (is_between(text[0], ' ', '~') && text[0] != '"' && text[0] != '\\') {
            json += text[0];
        } else {
            put_escaped(json, text[0]);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return json + '"';
}
