#pragma once

#include "zu_tierctl/entry/selection.h"

#include <optional>
#include <string>

namespace tierctl {

struct UndoOptions {
    std::string file;
    std::string device;
    std::optional<EntryOperands> entries{}; /* only these; nothing: all */
    bool commit = false;
};

/* Shows what leads back to the blocks before an apply and, with `commit`, writes them. Throws,
 * before anything is written, when a block of the device is neither as before nor as after. */
void undo(const UndoOptions &options);

} // namespace tierctl
