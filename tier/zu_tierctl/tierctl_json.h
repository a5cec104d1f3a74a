#pragma once

#include <string>
#include <string_view>

/* `text`, whatever its bytes, as a JSON string with its quotation marks: what is no UTF-8 becomes
 * the replacement character. */
std::string tierctl_json_text(std::string_view text);
