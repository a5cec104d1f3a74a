#pragma once

#include <string>

namespace tierctl {

/* Copies the super block and the tables of `device` to `file`: a sparse file of the same size, in
 * which they have the same offsets. Blocks that cannot be read stay holes and are listed in a file
 * beside it. Returns whether there were none. */
bool save(const std::string &device, const std::string &file);

} // namespace tierctl
