#pragma once

#include <string>

namespace tierctl {

/* What a block device holds that is worth keeping: the super block of a cache, sound or not, or
 * what libblkid recognises, as the object of a sentence. Empty: nothing of the kind. */
std::string valuable_content(int fd);

} // namespace tierctl
