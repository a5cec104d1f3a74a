#pragma once

#include "zu_tier/format/v2.h"
#include "zu_tierctl/rescue/areas.h"

namespace tierctl {

/* Looks for the expansion area, of which one inode says where all of them are. It goes on from the
 * inodes before `extents`, and begins at `start` at the earliest. */
std::optional<ExpansionFacts> find_expansion(const Device &device, const tier_table &inode,
                                             const AreaFacts &facts,
                                             const ExtentTraces::value_type &extents,
                                             int64_t start);

} // namespace tierctl
