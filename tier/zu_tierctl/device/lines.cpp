#include "zu_tierctl/device/lines.h"

#include <algorithm>
#include <utility>

namespace tierctl {

namespace {

/* Blocks of which so many eighths are filled, from the left. */
constexpr const char *ADVANCING[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};

bool begins_character(char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; }

} // namespace

size_t columns(std::string_view text)
{
    return static_cast<size_t>(std::ranges::count_if(text, begins_character));
}

std::string bar(uint64_t part, uint64_t whole)
{
    if (part == 0) {
        return "";
    }
    const double eighths = static_cast<double>(part) / static_cast<double>(whole) * (8 * BAR_WIDTH);
    const auto length = std::max<size_t>(1, static_cast<size_t>(eighths));
    std::string text;
    for (size_t i = 0; i < length / 8; i++) {
        text += RISING[8];
    }
    return text + ADVANCING[length % 8];
}

std::string path_end(const std::string &path, size_t width)
{
    return path.size() <= width ? path : "…" + path.substr(path.size() - width + 1);
}

void Lines::add(TextStyle style, std::string_view text)
{
    for (const char byte : text) {
        if (begins_character(byte) && column_++ == width_) {
            end_line();
            column_ = 1;
        }
        if (colours_ && style != style_) {
            text_.append("\x1b[0").append(style.empty() ? "" : ";").append(style) += 'm';
            style_ = style;
        }
        text_ += byte;
    }
}

void Lines::add_words(TextStyle style, std::string_view text)
{
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        if (column_ != 0 && column_ + 1 + columns(word) > width_) {
            end_line();
        }
        if (column_ != 0) {
            add(style, " ");
        }
        add(style, word);
        text.remove_prefix(std::min(text.size(), word.size() + 1));
    }
}

void Lines::keep_together(size_t length)
{
    if (column_ != 0 && column_ + 1 + length > width_ && length <= width_) {
        end_line();
    }
}

void Lines::add_phrase(TextStyle style, std::string_view text)
{
    keep_together(columns(text));
    add_words(style, text);
}

void Lines::add_column(TextStyle style, const std::string &text, size_t width, size_t all)
{
    if (width_ < all || text.size() >= width) {
        add_words(style, text);
    } else {
        add(style, std::string(width - text.size(), ' ') + text);
    }
}

void Lines::end_line()
{
    if (style_ != PLAIN) {
        text_ += "\x1b[0m";
        style_ = PLAIN;
    }
    text_ += '\n';
    column_ = 0;
}

std::string Lines::take() { return std::move(text_); }

} // namespace tierctl
