#pragma once

#include <string>

namespace tierctl {

/* What a block device, open as `fd`, holds that is worth keeping: the super block of a cache, sound
 * or not, entries of its tables, or what libblkid recognises, as the object of a sentence. Empty:
 * nothing of the kind.
 * Throws when libblkid cannot look at it. */
std::string valuable_content(int fd, const std::string &path);

} // namespace tierctl
