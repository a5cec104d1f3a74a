#pragma once

#include <cstdint>
#include <string>

namespace tierctl {

struct SalvageOptions {
    std::string device;
    std::string directory;
    bool all = false;    /* also what was written back */
    std::string brick{}; /* of one brick only, by number or uuid; empty: of all */
    std::string inode{}; /* the same of inodes */
    bool resume = false;
    std::string super_file{};
    std::string mapfile{};
};

/* Copies data of files from a device into a directory, with a manifest of what was copied. Says on
 * standard error what could not be. Returns whether there is nothing of the kind. */
bool salvage(const SalvageOptions &options);

} // namespace tierctl
