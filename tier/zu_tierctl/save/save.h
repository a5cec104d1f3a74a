#pragma once

#include <string>

namespace tierctl {

/* Copies the super block and the tables of `device` to `file`: a sparse file of the same size, in
 * which they have the same offsets. Blocks that cannot be read stay holes and are listed in a file
 * beside it. Returns whether there were none. The tables lie where the super block in `super_file`
 * says or, when that is empty, the device's own; the latter is what is copied. */
bool save(const std::string &device, const std::string &file, const std::string &super_file = "");

} // namespace tierctl
