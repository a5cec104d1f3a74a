#pragma once

#include "zu_tierctl/plan/plan_file.h"
#include "zu_tierctl/plan/troubles.h"

#include <vector>

namespace tierctl {

/* A step for each slot with errors, or one that leaves it, in the order of the tables. `saved` may
 * be null. `troubles` are those of the device, whose lost entries become free with `free_lost`. */
std::vector<Step> plan_steps(const Device &device, const Metadata &metadata, const Device *saved,
                             bool free_lost, Troubles &troubles);

} // namespace tierctl
