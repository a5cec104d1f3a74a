#pragma once

#include "zu_tierctl/entry/selection.h"

#include <string>

namespace tierctl {

struct RevertOptions {
    std::string saved;
    std::string device;
    EntryOperands entries;
    bool commit = false;
    bool damaged = false;      /* puts back what was damaged when it was saved, too */
    bool other_device = false; /* puts back the super block of a device that seems another one */
};

/* Shows entries as they are on the device and as they were in a saved file and, with `commit`, puts
 * their blocks back. Throws, before the first is written, when one of them must not be put back. */
void revert(const RevertOptions &options);

} // namespace tierctl
