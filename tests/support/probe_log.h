#pragma once

// The log of the search for the layout of a device.

#include "run.h"

namespace tier_test {

// The line with which a layout's check refuses a super block.
LogLine refused_by(int version, const Block &block);

// The head of a command's log: its settings, then the refusals of the layouts before `accepted`. A
// forced version checks no layout.
Log probe_log(const Device &device, const std::string &command, int accepted,
              const Settings &settings = {});

// The same, then what follows.
Log probe_log(const Device &device, const std::string &command, int accepted,
              const Settings &settings, const Log &rest);

} // namespace tier_test
