#pragma once

#include "device.h"
#include "run.h"

#include <string>

namespace tier_fuzz {

// What a restore of an inode is called with.
struct RestoreCall {
    int layout; // 1 or 2
    View super; // a block
    std::int32_t no;
    bool force;
    bool complete; // there are parameters, with a super block and an open device
};

// Where the inode lies.
std::int64_t restored_offset(const RestoreCall &call);

// The result of the call. Reads and writes a device as the restore must, and puts into `printed`
// what it must print.
Outcome restore(const RestoreCall &call, Device &device, std::string &printed);

} // namespace tier_fuzz
