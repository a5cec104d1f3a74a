#pragma once

#include "table.h"

namespace tier_test {

using BrickTableV2 = Table<SuperV2, BrickV2>;
using InodeTableV2 = Table<SuperV2, InodeV2>;
using ExtentTableV2 = Table<SuperV2, ExtentV2>;

template <>
const BrickTableV2 &table();
template <>
const InodeTableV2 &table();
template <>
const ExtentTableV2 &table();

// The extent without what no repair fills: block, size, clean flag, time stamp, heat, bitmap and
// hot area.
ExtentV2 repairable(ExtentV2 extent);

// The line about an inode number that the super block does not admit: nothing if it does.
Log inode_number_errors(const SuperV2 &sb, std::uint32_t no);

// The parser's line about an inode that does not belong on the device. `meta_no` is the number that
// the command line named.
LogLine inode_refused(const SuperV2 &sb, const InodeV2 &inode, int meta_no = -1);

} // namespace tier_test
