#pragma once

#include <string_view>

namespace tierctl {

/* Writes to standard output; throws when that fails, as it may for text written before. */
void print(std::string_view text);

/* Makes sure that all is out. */
void finish_output();

} // namespace tierctl
