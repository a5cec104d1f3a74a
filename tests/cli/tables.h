#pragma once

// The tables of each kind, for the rules that hold in all layouts.

#include "table_v2.h"
#include "table_v3.h"

#include <gtest/gtest.h>

namespace tier_test {

using BrickTables = testing::Types<BrickTableV1, BrickTableV2, BrickTableV3>;
using InodeTables = testing::Types<InodeTableV1, InodeTableV2, InodeTableV3>;
using ExtentTables = testing::Types<ExtentTableV1, ExtentTableV2>;

} // namespace tier_test
