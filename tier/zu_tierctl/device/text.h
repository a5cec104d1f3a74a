#pragma once

#include <string>
#include <string_view>

namespace tierctl {

/* The text as one word of a shell's command line, quoted only where it has to be. */
std::string shell_word(std::string_view text);

/* The text in quotation marks, for people: every byte that is not printable ASCII as \x1b. */
std::string quoted(std::string_view text);

/* The text as it is when all of it can be printed, otherwise quoted. */
std::string shown_text(const std::string &text);

/* The text with U+FFFD in place of each byte that belongs to no character of UTF-8 (RFC 3629). */
std::string valid_utf8(std::string_view text);

/* The text, whatever its bytes, as a JSON string in quotation marks, which is valid UTF-8. */
std::string json_text(std::string_view text);

} // namespace tierctl
