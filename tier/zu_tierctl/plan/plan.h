#pragma once

#include "zu_tierctl/plan/plan_file.h"

#include <string>

namespace tierctl {

struct PlanOptions {
    std::string device;
    std::string saved{};       /* a saved file of the device to copy entries from; or empty */
    bool free_lost = false;    /* entries whose owner does not exist become free */
    bool only_certain = false; /* leave out the other steps */
    std::string release{};     /* of the program */
};

/* A step for each slot of a device in which a check finds an error, or one that leaves it. `saved`
 * may be null, and is a saved file of the same device: see require_saved(). Says on standard error
 * what explains many of the errors, and throws when the tables are of another layout. Writes
 * nothing, but lays the blocks over the device meanwhile: a step that would bring an error is left
 * out. */
Plan make_plan(Device &device, const Metadata &metadata, const Device *saved, bool free_lost);

/* Throws unless entries can be copied from `saved`: it was saved from this device, under this super
 * block. */
void require_saved(const Device &saved, const Device &device, const Metadata &metadata);

/* Prints the plan of a device to standard output, and what it holds to standard error. Throws when
 * the device or the saved file cannot be read. */
void plan(const PlanOptions &options);

} // namespace tierctl
