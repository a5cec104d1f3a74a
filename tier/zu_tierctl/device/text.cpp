#include "zu_tierctl/device/text.h"

#include <cstdint>
#include <fmt/core.h>

namespace tierctl {

std::string shell_word(std::string_view text)
{
    constexpr std::string_view PLAIN = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_-+=./:,@%";
    if (!text.empty() && text.find_first_not_of(PLAIN) == std::string_view::npos) {
        return std::string(text);
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

} // namespace tierctl
