#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>

namespace tierctl {

/* Reports what is wrong in the super block: its parameters, and the places of its areas on a device
 * of so many bytes. */
void check_super(const Metadata &metadata, uint64_t device_size, Report &report);

} // namespace tierctl
