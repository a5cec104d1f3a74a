#pragma once

#include <string>
#include <string_view>

/* printf into a string. */
[[gnu::format(printf, 1, 2)]] std::string tierctl_text(const char *format, ...);

/* The text as a JSON string, in quotes. Bytes that are no UTF-8 become the replacement character.
 */
std::string tierctl_json_string(std::string_view text);

/* The text as one word of a shell's command line; quoted only when it has to be. */
std::string tierctl_shell_word(std::string_view text);
