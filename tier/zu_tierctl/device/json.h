#pragma once

#include <string>
#include <string_view>

namespace tierctl {

/* The text with U+FFFD in place of each byte that belongs to no character of UTF-8 (RFC 3629). */
std::string valid_utf8(std::string_view text);

/* The text, whatever its bytes, as a JSON string in quotation marks, which is valid UTF-8. */
std::string json_text(std::string_view text);

} // namespace tierctl
