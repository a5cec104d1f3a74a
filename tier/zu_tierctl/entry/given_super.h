#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <string>

namespace tierctl {

/* The metadata of a device by the super block in another file, and says so on standard error. The
 * file is a device, an image or a saved file, the 4096 bytes of a super block alone, or a repair
 * file for one. Without a file, which is an empty path, they are those of the device itself. Throws
 * when there is no sound super block. */
Metadata read_metadata(const Device &device, const std::string &super_file);

/* Whether the device has a sound super block of its own. */
bool has_super(const Device &device);

} // namespace tierctl
