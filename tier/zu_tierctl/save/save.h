#pragma once

#include <string>

namespace tierctl {

/* Copies super block and tables of `device` to a sparse `file` of its size, at their offsets. Gives
 * whether all could be read; what could not is a hole in the file, listed beside it. */
bool save(const std::string &device, const std::string &file);

} // namespace tierctl
