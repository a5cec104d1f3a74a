#pragma once

// How the layouts are asked in turn whether a device is theirs.

#include "run.h"

namespace tier_test {

// What a layout's check of the super block says about a block that it refuses.
LogLine refused_by(int version, const Block &block);

// The head of a command's log: its settings, then the refusals of the layouts that are asked before
// `accepted` about the super block of the device. A forced version asks nobody.
Log probe_log(const Device &device, const std::string &command, int accepted,
              const Settings &settings = {});

// The same, then what follows.
Log probe_log(const Device &device, const std::string &command, int accepted,
              const Settings &settings, const Log &rest);

} // namespace tier_test
