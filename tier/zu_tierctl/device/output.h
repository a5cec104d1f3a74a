#pragma once

#include <string_view>

/* Writes to standard output; throws when that fails, as it may for text written before. */
void tierctl_print(std::string_view text);

/* Makes sure that all is out. */
void tierctl_finish_output();
