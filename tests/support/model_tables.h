#pragma once

// The parts of the model.

#include "model.h"

namespace tier_test {

std::vector<TableModel> super_tables();
std::vector<TableModel> entry_tables();  // of bricks, inodes and, but for V3, extents
std::vector<TableModel> packed_tables(); // of V3, and the hot table

} // namespace tier_test
