#pragma once

#include "bytes.h"

#include <cstdint>
#include <map>
#include <string>

namespace tier_test {

// The content of a device, by the offsets of the blocks in which not all bytes are zero. The holes
// of an image cost nothing.
using Snapshot = std::map<std::uint64_t, Block>;

Snapshot take_snapshot(const std::string &device);

// What the device held there.
Block block_at(const Snapshot &snapshot, std::uint64_t offset);

// The content once `block` has been written at `offset`, which need not be a multiple of 4096.
Snapshot with_block(Snapshot snapshot, std::uint64_t offset, const Block &block);

// The offsets of the blocks that differ, for messages.
std::string differences(const Snapshot &before, const Snapshot &after);

} // namespace tier_test
