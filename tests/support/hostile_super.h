#pragma once

// Super blocks whose checksum is right and whose numbers lie.

#include "device.h"

#include <functional>
#include <string>
#include <vector>

namespace tier_test {

struct HostileSuper {
    std::string what; // "v3 inode_cnt 4294967296"
    Block block;
};

// Of a layout, 1 to 3, and a device with that super block: each number in it, but those that tell
// the layout, with each value at which a sum or a product may overflow.
std::vector<HostileSuper> hostile_supers(int version, const Block &super);

// One device for each of them; `make` makes a sound one, whose super block is `super`.
std::vector<Device> hostile_devices(int version, const Block &super,
                                    const std::function<Device()> &make);

} // namespace tier_test
