#pragma once

#include <string>

namespace tierctl {

struct SaveOptions {
    std::string device;
    std::string file;
    std::string super_file{};
    std::string mapfile{};     /* of the device, which is a copy; empty: there is none */
    std::string new_mapfile{}; /* to be written; empty: none */
};

/* Copies the super block and the tables of a device to a sparse file of the same size, in which
 * they have the same offsets. Blocks that cannot be read stay holes and are listed in a file beside
 * it. Returns whether there were none. The tables lie where the super block in `super_file` says
 * or, when that is empty, the device's own; the latter is what is copied. The new mapfile says as
 * ddrescue does which blocks were read, and which could not be. */
bool save(const SaveOptions &options);

} // namespace tierctl
