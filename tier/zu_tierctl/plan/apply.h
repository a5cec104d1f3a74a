#pragma once

#include <string>

namespace tierctl {

struct ApplyOptions {
    std::string plan;
    std::string device;
    std::string undo; /* the undo file: new, or that of an earlier run of the same plan */
    bool commit = false;
};

/* Shows what the steps of a plan change and what a check would find afterwards or, with `commit`,
 * writes them after the undo file. Throws, before anything is written, when a block of the device
 * is neither as the plan says nor as it is to be, or a step makes no sound entry or brings an error
 * that a check does not find now. */
void apply(const ApplyOptions &options);

} // namespace tierctl
