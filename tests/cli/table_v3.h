#pragma once

#include "table.h"

namespace tier_test {

using BrickTableV3 = Table<SuperV3, BrickV3>;
using InodeTableV3 = Table<SuperV3, InodeV3>;

template <>
const BrickTableV3 &table();
template <>
const InodeTableV3 &table();

} // namespace tier_test
