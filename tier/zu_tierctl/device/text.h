#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* The text as one word of a shell's command line, quoted only where it has to be. It has no control
 * characters: of such a text it is the form $'...'. */
std::string shell_word(std::string_view text);

/* The text in quotation marks, for people: every byte that is not printable ASCII as \x1b. */
std::string quoted(std::string_view text);

/* The text as it is when all of it can be printed, otherwise quoted. */
std::string shown_text(const std::string &text);

/* The text as a part of one line: every control character, and every byte that belongs to no
 * character of UTF-8, as \x1b. */
std::string one_line(std::string_view text);

/* The text with # in place of each word that has a digit, and of each text in quotation marks: what
 * sentences about different entries have in common. */
std::string text_shape(std::string_view text);

/* The text, or an empty one. */
inline std::string text_if(bool is_wanted, std::string text)
{
    if (!is_wanted) {
        text.clear();
    }
    return text;
}

/* The parts of a text between the delimiters; of an empty text the empty one. */
std::vector<std::string_view> split(std::string_view text, char delimiter);

/* "7", "20..4047" */
std::string range_text(uint64_t first, uint64_t last);

/* "7", "1.5 KiB" */
std::string bytes_text(uint64_t bytes);

/* The start of a command that runs zu_tier on a device. It names a log: zu_tier ends without one,
 * and the default place can rarely be written. */
std::string tool_command(std::string_view device);

/* The text with U+FFFD in place of each byte that belongs to no character of UTF-8 (RFC 3629). */
std::string valid_utf8(std::string_view text);

/* The text, whatever its bytes, as a JSON string in quotation marks, which is valid UTF-8 and has
 * no control characters. */
std::string json_text(std::string_view text);

} // namespace tierctl
