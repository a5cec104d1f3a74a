#pragma once

#include <cstdint>
#include <string>

namespace tierctl {

struct RevertOptions {
    std::string saved;
    std::string device;
    std::string table;
    uint64_t no = 0;
    bool commit = false;
    bool damaged = false;      /* puts back what was damaged when it was saved, too */
    bool other_device = false; /* puts back the super block of a device that seems another one */
};

/* Shows an entry as it is on the device and as it was in a saved file and, with `commit`, puts its
 * block back. Throws, without writing, when the block must not be put back. */
void revert(const RevertOptions &options);

} // namespace tierctl
