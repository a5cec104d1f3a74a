#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tierctl {

/* What zu_tier makes of a repair file. */
struct Rebuilt {
    std::optional<Block> block;        /* empty: it refuses the file */
    std::vector<std::string> messages; /* its ERROR messages, without what precedes their text */
    int64_t offset = -1;               /* on the device, where it would write the block */
};

/* Gives the text of a repair file to the tool's own parser of the table. `force` is the tool's -F,
 * which skips the rules of a super block. Writes nothing to the device. */
Rebuilt rebuild(const Device &device, const Metadata &metadata, const Table &table,
                const std::string &text, bool force);

} // namespace tierctl
