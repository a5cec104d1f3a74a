#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>

namespace tierctl {

/* What the super block of the layout says that cannot be so: each of its parameters, and how the
 * areas lie on a device of so many bytes. */
void check_super(const Metadata &metadata, uint64_t device_size, Report &report);

} // namespace tierctl
