#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tierctl {

/* Text for a terminal: lines of a given width, colours, bars. */

using TextStyle = std::string_view; /* parameters of its escape sequence */

inline constexpr TextStyle PLAIN{};
inline constexpr TextStyle BOLD = "1";
inline constexpr TextStyle DIM = "2";
inline constexpr TextStyle USE = "36";

/* Blocks of which so many eighths are filled, from below. */
inline constexpr const char *RISING[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

inline constexpr size_t BAR_WIDTH = 16;

/* The columns that a text takes: its characters. */
size_t columns(std::string_view text);

/* A bar for a part of a whole, at most BAR_WIDTH wide; empty for 0, else never empty. */
std::string bar(uint64_t part, uint64_t whole);

/* The last of a path, which tells more than its start, in at most `width` columns. */
std::string path_end(const std::string &path, size_t width);

/* Text in lines of at most `width` characters. */
class Lines {
public:
    Lines(size_t width, bool colours) : width_(width), colours_(colours) {}

    size_t width() const { return width_; }

    /* Breaks a line where it is full. */
    void add(TextStyle style, std::string_view text);

    /* Breaks lines between words. */
    void add_words(TextStyle style, std::string_view text);

    /* Begins a new line when so many characters fit there, but not in this one. */
    void keep_together(size_t length);

    void add_phrase(TextStyle style, std::string_view text);

    /* Aligned to the right of one of the columns, which take `all` characters, where they fit;
     * otherwise as words. */
    void add_column(TextStyle style, const std::string &text, size_t width, size_t all);

    void end_line();

    std::string take();

private:
    size_t width_;
    bool colours_;
    size_t column_ = 0;
    TextStyle style_ = PLAIN;
    std::string text_;
};

} // namespace tierctl
