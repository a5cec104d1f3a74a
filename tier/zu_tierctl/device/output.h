#pragma once

#include <cstddef>
#include <fmt/core.h>
#include <string_view>
#include <utility>

namespace tierctl {

/* Writes the text to standard output. Throws when writing fails, perhaps of text written before:
 * OutputClosed when nobody reads it. */
void print_text(std::string_view text);

/* The same for what fmt::format makes of the arguments. */
template <class... Args>
void print(fmt::format_string<Args...> format, Args &&...args)
{
    print_text(fmt::format(format, std::forward<Args>(args)...));
}

/* Writes what is still in the buffer of standard output; throws when that fails. */
void finish_output();

/* Whether a descriptor is a terminal that knows control sequences: not one with
 * TERM=dumb, or without TERM. */
bool is_able_terminal(int fd);

/* Columns of a line on standard output: COLUMNS, those of the terminal, or 80; 1 to 1000. */
size_t output_width();

/* Whether standard output gets colours: on a terminal, unless NO_COLOR is set. */
bool wants_colours();

/* Writes the line "zu_tierctl: <message>" to standard error, whatever the message holds. A failure
 * is ignored: it cannot be reported. */
void complain(std::string_view message);

} // namespace tierctl
