#pragma once

#include "zu_tierctl/plan/plan_file.h"

namespace tierctl {

/* The block that a step of a plan writes to its slot, made by the tool's own parser where the step
 * has keys. Throws a sentence unless it has the right magic, number and checksum. */
Block make_step_block(const Device &device, const Metadata &metadata, const Table &table,
                      const Step &step);

} // namespace tierctl
