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
};

/* Shows what an entry of the device is and what it was in a saved file and, with `commit`, puts its
 * block back. Throws, with nothing written, when the block must not be put back. */
void revert(const RevertOptions &options);

} // namespace tierctl
