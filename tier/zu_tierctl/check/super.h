#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>

/* What the super block of the layout says that cannot be so: each of its parameters, and how the
 * areas lie on a device of so many bytes. */
void tierctl_check_super(const tierctl_metadata &metadata, uint64_t device_size,
                         tierctl_report &report);
